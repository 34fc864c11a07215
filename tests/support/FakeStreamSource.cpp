#include "support/FakeStreamSource.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/FrameBuilder.h"

namespace Kavio::Support {

using namespace Vidora;

namespace {

CMutex g_mutex;
CFakeStreamSource::Settings g_next;
CMutex g_list_mutex;
std::vector<CFakeStreamSource*> g_list;  // in the order in which they were made

}  // namespace

CFakeStreamSource::Settings CFakeStreamSource::LiveVideo(const change_t& change) {
    Settings settings;
    settings.video.width = 64;
    settings.video.height = 48;
    settings.video.encode_type = STREAM_VIDEO_H264;
    settings.video.frame_rate = 25;
    settings.specific_info = H264ParameterSets();
    if (change) {
        change(settings);
    }
    return settings;
}

CFakeStreamSource::Settings CFakeStreamSource::FileVideo(const change_t& change) {
    Settings settings = LiveVideo(change);
    settings.type = SRC_TYPE_FILE;
    return settings;
}

void CFakeStreamSource::SetNext(const Settings& settings) {
    CGuard guard(g_mutex);
    g_next = settings;
}

CStreamSource* CFakeStreamSource::Factory(const char*) {
    CGuard guard(g_mutex);
    return g_next.null_source ? nullptr : Make(g_next);
}

void CFakeStreamSource::ForEach(const std::function<void(CFakeStreamSource&)>& function) {
    CGuard guard(g_list_mutex);
    for (CFakeStreamSource* source : g_list) {
        function(*source);
    }
}

CFakeStreamSource* CFakeStreamSource::Last() {
    CGuard guard(g_list_mutex);
    return g_list.empty() ? nullptr : g_list.back();
}

int CFakeStreamSource::LiveCount() {
    CGuard guard(g_list_mutex);
    return static_cast<int>(g_list.size());
}

CFakeStreamSource::CFakeStreamSource(const Settings& settings) : m_settings(settings) {
    CGuard guard(g_list_mutex);
    g_list.push_back(this);
}

CFakeStreamSource::~CFakeStreamSource() {
    EXPECT_TRUE(m_proc.empty()) << "closed while it runs";
    CGuard guard(g_list_mutex);
    g_list.erase(std::find(g_list.begin(), g_list.end(), this));
}

bool CFakeStreamSource::Give(const Flumen::CMediaFrame& frame) {
    CGuard guard(m_give_mutex);
    if (m_proc.empty()) {
        return false;
    }
    m_proc(frame);
    return true;
}

void CFakeStreamSource::SetVideo(const StreamVideoFormat& format) {
    CGuard guard(m_mutex);
    m_settings.video = format;
}

int CFakeStreamSource::Init(long receiver_id, int) {
    m_receiver_id = receiver_id;
    if (m_settings.tells_info) {
        Tell(MSG_STREAM_INFO);
    }
    return m_settings.init_fails ? -1 : 0;
}

void CFakeStreamSource::GetVideoFormat(StreamVideoFormat& format) {
    CGuard guard(m_mutex);
    format = m_settings.video;
}

int CFakeStreamSource::GetVideoSpecificInfo(char* buf, int len) {
    const size_t size = m_settings.specific_info.size();
    std::memcpy(buf, m_settings.specific_info.data(), std::min(size, static_cast<size_t>(len)));
    return static_cast<int>(size);
}

int CFakeStreamSource::UpdataStreamInfo(long) {
    if (m_settings.update_fails) {
        return -1;
    }
    Tell(MSG_STREAM_INFO);
    return 0;
}

bool CFakeStreamSource::Start(frame_proc_t proc) {
    record("Start");
    if (m_settings.start_fails) {
        return false;
    }
    if (m_settings.in_start) {
        m_settings.in_start();
    }
    CGuard guard(m_give_mutex);
    m_proc = proc;
    return true;
}

bool CFakeStreamSource::Stop(frame_proc_t proc) {
    record("Stop");
    CGuard guard(m_give_mutex);
    if (m_proc != proc) {
        return false;
    }
    m_proc = frame_proc_t();
    return true;
}

bool CFakeStreamSource::Pause() {
    if (m_settings.ends_in_calls) {
        Tell(MSG_SRC_END);
    }
    return record("Pause");
}

bool CFakeStreamSource::GetTime(CTime& time) {
    time = m_sought != 0 ? CTime(m_sought) : m_settings.begin;
    return true;
}

bool CFakeStreamSource::SeekByTime(const CTime& time) {
    if (m_settings.ends_in_calls) {
        Tell(MSG_SRC_END);
    }
    m_sought = time.makeTime() - time.makeTime() % m_settings.key_sec;
    return record("Seek " + std::to_string(time.makeTime())) && !m_settings.seek_fails;
}

bool CFakeStreamSource::GetFileRange(CTime& begin, CTime& end) {
    begin = m_settings.begin;
    end = m_settings.end;
    return true;
}

bool CFakeStreamSource::GetFileRange(uint64_t& length_us) {
    length_us = m_settings.length_us;
    return true;
}

bool CFakeStreamSource::getPacketType(int& packet_state) {
    packet_state = m_packet_state;
    return true;
}

int CFakeStreamSource::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Kavio::Support
