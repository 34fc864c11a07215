#ifndef VIDORA_NAT_P2PUDPRECEIVER_H
#define VIDORA_NAT_P2PUDPRECEIVER_H

#include <memory>

#include "StreamReceiver.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

// CP2PUdpReceiver: reads the one UDP socket of a NAT session, see CStreamReceiver. A datagram is an RTSP message, which
// begins with "R", or an RTP packet, whose payload type names the track: the first two can be recognised, and what
// belongs to neither is dropped. So is a hello of the server, what others than the server send, and what is shorter
// than an RTP header. RTCP, if it is taken at all, is known by its packet type (RFC 5761 4), and its track by the SSRC
// of its sender. A turn reads as CDgramTurn does.
class CP2PUdpReceiver final : public CStreamReceiver {
public:
    // Shares `sock`, on which `server` sends; `takes_rtcp`: or drops it. `owner_id` as in CStreamTcpReceiver::Create.
    // Null if memory is short.
    static CP2PUdpReceiver* Create(const std::shared_ptr<CSockDgram>& sock, const CSockAddrStorage& server,
                                   bool takes_rtcp, long owner_id);

    int Start(uint64_t period_us, float speed) override;
    int Stop() override;

    int handle_stream_input() override;
    // A datagram of the server, with room for a NUL behind it, for the time of the call. Of the strand. 0, or -1
    // without memory.
    int Take(const DgramSlice& datagram);

protected:
    void release_socks() override { m_sock.reset(); }

private:
    CP2PUdpReceiver(const std::shared_ptr<CSockDgram>& sock, const CSockAddrStorage& server, bool takes_rtcp)
        : m_sock(sock), m_server(server), m_takes_rtcp(takes_rtcp) {}
    ~CP2PUdpReceiver() override = default;

    void take_text(const DgramSlice& datagram);
    void take_report(const DgramSlice& datagram);

    std::shared_ptr<CSockDgram> m_sock;
    const CSockAddrStorage m_server;
    const bool m_takes_rtcp;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NAT_P2PUDPRECEIVER_H
