#ifndef VIDORA_STREAMUDPRECEIVER_H
#define VIDORA_STREAMUDPRECEIVER_H

#include <array>
#include <memory>

#include "StreamReceiver.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

// One track's sockets, not connected. The places are those of SetTracks.
struct udp_receiver_track_t {
    std::shared_ptr<CSockDgram> rtp_sock;
    std::shared_ptr<CSockDgram> rtcp_sock;  // may be null
    // Datagrams of other hosts are dropped; the port doesn't matter. Invalid (a group whose sender isn't told): RTP is
    // taken by its version and payload type, RTCP by its version.
    CSockAddrStorage source;
    CSockAddrStorage other_source;  // as good as that one; invalid: none is
};

struct udp_receiver_socks_t {
    int count = 0;
    udp_receiver_track_t tracks[RECEIVER_MAX_TRACKS];
};

// CStreamUdpReceiver: reads the RTP and RTCP sockets of each track of a UDP session, unicast or multicast, see
// CStreamReceiver. A turn reads a socket as CDgramTurn does.
class CStreamUdpReceiver final : public CStreamReceiver {
public:
    // Shares the sockets. `owner_id` as in CStreamTcpReceiver::Create. Null if memory is short, or for a count outside
    // 1 to 16.
    static CStreamUdpReceiver* Create(const udp_receiver_socks_t& socks, long owner_id);

    // Watches all sockets of all tracks.
    int Start(uint64_t period_us, float speed) override;
    int Stop() override;

    int handle_stream_input() override;

protected:
    void release_socks() override;
    void read_rest(int track) override;

private:
    CStreamUdpReceiver() = default;
    ~CStreamUdpReceiver() override = default;

    // A socket with its place.
    struct sock_row_t {
        CSockDgram* sock;  // may be null
        int track;
        bool rtcp;
    };

    std::array<sock_row_t, 2 * RECEIVER_MAX_TRACKS> rows() const;
    sock_row_t row_of(int fd) const;
    int read_media(const sock_row_t& row);
    int read_reports(const sock_row_t& row);
    bool is_wanted(const sock_row_t& row, const DgramSlice& datagram, const CSockAddrStorage& from);
    bool has_right_form(const sock_row_t& row, const DgramSlice& datagram) const;

    // A track with the last senders that were accepted, of RTP and of RTCP.
    struct heard_track_t {
        udp_receiver_track_t track;
        CSockAddrStorage known[2];
    };

    int m_count = 0;
    int m_rest_reads = 0;                      // that are left to BYEs in this turn
    std::unique_ptr<heard_track_t[]> m_heard;  // m_count of them
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMUDPRECEIVER_H
