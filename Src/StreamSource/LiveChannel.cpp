#include "Vidora/LiveChannel.h"

#include <cstdio>
#include <new>
#include <set>
#include <string>

#include "Protocol/SdpParser.h"
#include "StreamSource/IdList.h"
#include "StreamSource/MulticastOutput.h"
#include "Vidora/DataSource.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t NOT_GIVEN = ~uint64_t{0};
const int MAX_NAME = 256;
const int MEDIA_VIDEO = 1;  // of CSdpParser::get_media_type_at
const int MEDIA_AUDIO = 0;
const char TS_RTPMAP[] = "33 MP2T/90000";
const char LIVE_RANGE[] = "npt=now-";

// A copy of a channel's name that is never freed, one for each different name: messages carry a pointer to it, and may
// be read when the channel has gone. Null if memory is short.
const char* intern_name(const char* name) {
    static CMutex mutex;
    static std::set<std::string>* names = new (std::nothrow) std::set<std::string>;
    CGuard guard(mutex);
    try {
        return names == nullptr ? nullptr : names->insert(name).first->c_str();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool is_packet_type(packet_type_t type) {
    return type >= PACKET_TYPE_RTP && type <= PACKET_TYPE_TS;
}

bool is_transf_type(transf_type_t type) {
    return type == TRANSF_TYPE_RTP || type == TRANSF_TYPE_TS;
}

packet_type_t packet_type_of(transf_type_t type) {
    return type == TRANSF_TYPE_TS ? PACKET_TYPE_TS : PACKET_TYPE_RTP;
}

}  // namespace

struct CLiveChannel::Internal {
    // Constant after Init.
    const char* m_channel_name = "";  // outlives the channel, see intern_name
    long m_notify_id = 0;
    transf_type_t m_transf_type = TRANSF_TYPE_NONE;
    CRtspSvrConfig m_config;
    CMediaBuffer* m_media_buffer[PACKET_TYPE_NONE] = {nullptr, nullptr, nullptr};  // owned

    CMutex m_mutex;
    CDataSource* m_data_src VIDORA_GUARDED_BY(m_mutex) = nullptr;  // the registry's
    uint64_t m_src_arg VIDORA_GUARDED_BY(m_mutex) = 0;             // kept, read by nothing
    CSdpParser* m_sdp VIDORA_GUARDED_BY(m_mutex) = nullptr;        // owned
    CMulticastOutput m_multicast VIDORA_GUARDED_BY(m_mutex);
    bool m_unicast VIDORA_GUARDED_BY(m_mutex) = true;

    CMutex m_ref_mutex;
    int m_ref_cont VIDORA_GUARDED_BY(m_ref_mutex) = 0;
    bool m_close_flag VIDORA_GUARDED_BY(m_ref_mutex) = false;
    CIdList m_users VIDORA_GUARDED_BY(m_ref_mutex);

    // The source; null, with a log line, if there is none.
    CDataSource* source_locked() VIDORA_REQUIRES(m_mutex);
    // The same for the operations on tracks, whose log line is another one.
    CDataSource* track_source_locked() VIDORA_REQUIRES(m_mutex);
    // The source, unless it has no packets of that type; null with a log line.
    CDataSource* source_for_locked(packet_type_t packet_type) VIDORA_REQUIRES(m_mutex);
    // Makes m_sdp anew from the source's. Its result: 1 for multicast, 0 for unicast, -1 without an SDP.
    int get_sdp_locked() VIDORA_REQUIRES(m_mutex);
    // Describes the multicast destinations in `sdp`; gives the base port.
    int add_destinations_locked(CSdpParser& sdp) VIDORA_REQUIRES(m_mutex);
    int finish_multicast_locked() VIDORA_REQUIRES(m_mutex);
    int finish_unicast_locked() VIDORA_REQUIRES(m_mutex);
    bool can_transfer_locked(const CSockAddrStorage& dest, const char* local_ip, int line) VIDORA_REQUIRES(m_mutex);
    void stop_destination_locked() VIDORA_REQUIRES(m_mutex);
    void close_live_channel_locked() VIDORA_REQUIRES(m_mutex);
};

CLiveChannel* CLiveChannel::Create() {
    CLiveChannel* channel = new (std::nothrow) CLiveChannel;
    if (channel == nullptr) {
        return nullptr;
    }
    bool complete = channel->m_internal != nullptr;
    for (int i = 0; complete && i < PACKET_TYPE_NONE; ++i) {
        complete = channel->m_internal->m_media_buffer[i] != nullptr;
    }
    if (!complete) {
        delete channel;
        return nullptr;
    }
    return channel;
}

CLiveChannel::CLiveChannel() : m_internal(new (std::nothrow) Internal) {
    if (m_internal == nullptr) {
        return;
    }
    for (CMediaBuffer*& buffer : m_internal->m_media_buffer) {
        buffer = new (std::nothrow) CMediaBuffer;
        if (buffer != nullptr) {
            buffer->EnableAutoSend();
        }
    }
}

CLiveChannel::~CLiveChannel() {
    if (m_internal == nullptr) {
        return;
    }
    logInfo("%s:%d ~CLiveChannel(), channel_name:%s \n", __FILE__, __LINE__, m_internal->m_channel_name);
    for (CMediaBuffer* buffer : m_internal->m_media_buffer) {
        delete buffer;
    }
    delete m_internal->m_sdp;
    delete m_internal;
}

void CLiveChannel::SetConfig(const CRtspSvrConfig& config) {
    m_internal->m_config = config;
}

int CLiveChannel::Init(const char* channel_name, long notify_id, transf_type_t transf_type) {
    if (channel_name == nullptr || !is_transf_type(transf_type)) {
        logError("%s:%d nonsupport this transf type[%d] \n", __FILE__, __LINE__, transf_type);
        return -1;
    }
    char name[MAX_NAME];
    std::snprintf(name, sizeof(name), "%s", channel_name);
    const char* kept_name = intern_name(name);
    if (kept_name == nullptr) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return -1;
    }
    m_internal->m_channel_name = kept_name;
    m_internal->m_notify_id = notify_id;
    m_internal->m_transf_type = transf_type;
    return 0;
}

