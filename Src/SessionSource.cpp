#include "SessionSource.h"

#include <cstring>
#include <new>

#include "Protocol/SdpParser.h"
#include "Tramel/StrParser.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {

const int SDP_WITH_ASSIST = 1;  // the extension that GetSdp takes

// Reads the number behind `word` in the channel's name. False if there is none.
bool read_number(CStrParser& name, const char* word, int* number, bool* found) {
    *found = name.LocateString(word) >= 0;
    if (!*found) {
        return false;
    }
    name.ConsumeLength(static_cast<unsigned int>(strlen(word)), nullptr, 0);
    *number = name.ConsumeInt16();
    return name.GetStatus() == 0;
}

}  // namespace

CSessionSource::CSessionSource() = default;

CSessionSource::~CSessionSource() = default;

bool CSessionSource::HasChannel(const char* content) const {
    return m_live_svr && m_live_svr->QueryLiveChannel(content) >= 0;
}

int CSessionSource::OpenLive(const char* content, int proto, long user) {
    m_is_live = true;
    m_wants_assist = proto == STREAM_PROTO_KAVIO;
    m_channel = m_live_svr->GetLiveChannel(content, user);
    return read_channel_name(content);
}

// A live channel's name must hold both words; the numbers serve the event of lost packets.
int CSessionSource::read_channel_name(const char* text) {
    CStrParser name(text, static_cast<unsigned int>(strlen(text)));
    bool found = false;
    if (!read_number(name, "channel=", &m_channel_number, &found)) {
        if (found) {
            logError("%s %d parser channel info failed!\n", __FILE__, __LINE__);
        } else {
            logError("%s %d m_channel_name is not cam/realmonitor?channel=1&subtype=...\n", __FILE__, __LINE__);
        }
        return -1;
    }
    if (!read_number(name, "subtype=", &m_subtype, &found)) {
        logError("%s %d parser streamtype info failed!\n", __FILE__, __LINE__);
        return -1;
    }
    return 0;
}

int CSessionSource::OpenOwn(const char* content, int proto, const CRtspSvrConfig& config, long user) {
    m_is_live = false;
    m_wants_assist = proto == STREAM_PROTO_KAVIO;
    m_own = CDataSource::Create(content);
    if (m_own == nullptr) {
        return -1;
    }
    m_own->SetConfig(config);
    return m_own->Init(user, 0) < 0 ? -1 : 0;
}

bool CSessionSource::Release(long user, bool hears_end) {
    Leave();
    disable_assist();
    const bool is_own = m_own != nullptr;
    if (is_own) {
        CDataSource* own = m_own;
        m_own = nullptr;
        if (!hears_end) {
            own->DelNotify(user);  // or its end would be taken for the session's
        }
        own->Close();
    }
    if (m_channel != nullptr) {
        CLiveChannel* channel = m_channel;
        m_channel = nullptr;
        channel->DelRef(user);
    }
    m_buffer.reset();
    m_is_live = false;
    m_started = false;
    m_counted_type = PACKET_TYPE_NONE;
    return is_own && hears_end;
}

bool CSessionSource::IsRecording() const {
    const src_type_t type = m_own != nullptr ? m_own->GetSrcType() : SRC_TYPE_NONE;
    return type == SRC_TYPE_FILE || type == SRC_TYPE_TOKEN;
}

long CSessionSource::SenderId() const {
    return m_channel != nullptr ? m_channel->GetID() : m_own != nullptr ? m_own->GetID() : 0;
}

int CSessionSource::GetSdp(std::shared_ptr<const CSdpParser>& sdp) {
    if (m_channel != nullptr && !m_wants_assist) {
        return m_channel->GetSdp(sdp);
    }
    const std::shared_ptr<CSdpParser> own = CSdpParser::Make();
    if (own == nullptr) {
        return -1;
    }
    const int result = of_source(
        [&](auto& source) { return m_wants_assist ? source.GetSdp(*own, SDP_WITH_ASSIST) : source.GetSdp(*own); });
    if (result >= 0) {
        own->GetStream();
        sdp = own;
    }
    return result;
}

