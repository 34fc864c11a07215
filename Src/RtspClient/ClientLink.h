#ifndef VIDORA_RTSPCLIENT_CLIENTLINK_H
#define VIDORA_RTSPCLIENT_CLIENTLINK_H

#include "RtspClient/ClientHandler.h"
#include "RtspClient/ClientTypes.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

class CStreamReceiver;

// ILinkUser: the conversation as its link sees it. All on the strand.
class ILinkUser {
public:
    // The link is up: requests may leave.
    virtual void OnLinkUp() = 0;
    // Bytes that begin with a message. How many of them it takes; 0 while it isn't there whole; -1: no more
    // input, the link is closed.
    virtual int TakeMessage(const char* text, unsigned int length) = 0;
    // The same for a link whose every datagram is one whole message: text with a NUL behind it.
    virtual void TakeDatagram(const char* text, unsigned int length) = 0;
    // The input can't hold a message, being full without one.
    virtual void OnLinkFlooded() = 0;
    // There is no link, or it broke.
    virtual void OnLinkFailed(rtsp_client_failure_t failure) = 0;

protected:
    ~ILinkUser() = default;
};

// IClientLink: what a client's conversation runs over: a TCP connection, or a UDP socket through a NAT.
//
// THREADING  The strand of the client's handler.
class IClientLink {
public:
    virtual ~IClientLink() = default;

    virtual bool IsUp() const = 0;
    // Sends a message that needs no reply, or a packet behind its interleave header, whole and in order. 0 or -1.
    virtual int Send(const char* bytes, unsigned int length) = 0;
    // Sends a request, which a link that may lose it repeats until OnAnswered. 0 or -1.
    virtual int SendRequest(const char* text, unsigned int length) { return Send(text, length); }
    // The reply to the request with that CSeq has come, or isn't waited for any more.
    virtual void OnAnswered(int /*cseq*/) {}
    // Whether a reply and the media arrive in the order in which they were sent.
    virtual bool KeepsOrder() const { return true; }
    // Whether receiver reports (RFC 3550 6.4.2) may travel on it.
    virtual bool SendsReports() const { return true; }
    // The addresses of the two ends; invalid while it isn't up.
    virtual CSockAddrStorage Peer() const = 0;
    virtual CSockAddrStorage Local() const = 0;
    // A receiver for the media that the link itself carries. From then on it reads the link, beginning with what was
    // read and not used, and hands the replies back. Its messages 1 and 2 go to `owner_id`. Null if memory is short.
    virtual CStreamReceiver* MakeReceiver(packet_type_t packet_type, long owner_id) = 0;
    // Takes the link out of the reactor: nothing is read any more, and no failure reported.
    virtual void StopReading() = 0;
    // Releases it; a receiver that was made keeps its share.
    virtual void CloseLink() = 0;
};

// CHandlerLink: what all links are made of: the handler whose sockets they watch, and who uses them.
class CHandlerLink : public IClientLink {
public:
    CHandlerLink(CClientHandler& handler, ILinkUser& user) : m_handler(handler), m_user(user) {}
    CHandlerLink(const CHandlerLink&) = delete;
    CHandlerLink& operator=(const CHandlerLink&) = delete;

protected:
    // There is no link, or it broke: the conversation ends by it.
    void fail(rtsp_client_failure_t failure) {
        StopReading();
        m_user.OnLinkFailed(failure);
    }

    CClientHandler& m_handler;
    ILinkUser& m_user;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTLINK_H
