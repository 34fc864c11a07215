#ifndef VIDORA_STREAMSOURCE_LIVECHANNELSTATE_H
#define VIDORA_STREAMSOURCE_LIVECHANNELSTATE_H

#include <atomic>
#include <cstdint>
#include <memory>

#include "StreamSource/ChannelClients.h"
#include "StreamSource/ChannelFeed.h"
#include "StreamSource/ChannelName.h"
#include "StreamSource/IdList.h"
#include "StreamSource/MulticastOutput.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

// What CLiveChannel holds; its operations are in LiveChannel.cpp and LiveChannelSource.cpp.
//
// THREADING  m_mutex and m_ref_mutex are leaves beside each other, but for the locks of the feed and of the gate. No
//            call into the source is made under them.
struct CLiveChannel::Internal {
    CChannelName m_channel_name;  // set with m_mutex
    std::atomic<long> m_notify_id{0};
    std::shared_ptr<ChannelBuffers> m_buffers;  // constant

    CMutex m_mutex;
    transf_type_t m_transf_type VIDORA_GUARDED_BY(m_mutex) = TRANSF_TYPE_NONE;
    CRtspSvrConfig m_config VIDORA_GUARDED_BY(m_mutex);               // m_multicast borrows it
    std::shared_ptr<CChannelFeed> m_feed VIDORA_GUARDED_BY(m_mutex);  // null without a source
    long m_registry_id VIDORA_GUARDED_BY(m_mutex) = 0;                // of the registry that it was published in
    std::shared_ptr<CSourceGate> m_kept VIDORA_GUARDED_BY(m_mutex);   // the source that the registry has with it
    CMulticastOutput m_multicast VIDORA_GUARDED_BY(m_mutex);
    bool m_unicast VIDORA_GUARDED_BY(m_mutex) = true;
    std::shared_ptr<const CSdpParser> m_source_sdp VIDORA_GUARDED_BY(m_mutex);   // of the feed, from which was made
    std::shared_ptr<const CSdpParser> m_unicast_sdp VIDORA_GUARDED_BY(m_mutex);  // what clients get
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;
    CChannelClients m_clients VIDORA_GUARDED_BY(m_mutex);

    CMutex m_ref_mutex;
    int m_ref_cont VIDORA_GUARDED_BY(m_ref_mutex) = 0;
    int m_holds VIDORA_GUARDED_BY(m_ref_mutex) = 0;  // of the registry
    bool m_close_flag VIDORA_GUARDED_BY(m_ref_mutex) = false;
    CIdList m_users VIDORA_GUARDED_BY(m_ref_mutex);

    std::shared_ptr<CChannelFeed> feed();
    // The way to the source; null, with a log line, if there is none.
    std::shared_ptr<CSourceGate> gate();
    // The same for the operations on tracks, whose log line is another one.
    std::shared_ptr<CSourceGate> track_gate();
    // Reports to the source's feed how many clients there are.
    void count_locked(packet_type_t packet_type, bool joined) VIDORA_REQUIRES(m_mutex);
    bool uncall_locked(packet_type_t packet_type) VIDORA_REQUIRES(m_mutex);
    // The feed's description as clients of a unicast channel get it. Null if memory is short.
    std::shared_ptr<const CSdpParser> unicast_sdp_locked(const std::shared_ptr<const CSdpParser>& source)
        VIDORA_REQUIRES(m_mutex);
    bool can_leave_locked() VIDORA_REQUIRES(m_ref_mutex);
    std::shared_ptr<const CSdpParser> multicast_sdp_locked(const CSdpParser& source) VIDORA_REQUIRES(m_mutex);
    bool can_transfer_locked(const CSockAddrStorage& dest, const char* local_ip, int line) VIDORA_REQUIRES(m_mutex);
    packet_type_t transf_packets_locked() const VIDORA_REQUIRES(m_mutex) {
        return m_transf_type == TRANSF_TYPE_TS ? PACKET_TYPE_TS : PACKET_TYPE_RTP;
    }
    CMediaBuffer& transf_buffer_locked() VIDORA_REQUIRES(m_mutex) { return m_buffers->buffer[transf_packets_locked()]; }
    // Takes the channel off the source: it gets no messages any more, and what it has started there is undone. The
    // source; null if it is closed, or there is none.
    static CDataSource* leave_source(const std::shared_ptr<CChannelFeed>& feed, long channel_id);
    static void enter_source(const std::shared_ptr<CChannelFeed>& feed, long channel_id, long registry_id);
    std::shared_ptr<CChannelFeed> make_feed(const std::shared_ptr<CSourceGate>& gate, long channel_id);
    std::shared_ptr<CSourceGate> swap_kept_locked(const std::shared_ptr<CSourceGate>& gate) VIDORA_REQUIRES(m_mutex);
    int enter(const ChannelSink& sink);
    bool enter_sink_locked(const ChannelSink& sink) VIDORA_REQUIRES(m_mutex);
    int leave(const ChannelSink& sink);
    bool take_any_sink(ChannelSink& left);
    // The source has told its tracks, or others: the destinations of RTP send them too.
    void follow_tracks();
    void close_multicast_locked() VIDORA_REQUIRES(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_LIVECHANNELSTATE_H