int CSessionSource::GetSrcInfo(SrcInfo& info, int track_id) {
    return of_source([&](auto& source) { return source.GetSrcInfo(info, track_id); });
}

int CSessionSource::GetTcpChannel(int track_id) {
    return of_source([&](auto& source) { return source.GetTcpChannel(track_id); });
}

unsigned int CSessionSource::GetSSRC(int track_id) {
    return of_source([&](auto& source) { return source.GetSSRC(track_id); });
}

int CSessionSource::GetPlayRange(UtcTime& begin, UtcTime& end) {
    return of_source([&](auto& source) { return source.GetPlayRange(begin, end); });
}

int CSessionSource::GetPlayRange(uint64_t& begin_us, uint64_t& end_us) {
    return of_source([&](auto& source) { return source.GetPlayRange(begin_us, end_us); });
}

// It counts the session on.
void CSessionSource::Pause() {
    m_started = m_own->Pause() < 0 && m_started;
}

int CSessionSource::Start(packet_type_t type, int cseq) {
    if (m_started) {
        return 0;
    }
    const bool resumes = m_counted_type == type;
    if (!resumes && m_counted_type != PACKET_TYPE_NONE) {
        Stop(type);  // paused in another form
    }
    const int result = m_own->StartStreaming(type, m_buffer.get(), cseq);
    if (result < 0) {
        logError("%s:%d, startstreaming has problem, enable=%d..\n", __FILE__, __LINE__, result);
        return -1;
    }
    if (resumes && !IsRecording()) {
        m_own->StopStreaming(type);  // another source takes what goes on for a further client
    }
    m_started = true;
    m_counted_type = type;
    return 0;
}

// The form is that of its start: a SETUP may have asked for another one since.
int CSessionSource::Stop(packet_type_t type) {
    if (m_own == nullptr) {
        return -1;
    }
    const packet_type_t counted = m_counted_type != PACKET_TYPE_NONE ? m_counted_type : type;
    m_started = false;
    m_counted_type = PACKET_TYPE_NONE;
    return m_own->StopStreaming(counted);
}

int CSessionSource::Enter(IMediaRoute& route, packet_type_t type) {
    if (!m_is_live && !make_buffer()) {
        return -1;
    }
    enable_assist();
    if ((m_is_live ? route.EnterLive(*m_channel, type) : route.EnterBuffer(*m_buffer)) < 0) {
        return -1;
    }
    m_route = &route;
    m_route_type = type;
    return 0;
}

bool CSessionSource::make_buffer() {
    if (m_buffer == nullptr) {
        m_buffer.reset(new (std::nothrow) CMediaBuffer);
        if (m_buffer != nullptr) {
            m_buffer->EnableAutoSend();
        }
    }
    return m_buffer != nullptr;
}

void CSessionSource::Leave() {
    if (m_route == nullptr) {
        return;
    }
    IMediaRoute& route = *m_route;
    m_route = nullptr;
    if (m_channel != nullptr) {
        route.LeaveLive(*m_channel, m_route_type);
    } else if (m_buffer != nullptr) {
        route.LeaveBuffer(*m_buffer);
    }
}

void CSessionSource::enable_assist() {
    if (m_wants_assist && !m_assist_enabled) {
        m_assist_enabled = true;
        of_source([](auto& source) { return source.EnableStreamTrack(STREAM_TRACK_ASSIST); });
    }
}

void CSessionSource::disable_assist() {
    if (m_assist_enabled && IsOpen()) {
        of_source([](auto& source) { return source.DisableStreamTrack(STREAM_TRACK_ASSIST); });
    }
    m_assist_enabled = false;
}

bool CSessionSource::HasMediaToSend(uint64_t& unsent) {
    if (m_route == nullptr || m_buffer == nullptr) {
        return false;
    }
    const bool idle = m_buffer->IsIdle();
    unsent = m_route->Unsent();
    return !idle || unsent > 0;
}

}  // namespace Vidora
}  // namespace Kavio
