// A channel's source, what it describes, and where it sends by itself.
#include "Protocol/SdpParser.h"
#include "StreamSource/ChannelSdp.h"
#include "StreamSource/LiveChannelState.h"
#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

namespace {

void leave_notify_list(const std::shared_ptr<CSourceGate>& gate, long id) {
    const CSourceGate::CCall call(gate);
    if (call) {
        call->DelNotify(id);
    }
}

}  // namespace

// The source.

CDataSource* CLiveChannel::AddDataSrc(CDataSource* src, uint64_t) {
    Internal& self = *m_internal;
    const std::shared_ptr<CSourceGate> gate = CSourceGate::Of(src);
    const std::shared_ptr<CChannelFeed> feed = self.make_feed(gate, GetID());
    std::shared_ptr<CChannelFeed> old;
    std::shared_ptr<CSourceGate> kept;
    long registry_id = 0;
    {
        CGuard guard(self.m_mutex);
        if (self.m_closed || (src != nullptr && feed == nullptr)) {
            logError("%s:%d the channel is closed, or memory is short\n", __FILE__, __LINE__);
            return src;
        }
        old = self.m_feed;
        self.m_feed = feed;
        for (int i = 0; i < PACKET_TYPE_NONE; ++i) {
            self.count_locked(static_cast<packet_type_t>(i), true);
        }
        registry_id = self.m_registry_id;
        kept = self.swap_kept_locked(gate);
    }
    CDataSource* given_back = Internal::leave_source(old, GetID());
    if (kept != nullptr) {
        const bool was_fed_by_it = old != nullptr && kept == old->Gate();
        // One that the registry goes on having isn't the caller's, nor one that another call has given back.
        if (was_fed_by_it && (kept == gate || !kept->HandBack())) {
            given_back = nullptr;
        }
        if (kept->Release(!was_fed_by_it)) {
            leave_notify_list(kept, registry_id);
        }
    }
    Internal::enter_source(feed, GetID(), registry_id);
    return given_back;
}

// Begins with the text of the source before it. Null without a source, or if memory is short.
std::shared_ptr<CChannelFeed> CLiveChannel::Internal::make_feed(const std::shared_ptr<CSourceGate>& gate,
                                                                long channel_id) {
    if (gate == nullptr) {
        return nullptr;
    }
    const std::shared_ptr<CChannelFeed> former = feed();
    return CChannelFeed::Create(gate, m_buffers, channel_id, former == nullptr ? "" : former->GetText());
}

// Of a published channel: the registry has its source from now on. Returns the one that it had.
std::shared_ptr<CSourceGate> CLiveChannel::Internal::swap_kept_locked(const std::shared_ptr<CSourceGate>& gate) {
    if (m_registry_id == 0) {
        return nullptr;
    }
    if (gate != nullptr) {
        gate->Keep();
    }
    std::shared_ptr<CSourceGate> former = gate;
    former.swap(m_kept);
    return former;
}

CDataSource* CLiveChannel::Internal::leave_source(const std::shared_ptr<CChannelFeed>& feed, long channel_id) {
    if (feed == nullptr) {
        return nullptr;
    }
    const CSourceGate::CCall call(feed->Gate());
    if (!call) {
        return nullptr;
    }
    call->DelNotify(channel_id);
    feed->Quit(*call);
    feed->Settle();
    return &*call;
}

void CLiveChannel::Internal::enter_source(const std::shared_ptr<CChannelFeed>& feed, long channel_id,
                                          long registry_id) {
    if (feed == nullptr) {
        return;
    }
    {
        const CSourceGate::CCall call(feed->Gate());
        if (!call) {
            return;
        }
        call->AddNotify(channel_id);
        if (registry_id != 0) {
            call->AddNotify(registry_id);
        }
    }
    feed->WantBegin();
    feed->Settle();
}

std::shared_ptr<CChannelFeed> CLiveChannel::Internal::feed() {
    CGuard guard(m_mutex);
    return m_feed;
}

std::shared_ptr<CSourceGate> CLiveChannel::Internal::gate() {
    const std::shared_ptr<CChannelFeed> now = feed();
    if (now == nullptr) {
        logError("%s:%d do not have data source\n", __FILE__, __LINE__);
        return nullptr;
    }
    return now->Gate();
}

std::shared_ptr<CSourceGate> CLiveChannel::Internal::track_gate() {
    const std::shared_ptr<CChannelFeed> now = feed();
    if (now == nullptr) {
        logError("%s %d m_data_src is NULL\n", __FILE__, __LINE__);
        return nullptr;
    }
    return now->Gate();
}