CDataSource* CLiveChannel::AddDataSrc(CDataSource* src, uint64_t arg) {
    CGuard guard(m_internal->m_mutex);
    CDataSource* old = m_internal->m_data_src;
    if (old != nullptr) {
        old->DelNotify(GetID());
    }
    m_internal->m_data_src = src;
    m_internal->m_src_arg = arg;
    if (src != nullptr) {
        src->AddNotify(GetID());
        src->Play(NOT_GIVEN, NOT_GIVEN, 1.0F, false);
        m_internal->get_sdp_locked();
    }
    return old;
}

int CLiveChannel::SetUnicast(bool unicast) {
    CGuard guard(m_internal->m_mutex);
    m_internal->m_unicast = unicast;
    m_internal->get_sdp_locked();
    return 0;
}

CMediaBuffer* CLiveChannel::GetMediaBuffer(packet_type_t packet_type) {
    if (!is_packet_type(packet_type)) {
        logError("%s:%d do nonsupport this packet type, packet_type:%d\n", __FILE__, __LINE__, packet_type);
        return nullptr;
    }
    return m_internal->m_media_buffer[packet_type];
}

int CLiveChannel::StartStreaming(packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    CDataSource* src = m_internal->source_for_locked(packet_type);
    return src == nullptr ? -1 : src->StartStreaming(packet_type, m_internal->m_media_buffer[packet_type], -1);
}

int CLiveChannel::StopStreaming(packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    CDataSource* src = m_internal->source_for_locked(packet_type);
    return src == nullptr ? -1 : src->StopStreaming(packet_type);
}

CDataSource* CLiveChannel::Internal::source_locked() {
    if (m_data_src == nullptr) {
        logError("%s:%d do not have data source\n", __FILE__, __LINE__);
    }
    return m_data_src;
}

