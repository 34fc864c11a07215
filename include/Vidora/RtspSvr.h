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
    // pointer to five ints, a kind and four values, that describe a NAT stream (kind 2). Returns without waiting for
    // the first request to be served. 0, or -1: bad arguments (`fd` stays the caller's), the server is closing, or `fd`
    // can't be taken.
    int AddNewConnect(int fd, const char* buf, int len, long extra);

    // Ends the listener and the connections that haven't sent their first request; no session begins any more. Those
    // that run go on. The address is free again shortly after. More than once does no harm.
    void Stop();
    // Ends all sessions of this server that run now, players and idle ones alike, as a broken connection would: each
    // stops its media, lets go of its source and closes its connection, on its own strand. The server goes on; new
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
