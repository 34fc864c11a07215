#ifndef VIDORA_NAT_NATLINK_H
#define VIDORA_NAT_NATLINK_H

#include <list>
#include <memory>
#include <string>

#include "RtspClient/ClientLink.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

// CNatLink: a client's way to its server through NATs: one UDP socket, on which a datagram is a message or an RTP
// packet. It is connected when the server has answered a hello. Hellos go on until its end, since the server, and the
// NATs between, take a silent client for gone.
//
// Datagrams get lost, so a request is repeated each tick under its CSeq until it is answered. The next one leaves only
// then: a server keeps its last reply alone, and what is repeated must not overtake what came behind it.
//
// Before the first hello only datagrams from the server's address count, from any port, as a NAT may have changed that;
// afterwards only those from where that hello came.
//
// THREADING  The strand of `handler`, but for the construction. While a receiver reads, this sends.
// MEMORY     The requests that wait: CLIENT_MAX_REQUESTS, of 4 kB at most.
class CNatLink final : public CHandlerLink {
public:
    using CHandlerLink::CHandlerLink;
    ~CNatLink() override;

    // Begins to say hello to `server`; OnLinkUp or OnLinkFailed follows, the latter also inside the call. `takes_rtcp`:
    // the server's RTCP, which its receivers drop otherwise.
    void Open(const CSockAddrStorage& server, const std::shared_ptr<CSockDgram>& sock, bool takes_rtcp);
    // A tick of the conversation has passed.
    void OnTick();
    int OnInput(int fd);

    bool IsUp() const override { return m_up; }
    // What the network, or an ICMP answer to what was sent before, does to a datagram is no failure.
    int Send(const char* bytes, unsigned int length) override;
    int SendRequest(const char* text, unsigned int length) override;
    void OnAnswered(int cseq) override;
    bool KeepsOrder() const override { return false; }
    bool SendsReports() const override { return false; }
    CSockAddrStorage Peer() const override { return m_up ? m_server : CSockAddrStorage(); }
    CSockAddrStorage Local() const override;
    CStreamReceiver* MakeReceiver(packet_type_t packet_type, long owner_id) override;
    void StopReading() override;
    void CloseLink() override;

private:
    struct request_t {
        int cseq;
        std::string text;
        bool aged;  // a tick has passed since it left
    };

    void say_hello();
    void repeat_request();
    void send_request();
    bool is_server(CSockAddrStorage from) const;
    void take(const DgramSlice& datagram, const CSockAddrStorage& from);
    void rise(const CSockAddrStorage& from);

    std::shared_ptr<CSockDgram> m_sock;
    CSockAddrStorage m_server;  // as the URL has it, then where its hello came from
    bool m_up = false;
    bool m_reads = false;
    bool m_takes_rtcp = false;
    unsigned int m_ticks = 0;
    std::list<request_t> m_requests;  // the first one has left
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NAT_NATLINK_H