CDataSource* CLiveChannel::Internal::source_for_locked(packet_type_t packet_type) {
    CDataSource* src = source_locked();
    if (src != nullptr && !is_packet_type(packet_type)) {
        logError("%s:%d nonsupport this packet type[%d] \n", __FILE__, __LINE__, packet_type);
        return nullptr;
    }
    return src;
}

// Multicast destinations.

bool CLiveChannel::Internal::can_transfer_locked(const CSockAddrStorage& dest, const char* local_ip, int line) {
    if (dest.IsValid() && m_data_src != nullptr && is_transf_type(m_transf_type)) {
        return true;
    }
    logError("%s:%d dest_ip.IsValid():%d, local_ip:%s,  m_data_src:%p, m_transf_type:%d\n", __FILE__, line,
             dest.IsValid() ? 1 : 0, local_ip == nullptr ? "" : local_ip, static_cast<void*>(m_data_src),
             m_transf_type);
    return false;
}

int CLiveChannel::AddTransfDst(CSockAddrStorage& dest_ip, const char* local_ip) {
    Internal& self = *m_internal;
    CGuard guard(self.m_mutex);
    if (!self.can_transfer_locked(dest_ip, local_ip, __LINE__)) {
        return -1;
    }
    const packet_type_t packet_type = packet_type_of(self.m_transf_type);
    CMediaBuffer* buffer = self.m_media_buffer[packet_type];
    const bool by_track = packet_type == PACKET_TYPE_RTP && self.m_sdp != nullptr;
    if (self.m_multicast.Add(dest_ip, local_ip, by_track ? self.m_sdp->get_media_count() : 0, self.m_config, *buffer) <
        0) {
        return -1;
    }
    // For RTP the host starts the streaming itself; DelTransfDst stops it all the same.
    if (packet_type == PACKET_TYPE_TS) {
        self.m_data_src->StartStreaming(PACKET_TYPE_TS, buffer, -1);
    }
    self.get_sdp_locked();
    return 0;
}

int CLiveChannel::DelTransfDst(CSockAddrStorage& dest_ip, const char* local_ip) {
    Internal& self = *m_internal;
    CGuard guard(self.m_mutex);
    if (!self.can_transfer_locked(dest_ip, local_ip, __LINE__)) {
        return -1;
    }
    if (!self.m_multicast.Remove(dest_ip, local_ip, *self.m_media_buffer[packet_type_of(self.m_transf_type)])) {
        char ip[64];
        logError("%s:%d do not find this transf dest, ip:%s port:%d\n", __FILE__, __LINE__,
                 dest_ip.GetIpStr(ip, sizeof(ip)), dest_ip.GetPort());
        return -1;
    }
    if (self.m_transf_type == TRANSF_TYPE_RTP) {
        logInfo("%s:%d StopStreaming m_channel_name %s\n", __FILE__, __LINE__, self.m_channel_name);
    }
    self.stop_destination_locked();
    self.get_sdp_locked();
    return 0;
}

// Of a destination that has been removed.
void CLiveChannel::Internal::stop_destination_locked() {
    if (m_data_src != nullptr) {
        m_data_src->StopStreaming(packet_type_of(m_transf_type));
    }
}

// The SDP.

int CLiveChannel::Internal::get_sdp_locked() {
    delete m_sdp;
    m_sdp = nullptr;
    if (m_data_src == nullptr) {
        return -1;
    }
    m_sdp = new (std::nothrow) CSdpParser;
    if (m_sdp == nullptr || m_data_src->GetSdp(*m_sdp) < 0) {
        delete m_sdp;
        m_sdp = nullptr;
        return -1;
    }
    return m_unicast ? finish_unicast_locked() : finish_multicast_locked();
}

int CLiveChannel::Internal::add_destinations_locked(CSdpParser& sdp) {
    sdp.remove_session_attribute("packetization-supported");
    sdp.set_session_attribute("range", LIVE_RANGE);
    return m_multicast.DescribeIn(sdp);
}