int CLiveChannel::publish(long registry_id, CDataSource* src) {
    const std::shared_ptr<CSourceGate> gate = CSourceGate::Of(src);
    {
        CGuard guard(m_internal->m_mutex);
        if (m_internal->m_registry_id != 0 || m_internal->m_closed || gate == nullptr) {
            return -1;
        }
        m_internal->m_registry_id = registry_id;
        m_internal->m_kept = gate;
        gate->Keep();
    }
    const CSourceGate::CCall call(gate);
    if (call) {
        call->AddNotify(registry_id);
    }
    hold();
    return 0;
}

void CLiveChannel::unpublish(bool closes) {
    if (closes) {
        Close();
    }
    std::shared_ptr<CSourceGate> kept;
    long registry_id = 0;
    {
        CGuard guard(m_internal->m_mutex);
        kept.swap(m_internal->m_kept);
        registry_id = m_internal->m_registry_id;
        m_internal->m_registry_id = 0;
    }
    if (kept != nullptr && kept->Release(closes)) {
        leave_notify_list(kept, registry_id);
    }
    release();
}

bool CLiveChannel::is_kept(const CDataSource* src) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->m_kept != nullptr && m_internal->m_kept == CSourceGate::Of(src);
}

bool CLiveChannel::is_closed() {
    CGuard guard(m_internal->m_mutex);
    return m_internal->m_closed;
}

// Multicast destinations.

bool CLiveChannel::Internal::can_transfer_locked(const CSockAddrStorage& dest, const char* local_ip, int line) {
    if (dest.IsValid() && m_feed != nullptr && (m_transf_type == TRANSF_TYPE_RTP || m_transf_type == TRANSF_TYPE_TS)) {
        return true;
    }
    logError("%s:%d dest_ip.IsValid():%d, local_ip:%s,  m_data_src:%p, m_transf_type:%d\n", __FILE__, line,
             dest.IsValid() ? 1 : 0, local_ip == nullptr ? "" : local_ip,
             static_cast<void*>(m_feed == nullptr ? nullptr : m_feed->Gate()->Source()), m_transf_type);
    return false;
}

int CLiveChannel::AddTransfDst(CSockAddrStorage& dest_ip, const char* local_ip) {
    Internal& self = *m_internal;
    std::shared_ptr<CChannelFeed> feed;
    bool waits_for_tracks = false;
    {
        CGuard guard(self.m_mutex);
        if (!self.can_transfer_locked(dest_ip, local_ip, __LINE__)) {
            return -1;
        }
        feed = self.m_feed;
        const packet_type_t packet_type = self.transf_packets_locked();
        const int media_count = packet_type == PACKET_TYPE_RTP ? feed->GetMediaCount() : 0;
        if (self.m_multicast.Add(dest_ip, local_ip, media_count, self.m_config, self.transf_buffer_locked()) < 0) {
            return -1;
        }
        // For RTP the host starts the streaming itself; DelTransfDst stops it all the same.
        if (packet_type == PACKET_TYPE_TS) {
            self.m_clients.Call(packet_type);
            self.count_locked(packet_type, true);
        }
        waits_for_tracks = packet_type == PACKET_TYPE_RTP && media_count == 0;
    }
    feed->WantDescription(waits_for_tracks);
    feed->Settle();
    return 0;
}

void CLiveChannel::Internal::follow_tracks() {
    CGuard guard(m_mutex);
    if (m_feed != nullptr && transf_packets_locked() == PACKET_TYPE_RTP) {
        m_multicast.Follow(m_feed->GetMediaCount());
    }
}

int CLiveChannel::DelTransfDst(CSockAddrStorage& dest_ip, const char* local_ip) {
    Internal& self = *m_internal;
    std::shared_ptr<CChannelFeed> feed;
    {
        CGuard guard(self.m_mutex);
        if (!self.can_transfer_locked(dest_ip, local_ip, __LINE__)) {
            return -1;
        }
        if (!self.m_multicast.Remove(dest_ip, local_ip, self.transf_buffer_locked())) {
            char ip[64];
            logError("%s:%d do not find this transf dest, ip:%s port:%d\n", __FILE__, __LINE__,
                     dest_ip.GetIpStr(ip, sizeof(ip)), dest_ip.GetPort());
            return -1;
        }
        if (self.m_transf_type == TRANSF_TYPE_RTP) {
            logInfo("%s:%d StopStreaming m_channel_name %s\n", __FILE__, __LINE__, self.m_channel_name.Get());
        }
        feed = self.m_feed;
        self.uncall_locked(self.transf_packets_locked());
    }
    feed->WantDescription(false);
    feed->Settle();
    return 0;
}

// The SDP.

int CLiveChannel::SetUnicast(bool unicast) {
    std::shared_ptr<CChannelFeed> feed;
    {
        CGuard guard(m_internal->m_mutex);
        m_internal->m_unicast = unicast;
        feed = m_internal->m_feed;
    }
    if (feed != nullptr) {
        feed->WantDescription(false);
        feed->Settle();
    }
    return 0;
}

