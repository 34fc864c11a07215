#include "support/FakeStreamSource.h"

#include <algorithm>
#include <cstring>

#include "support/FrameBuilder.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

namespace {

CMutex g_mutex;
CFakeStreamSource::Settings g_next;
CFakeStreamSource* g_last = nullptr;
std::atomic<int> g_live_count{0};
CMutex g_list_mutex;
std::vector<CFakeStreamSource*> g_list;

}  // namespace

CFakeStreamSource::Settings CFakeStreamSource::LiveVideo() {
    Settings settings;
    settings.video.width = 64;
    settings.video.height = 48;
    settings.video.encode_type = STREAM_VIDEO_H264;
    settings.video.frame_rate = 25;
    settings.specific_info = H264ParameterSets();
    return settings;
}

void CFakeStreamSource::SetNext(const Settings& settings) {
    CGuard guard(g_mutex);
    g_next = settings;
}

CStreamSource* CFakeStreamSource::Factory(const char*) {
    CGuard guard(g_mutex);
    return g_next.null_source ? nullptr : new CFakeStreamSource(g_next);
}

CFakeStreamSource* CFakeStreamSource::Make(const Settings& settings) {
    CGuard guard(g_mutex);
    return new CFakeStreamSource(settings);
}

void CFakeStreamSource::ForEach(const std::function<void(CFakeStreamSource&)>& function) {
    CGuard guard(g_list_mutex);
    for (CFakeStreamSource* source : g_list) {
        function(*source);
    }
}

CFakeStreamSource* CFakeStreamSource::Last() {
    CGuard guard(g_mutex);
    return g_last;
}

int CFakeStreamSource::LiveCount() {
    return g_live_count;
}

CFakeStreamSource::CFakeStreamSource(const Settings& settings) : m_settings(settings) {
    ++g_live_count;
    g_last = this;  // the factory holds the lock
    CGuard guard(g_list_mutex);
    g_list.push_back(this);
}

CFakeStreamSource::~CFakeStreamSource() {
    {
        CGuard guard(g_list_mutex);
        g_list.erase(std::find(g_list.begin(), g_list.end(), this));
    }
    CGuard guard(g_mutex);
    if (g_last == this) {
        g_last = nullptr;
    }
    --g_live_count;
}

void CFakeStreamSource::record(const std::string& call) {
    CGuard guard(m_mutex);
    m_calls.push_back(call);
}

std::vector<std::string> CFakeStreamSource::Calls() {
    CGuard guard(m_mutex);
    return m_calls;
}

int CFakeStreamSource::CountCalls(const std::string& name) {
    CGuard guard(m_mutex);
    return static_cast<int>(std::count(m_calls.begin(), m_calls.end(), name));
}

bool CFakeStreamSource::Give(const Flumen::CMediaFrame& frame) {
    CGuard guard(m_give_mutex);
    if (m_proc.empty()) {
        return false;
    }
    m_proc(frame);
    return true;
}

void CFakeStreamSource::Tell(unsigned int msg) {
    Notify(m_receiver_id, msg, 0);
}

void CFakeStreamSource::SetVideo(const StreamVideoFormat& format) {
    CGuard guard(m_mutex);
    m_settings.video = format;
}

void CFakeStreamSource::SetPacketState(int state) {
    m_packet_state = state;
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
    record("UpdataStreamInfo");
    Tell(MSG_STREAM_INFO);
    return 0;
}

bool CFakeStreamSource::Start(frame_proc_t proc) {
    record("Start");
    if (m_settings.start_fails) {
        return false;
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
    record("Pause");
    return true;
}

bool CFakeStreamSource::Resume() {
    record("Resume");
    return true;
}

bool CFakeStreamSource::SetSpeed(float speed) {
    record("SetSpeed " + std::to_string(speed));
    return true;
}

bool CFakeStreamSource::SeekByTime(const CTime& time) {
    record("Seek " + std::to_string(time.makeTime()));
    return !m_settings.seek_fails;
}

bool CFakeStreamSource::GetTime(CTime& time) {
    time = m_settings.begin;
    return true;
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

void CFakeStreamSource::SetIFrame() {
    record("SetIFrame");
}

bool CFakeStreamSource::getPacketType(int& packet_state) {
    packet_state = m_packet_state;
    return true;
}

int CFakeStreamSource::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Support
}  // namespace Kavio