int CLiveChannel::Internal::finish_multicast_locked() {
    const int base_port = add_destinations_locked(*m_sdp);
    for (int i = 0; i < m_sdp->get_media_count(); ++i) {
        const int track_id = m_sdp->get_track_id(i);
        const int media_type = m_sdp->get_media_type_at(i);
        if (media_type == MEDIA_VIDEO) {
            m_sdp->set_media_port(track_id, static_cast<uint16_t>(base_port));
            if (m_transf_type == TRANSF_TYPE_TS) {
                m_sdp->set_media_attribute(track_id, "rtpmap", TS_RTPMAP);
            }
        } else if (media_type == MEDIA_AUDIO && m_transf_type == TRANSF_TYPE_RTP) {
            m_sdp->set_media_port(track_id, static_cast<uint16_t>(base_port + 2));
        }
    }
    m_sdp->GetStream();
    return 1;
}

int CLiveChannel::Internal::finish_unicast_locked() {
    if (!is_transf_type(m_transf_type)) {
        return -1;
    }
    m_sdp->set_session_attribute("range", LIVE_RANGE);
    for (int i = 0; m_transf_type == TRANSF_TYPE_TS && i < m_sdp->get_media_count(); ++i) {
        if (m_sdp->get_media_type_at(i) == MEDIA_VIDEO) {
            m_sdp->set_media_attribute(m_sdp->get_track_id(i), "rtpmap", TS_RTPMAP);
            break;
        }
    }
    m_sdp->GetStream();
    return 0;
}