int CLiveChannel::GetSdp(CSdpParser& sdp) {
    std::shared_ptr<const CSdpParser> shared;
    const int result = GetSdp(shared);
    if (result >= 0) {
        sdp = *shared;
    }
    return result;
}

int CLiveChannel::GetSdp(std::shared_ptr<const CSdpParser>& sdp) {
    Internal& self = *m_internal;
    const std::shared_ptr<CChannelFeed> feed = self.feed();
    const std::shared_ptr<const CSdpParser> source = feed != nullptr ? feed->GetSdp() : nullptr;
    std::shared_ptr<const CSdpParser> finished;
    bool unicast = false;
    if (source != nullptr) {
        CGuard guard(self.m_mutex);
        unicast = self.m_unicast;
        finished = unicast ? self.unicast_sdp_locked(source) : self.multicast_sdp_locked(*source);
    }
    if (finished == nullptr) {
        logError("%s:%d GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    sdp = std::move(finished);
    return unicast ? 0 : 1;
}

// It depends on what is constant, and so is made once for each description of the source.
std::shared_ptr<const CSdpParser> CLiveChannel::Internal::unicast_sdp_locked(
    const std::shared_ptr<const CSdpParser>& source) {
    if (m_unicast_sdp == nullptr || m_source_sdp != source) {
        const std::shared_ptr<CSdpParser> sdp = CSdpParser::Make();
        if (sdp != nullptr) {
            *sdp = *source;
            FinishUnicastSdp(*sdp, m_transf_type, m_config.GetConformance());
        }
        m_source_sdp = source;
        m_unicast_sdp = sdp;
    }
    return m_unicast_sdp;
}

std::shared_ptr<const CSdpParser> CLiveChannel::Internal::multicast_sdp_locked(const CSdpParser& source) {
    std::shared_ptr<CSdpParser> sdp = CSdpParser::Make();
    if (sdp != nullptr) {
        *sdp = source;
        FinishMulticastSdp(*sdp, m_transf_type, m_config.GetConformance(), m_multicast);
    }
    return sdp;
}

int CLiveChannel::GetSdp(CSdpParser& sdp, int ext_info) {
    Internal& self = *m_internal;
    const CSourceGate::CCall src(self.gate());
    if (!src) {
        return -1;
    }
    if (src->GetSdp(sdp, ext_info) < 0) {
        logError("%s:%d GetSdp fail\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(self.m_mutex);
    if (self.m_unicast) {
        sdp.GetStream();
        return 0;
    }
    FinishExtendedSdp(sdp, self.m_transf_type, self.m_multicast);
    return 1;
}

int CLiveChannel::UpdataLiveChannel(long arg) {
    const std::shared_ptr<CChannelFeed> feed = m_internal->feed();
    if (feed == nullptr) {
        return -1;
    }
    feed->WantUpdate(arg);
    return feed->Settle() ? feed->UpdateResult() : 0;
}

// Questions to the source.

int CLiveChannel::GetSrcInfo(SrcInfo& info, int track_id) {
    const CSourceGate::CCall src(m_internal->gate());
    return src ? src->GetSrcInfo(info, track_id) : -1;
}

int CLiveChannel::GetTcpChannel(int track_id) {
    const CSourceGate::CCall src(m_internal->gate());
    return src ? src->GetTcpChannel(track_id) : -1;
}

unsigned int CLiveChannel::GetSSRC(int track_id) {
    const std::shared_ptr<CChannelFeed> feed = m_internal->feed();
    const CSourceGate::CCall src(feed == nullptr ? nullptr : feed->Gate());
    return src ? src->GetSSRC(track_id) : 0;
}

int CLiveChannel::GetPlayRange(uint64_t& start, uint64_t& end) {
    start = 0;
    end = TIME_NOT_GIVEN;
    return 0;
}

int CLiveChannel::GetPlayRange(UtcTime&, UtcTime&) {
    logError("%s:%d nonsupport get utc range\n", __FILE__, __LINE__);
    return -1;
}

int CLiveChannel::EnableStreamTrack(int track_kind) {
    const CSourceGate::CCall src(m_internal->track_gate());
    return src ? src->EnableStreamTrack(track_kind) : -1;
}

int CLiveChannel::DisableStreamTrack(int track_kind) {
    const CSourceGate::CCall src(m_internal->track_gate());
    return src ? src->DisableStreamTrack(track_kind) : -1;
}

void CLiveChannel::Internal::close_multicast_locked() {
    while (m_multicast.RemoveFirst(transf_buffer_locked())) {
        if (m_transf_type == TRANSF_TYPE_TS) {
            logInfo("%s:%d,try to stop TS streaming.\n", __FILE__, __LINE__);
        } else {
            logInfo("%s:%d,try to stop RTP streaming\n", __FILE__, __LINE__);
        }
    }
}

}  // namespace Vidora
}  // namespace Kavio
