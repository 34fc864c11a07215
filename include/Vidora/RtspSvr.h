#ifndef VIDORA_RTSPSVR_H
#define VIDORA_RTSPSVR_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

class CLiveSvr;
class CRtspSvrConfig;

// What the library's servers have done since the process began, all of them together.
struct RtspSvrStatistics {
    uint32_t sessions = 0;  // that live now
    uint64_t packets = 0;   // media packets that sockets took whole: each RTP or TS packet of a merged frame, and each
                            // private frame with its header as one
    uint64_t bytes = 0;     // of those, with the headers that interleaving puts in front, which UDP doesn't carry
    uint64_t dropped = 0;   // frames or packets dropped, once for each client whose queue or socket had no room
};

// How the socket of a NAT stream comes back to the host: called with NAT_SOCKET_RETURN, a pointer to the descriptor, an
// int, which is good during the call only, and its size, 4.
//
// It is called once for each AddNewConnect that returned 0, on a thread of the pool, when the session has ended and the
// server has released all else that belonged to it; the host may call anything there, CRtspSvr::Close included. The
// descriptor is the host's from the call on, to use again or to close. It is bound as before and no longer connected to
// any peer, and stays non-blocking. Without a pool (see CNetThread) it waits for the next one.
typedef TFunction3<void, int, void*, int> nat_return_t;
const int NAT_SOCKET_RETURN = 1;

// What the `extra` of CRtspSvr::AddNewConnect points to for a NAT stream. It is copied inside the call.
const int CONNECT_KIND_NAT = 2;
struct NatConnectRecord {
    int kind = CONNECT_KIND_NAT;
    nat_return_t on_return;  // empty: the socket is closed at the end
};

// CRtspSvr: an RTSP server (RFC 2326) on one listening address.
//
// Order of use: CNetThread::CreateThreadPool, CRtspSvr::Create, SetLiveSvr, SetConfig; at the end Stop, EndSessions and
// Close, or Close alone. Several servers may run in one process.
//
// A connection is read until its first request is whole, up to 4096 bytes, and dropped when that takes more than five
// seconds. A peer whose machine or link has gone, whatever it was doing, is noticed after the configured time-out, 60
// seconds at most.
//
// To count viewers ask CountSessions. The events of the configuration name an address and no session, and the one of a
// disconnection comes twice for a session of a live channel (when it begins to end, and when it is gone) and once for
// one of a recording, so that comings and goings can't be balanced from them.
//
// THREADING  All operations: any thread, also in a callback; none from inside a lock that a callback of the host's
//            needs. Call Close once; the pointer is dead after it.
// OWNERSHIP  The server and its sessions keep the CLiveSvr allocated; the host may close it before or after the server.
//            Sessions may outlive the server.
class VIDORA_API CRtspSvr : public CNetHandler {
public:
    // Opens the listener at `listen_addr`; null, with a log line, if the address is invalid or can't be bound, or
    // memory is short.
    static CRtspSvr* Create(CSockAddrStorage& listen_addr);

    // The registry of live channels that sessions look into.
    void SetLiveSvr(CLiveSvr* live_svr);
    // Copies `config`; sessions that began before keep what they have. Connections accepted before the first SetConfig
    // run on the defaults.
    void SetConfig(const CRtspSvrConfig& config);

    // Takes over a connection that the host has accepted, with the bytes it has read already: `buf` is null or a text
    // of at most 512 characters with `len` bytes. If `buf` doesn't hold a whole request head (up to an empty line) its
    // bytes are dropped. `extra`: 0 an ordinary connection; 1 one that is exempt from RTSP authentication; otherwise a
    // pointer to a record that begins with an int, its kind, of which CONNECT_KIND_NAT alone has a meaning. Returns
    // without waiting for the first request to be served. 0, or -1: bad arguments, the server is stopped, or `fd` can't
    // be taken; it stays the caller's.
    //
    // With a NatConnectRecord `fd` is a UDP socket, bound and not connected, for which the host has found a way through
    // the client's address translation, and `buf` is the address of the client as the host's rendezvous has seen it,
    // "192.0.2.1:4000" or "[2001:db8::1]:4000", numeric. RTSP and RTP share the socket, each message a datagram (see
    // CP2PClientSession for the other end). The client has to say hello from that address, whatever the port, and must
    // not be silent for 15 seconds, or the session ends; CountSessions and EndSessions know it as any other. It gets no
    // connect event and no disconnect event. 0: the socket comes back by `on_return`, once. -1: a negative `fd` and a
    // text that is too long stay the caller's; otherwise (server stopped, no UDP socket, no address, memory short) `fd`
    // is closed, and `on_return` isn't called.
    int AddNewConnect(int fd, const char* buf, int len, long extra);

    // Ends the listener and the connections that haven't sent their first request; no session begins any more. Those
    // that run go on. The address is free again shortly after. More than once does no harm.
    void Stop();
    // Ends all sessions of this server that run now, players and idle ones alike, as a broken connection would: each
    // stops its media, releases its source and closes its connection, on its own strand. The server goes on; new
    // sessions may begin unless it was stopped. Waits up to `wait_ms` milliseconds (0: not at all) until nothing is
    // left of them, but never on a thread of the pool, that is, in a callback, where it returns at once. How many of
    // those that were told to end, now or before, are left.
    unsigned int EndSessions(unsigned int wait_ms);
    // Sessions of this server that live now: from the first whole request of a connection until the session's last
    // callback is over.
    unsigned int CountSessions() const;

    // Ends the listener as Stop does, and the server. Sessions that run end by their own connection or source.
    void Close() override;
    int handle_input(int fd) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

    // Sessions that live now, in the whole process, on whatever kind of connection.
    static unsigned int GetSessionCount();
    // Figures of the whole process; cheap, any thread.
    static void GetStatistics(RtspSvrStatistics& statistics);

private:
    struct VIDORA_LOCAL Internal;
    CRtspSvr();
    ~CRtspSvr() override;

    Internal* m_internal;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPSVR_H