int CLiveChannel::GetSdp(CSdpParser& sdp) {
    CGuard guard(m_internal->m_mutex);
    if (m_internal->m_sdp == nullptr) {
        logError("%s:%d GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    sdp = *m_internal->m_sdp;
    return m_internal->m_unicast ? 0 : 1;
}

// Ports go by the medium's index here, unlike in the shared SDP, where audio has the base port + 2 wherever it stands.
int CLiveChannel::GetSdp(CSdpParser& sdp, int ext_info) {
    Internal& self = *m_internal;
    CGuard guard(self.m_mutex);
    CDataSource* src = self.source_locked();
    if (src == nullptr) {
        return -1;
    }
    if (src->GetSdp(sdp, ext_info) < 0) {
        logError("%s:%d GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    if (!self.m_unicast) {
        const int base_port = self.add_destinations_locked(sdp);
        const bool is_ts = self.m_transf_type == TRANSF_TYPE_TS;
        for (int i = 0; i < sdp.get_media_count(); ++i) {
            if (is_ts && sdp.get_media_type_at(i) != MEDIA_VIDEO) {
                continue;
            }
            sdp.set_media_port(sdp.get_track_id(i), static_cast<uint16_t>(base_port + 2 * i));
            if (is_ts) {
                sdp.set_media_attribute(sdp.get_track_id(i), "rtpmap", TS_RTPMAP);
            }
        }
    }
    sdp.GetStream();
    return self.m_unicast ? 0 : 1;
}

// Questions to the source.

int CLiveChannel::GetSrcInfo(SrcInfo& info, int track_id) {
    CGuard guard(m_internal->m_mutex);
    CDataSource* src = m_internal->source_locked();
    return src == nullptr ? -1 : src->GetSrcInfo(info, track_id);
}

int CLiveChannel::GetTcpChannel(int track_id) {
    CGuard guard(m_internal->m_mutex);
    CDataSource* src = m_internal->source_locked();
    return src == nullptr ? -1 : src->GetTcpChannel(track_id);
}

unsigned int CLiveChannel::GetSSRC(int track_id) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->m_data_src == nullptr ? 0 : m_internal->m_data_src->GetSSRC(track_id);
}

int CLiveChannel::GetPlayRange(uint64_t& start, uint64_t& end) {
    start = 0;
    end = NOT_GIVEN;
    return 0;
}

int CLiveChannel::GetPlayRange(UtcTime&, UtcTime&) {
    logError("%s:%d nonsupport get utc range\n", __FILE__, __LINE__);
    return -1;
}

int CLiveChannel::UpdataLiveChannel(long arg) {
    CGuard guard(m_internal->m_mutex);
    delete m_internal->m_sdp;
    m_internal->m_sdp = nullptr;
    return m_internal->m_data_src == nullptr ? -1 : m_internal->m_data_src->UpdataDataSrc(arg);
}

CDataSource* CLiveChannel::Internal::track_source_locked() {
    if (m_data_src == nullptr) {
        logError("%s %d m_data_src is NULL\n", __FILE__, __LINE__);
    }
    return m_data_src;
}

int CLiveChannel::EnableStreamTrack(int track_kind) {
    CGuard guard(m_internal->m_mutex);
    CDataSource* src = m_internal->track_source_locked();
    return src == nullptr ? -1 : src->EnableStreamTrack(track_kind);
}

int CLiveChannel::DisableStreamTrack(int track_kind) {
    CGuard guard(m_internal->m_mutex);
    CDataSource* src = m_internal->track_source_locked();
    return src == nullptr ? -1 : src->DisableStreamTrack(track_kind);
}

// References, messages and the end.

int CLiveChannel::AddRef(long user) {
    CGuard guard(m_internal->m_ref_mutex);
    if (!m_internal->m_users.Append(user)) {
        return -1;
    }
    ++m_internal->m_ref_cont;
    return 0;
}

int CLiveChannel::DelRef(long user) {
    CGuard guard(m_internal->m_ref_mutex);
    --m_internal->m_ref_cont;
    logInfo("%s:%d, m_ref_cont = %d\n", __FILE__, __LINE__, m_internal->m_ref_cont);
    m_internal->m_users.Remove(user);
    if (m_internal->m_close_flag && m_internal->m_ref_cont == 0) {
        logInfo("%s:%d, start to close,name=%s.\n", __FILE__, __LINE__, m_internal->m_channel_name);
        guard.Leave();
        CNetHandler::Close();
    }
    return 0;
}

int CLiveChannel::handle_message(long, unsigned int msg, long) {
    switch (msg) {
        case MSG_SRC_READY:  // the first readiness reaches the sessions as an update too
        case MSG_SDP_UPDATE: {
            {
                CGuard guard(m_internal->m_mutex);
                m_internal->get_sdp_locked();
            }
            notify_session(MSG_SDP_UPDATE);
            break;
        }
        case MSG_PLAY_READY:  // the channel started the source itself
            break;
        default:
            Notify(m_internal->m_notify_id, msg, reinterpret_cast<long>(m_internal->m_channel_name));
            break;
    }
    return 0;
}

void CLiveChannel::notify_session(unsigned int msg) {
    CGuard guard(m_internal->m_ref_mutex);
    for (const long user : m_internal->m_users) {
        Notify(user, msg, reinterpret_cast<long>(m_internal->m_channel_name));
    }
}

// The source is not closed here: the registry does that.
void CLiveChannel::Internal::close_live_channel_locked() {
    while (m_multicast.RemoveFirst(*m_media_buffer[packet_type_of(m_transf_type)])) {
        if (m_transf_type == TRANSF_TYPE_TS) {
            logInfo("%s:%d,try to stop TS streaming.\n", __FILE__, __LINE__);
        } else {
            logInfo("%s:%d,try to stop RTP streaming\n", __FILE__, __LINE__);
        }
        stop_destination_locked();
    }
    m_data_src = nullptr;
}

// The delayed close: sessions are told, and the last one to leave finishes it.
void CLiveChannel::Close() {
    {
        CGuard guard(m_internal->m_mutex);
        m_internal->close_live_channel_locked();
    }
    notify_session(MSG_SRC_END);
    CGuard guard(m_internal->m_ref_mutex);
    if (m_internal->m_ref_cont != 0) {
        m_internal->m_close_flag = true;
        logInfo("%s:%d, set close flag, name=%s.\n", __FILE__, __LINE__, m_internal->m_channel_name);
        return;
    }
    logInfo("%s:%d, close live channel, name=%s.\n", __FILE__, __LINE__, m_internal->m_channel_name);
    guard.Leave();
    CNetHandler::Close();
}

int CLiveChannel::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
