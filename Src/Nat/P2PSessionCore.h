#ifndef VIDORA_P2PSESSIONCORE_H
#define VIDORA_P2PSESSIONCORE_H

#include <memory>
#include <string_view>

#include "LinkTimer.h"
#include "Nat/LastReply.h"
#include "SvrHandler.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

// CP2PSessionCore: a conversation over one UDP socket: each text, and each packet of the media, is a datagram. It knows
// the peer once that is fixed; how it comes to be is the derived class's.
//
// A request that comes again gets the reply that it has got. Seconds without a datagram of the peer, which repeats its
// hello all the time, end the session, and fewer of them once it has torn down what it played. What ICMP reports is
// taken for silence.
//
// OWNERSHIP  Owns the socket and the conversation. The media's route borrows the socket.
// MEMORY     A peer can make it keep one reply, and what the conversation keeps.
class CP2PSessionCore : public CSvrHandler {
public:
    int64_t handle_timeout(long timer_id) override;

    void SendText(const char* text, int length) override;
    void StopSending() override { m_stopped = true; }
    void GetPeer(CSockAddrStorage& peer) override { peer = m_remote; }
    std::unique_ptr<IMediaRoute> MakeRoute(const RouteWish& wish) override;
    bool SendsReports() const override { return m_conversation.Config().GetConformance(); }

protected:
    CP2PSessionCore();

    // The time until the peer counts as silent begins now, for the first time or anew.
    bool watch_silence();
    void note_sign_of_life() { m_heard_us = CTime::getCurrentMicroSecond(); }
    // Whether a datagram of the peer is RTCP, to a session that sends reports itself: receivers of RTP report as well.
    // They are signs of life.
    bool is_report(std::string_view datagram) const;
    // Serves the datagram, which a NUL follows, as one whole request. 0, or -1: the session is ending.
    int take_request(const char* text, int length);
    void send(std::string_view datagram) {
        m_sock->Send(datagram.data(), static_cast<unsigned int>(datagram.size()), nullptr);
    }
    bool stopped() const { return m_stopped; }

    std::unique_ptr<CSockDgram> m_sock;
    CSockAddrStorage m_remote;  // the peer

private:
    void watch_leaving();

    bool m_stopped = false;
    uint64_t m_heard_us = 0;  // of the peer
    uint64_t m_max_silence_us = 0;
    CLinkTimer m_silence{*this};
    CLastReply m_last_reply;

protected:
    CSvrConversation m_conversation;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_P2PSESSIONCORE_H
