#ifndef VIDORA_RTPUDPSENDER_H
#define VIDORA_RTPUDPSENDER_H

#include <cstdint>
#include <memory>

#include "MulticastInterface.h"
#include "OutletSink.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

class CRtpUdpKeeper;
class CRtspSvrConfig;
class CUdpSockPair;

// CRtpUdpSender: the sink that sends a stream's packets over UDP, with a pair of sockets for each track; to one client,
// or to a multicast group.
//
// It takes the packets of all tracks with their interleave headers (RFC 2326 10.12), finds the socket by the channel
// byte, and sends each packet without its header.
//
// A group is sent to by the interface that was set, with that interface's address. A pair that can't be sent from (no
// network yet, the interface gone or with another address) tries anew with each Put. The log says once that sending
// fails, and once that it goes on.
//
// A pair that is connected, and could send last, is left in the sender's entry (see CPooledSink): the group sends by it
// without calling, as long as no track waits for a key frame.
//
// THREADING  Put: the thread that writes for the buffer, not twice at once. EnableTrack, DisableTrack: any thread. All
//            others: the owner's, also while the sender is attached to a buffer; a lock keeps them apart from Put, and
//            the entry's turn, below the lock, from the group.
// OWNERSHIP  The owner takes the sender off the buffer and then deletes it. The configuration is borrowed and must
//            outlive the sender. The keeper is the sender's; both share the sockets, so that neither waits for the
//            other's end.
class CRtpUdpSender : public COutletSink {
public:
    CRtpUdpSender();
    ~CRtpUdpSender() override;
    CRtpUdpSender(const CRtpUdpSender&) = delete;
    CRtpUdpSender& operator=(const CRtpUdpSender&) = delete;

    // Sends the packets in the first `length` bytes of `packet`. The top byte of `tag` is the track; the packets of a
    // track that is disabled count as sent: 0. `length`, or -1 if no socket has that channel, the packets are malformed
    // or the socket failed.
    int PutRest(CMediaPacket* packet, int offset, int length, int tag) override;

    // Port range and marking. Before OpenPair.
    void SetConfig(const CRtspSvrConfig* config);
    // Makes room for `media_num` tracks, below 16.
    void Init(int media_num);
    // Where the packets go; the port is set by OpenPair. 0.
    int SetRemote(CSockAddrStorage addr);
    // Opens the sockets of one track at a free pair of ports of the configured range, and returns the lower one.
    // `remote_port`: the peer's RTP port, its RTCP port is the next one. `channel`: the RTP channel in the packets'
    // headers, RTCP has the next one; the track that has it already sends to the new ports, by the sockets that it has.
    // 0, or -1 if there is no room, or no free pair (with a log line).
    int OpenPair(int* local_port, int remote_port, int channel);
    // The same at the local port that the peer was told, without a search and marking. 0, also if a socket can't be
    // opened; -1 if there is no room.
    int OpenPairAt(int local_port, int remote_port, int channel);
    // Multicast TTL (default 64) for pairs opened later; values below 1 are ignored. Groups of 224.0.0.x keep the
    // system's, which is 1. 0.
    int SetTtl(int ttl);
    // That with which a group is sent to.
    uint8_t GetTtl(const CSockAddrStorage& group);
    // The interface that multicast leaves by: an address or the name of it, see CMulticastInterface. It need not be
    // there yet. Before OpenPair. 0, or -1 for null.
    int SetMulticastIF(const char* ip);

    // Sends `len` bytes as one datagram on the socket of `channel`. `len`, also if the socket has no room for it, or -1
    // if no socket has the channel or the socket failed.
    int SendRaw(const char* buf, int len, int channel);

    // Watches the RTCP sockets that are open: when one is silent for `timeout_s` seconds, MSG_KEEPALIVE_TIMEOUT goes to
    // the handler `notify_id`, once. 0 seconds: never. 0, or -1 if memory is short.
    int StartKeepAlive(long notify_id, int timeout_s);

    // Switches tracks, 0 to 7. All are on at first; the first EnableTrack leaves only its own on. -1: all on.
    void EnableTrack(int track);
    void DisableTrack(int channel);
    // Switches a track off as well; once it is on again it goes on with its next key frame, if it has such frames.
    void PauseTrack(int track);

private:
    // One track.
    struct Slot {
        std::shared_ptr<CUdpSockPair> pair;
        int channel = -1;
        int remote_port = 0;
        bool aimed = false;  // knows where it sends, and could send there last
    };

    // What sends the packets of a channel.
    struct Outlet {
        Slot* slot = nullptr;
        CSockDgram* sock = nullptr;  // of the slot's pair
    };

    Slot* free_slot_locked(int channel) VIDORA_REQUIRES(m_mutex);
    std::shared_ptr<CUdpSockPair> open_in_range_locked(int* local_port) VIDORA_REQUIRES(m_mutex);
    void close_pair_locked(Slot& slot) VIDORA_REQUIRES(m_mutex);
    void take_slot_locked(Slot* slot, const std::shared_ptr<CUdpSockPair>& pair, int remote_port, int channel)
        VIDORA_REQUIRES(m_mutex);
    bool aim_locked(Slot& slot) VIDORA_REQUIRES(m_mutex);
    void set_ttl_locked(const Slot& slot) VIDORA_REQUIRES(m_mutex);
    void mark(CUdpSockPair& pair) const;
    Outlet find_outlet_locked(int channel, bool rtcp_first) VIDORA_REQUIRES(m_mutex);
    bool send_locked(const unsigned char* data, unsigned int length) VIDORA_REQUIRES(m_mutex);
    void fill_locked(Tramel::CSinkEntry& entry) VIDORA_REQUIRES(m_mutex) override;
    void report_failure_locked(const Slot& slot, int error) VIDORA_REQUIRES(m_mutex);
    void report_success_locked(const Slot& slot) VIDORA_REQUIRES(m_mutex);

    const CRtspSvrConfig* m_config = nullptr;
    CRtpUdpKeeper* m_keeper = nullptr;
    long m_keeper_notify_id = 0;
    int m_keeper_timeout_s = 0;

    std::unique_ptr<Slot[]> m_slots VIDORA_GUARDED_BY(m_mutex);
    int m_slot_count VIDORA_GUARDED_BY(m_mutex) = 0;
    int m_next_slot VIDORA_GUARDED_BY(m_mutex) = 0;
    CSockAddrStorage m_remote VIDORA_GUARDED_BY(m_mutex);
    int m_ttl VIDORA_GUARDED_BY(m_mutex) = 64;
    CMulticastInterface m_interface VIDORA_GUARDED_BY(m_mutex);
    bool m_failing VIDORA_GUARDED_BY(m_mutex) = false;         // the last send
    uint64_t m_last_report_ms VIDORA_GUARDED_BY(m_mutex) = 0;  // of a failed send
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTPUDPSENDER_H
