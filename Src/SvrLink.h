#ifndef VIDORA_SVRLINK_H
#define VIDORA_SVRLINK_H

#include <cstdint>
#include <memory>

#include "MediaRoute.h"
#include "Protocol/RtspInfo.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

class CRtspSvrConfig;

// What a route is wanted for.
struct RouteWish {
    const transport_info& transport;  // the client's Transport header
    const multicast_info& group;      // the group that is named in it, if any
    const CRtspSvrConfig& config;
    int track_count;
    TFunction3<void, CMediaPacket*, int, int> on_frame;      // the send procedure of a route that has one,
    TFunction3<void, CMediaPacket*, int, int> on_datagrams;  // and the one whose frames leave as datagrams
};

// ISvrLink: the connection under a server's conversation: one TCP socket, the two of an HTTP tunnel, one UDP socket. It
// is the handler on whose strand the conversation runs, and outlives it.
//
// THREADING  Post: any thread. All others: the strand.
class ISvrLink {
public:
    virtual ~ISvrLink() = default;

    // The identifier that sources and senders send their messages to. They reach CSvrConversation::OnMessage.
    virtual long HandlerId() const = 0;
    // Sends a message to the handler itself.
    virtual void Post(unsigned int msg, long param) = 0;
    // A timer that fires until it is stopped, and reaches CSvrConversation::OnTimer. 0 on failure.
    virtual long StartTimer(int64_t period_us) = 0;
    virtual void StopTimer(long timer_id) = 0;

    // Sends control text, whole and in order. Failures come back as MSG_SOCK_EXCEPTION.
    virtual void SendText(const char* text, int length) = 0;
    // Drops the text that waits, and sends no more.
    virtual void StopSending() = 0;
    // The client's address.
    virtual void GetPeer(CSockAddrStorage& peer) = 0;
    // A way for media, which the client asked for by its Transport header; null if this link has none of that kind.
    virtual std::unique_ptr<IMediaRoute> MakeRoute(const RouteWish& wish) = 0;
    // Whether the client gets sender reports.
    virtual bool SendsReports() const = 0;
    // Ends the connection, and with it the conversation. Called once.
    virtual void CloseLink() = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRLINK_H
