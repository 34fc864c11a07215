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
// Order of use: CNetThread::CreateThreadPool, CRtspSvr::Create, SetLiveSvr, SetConfig, and Close at the end. Close ends
// the listener and the connections that haven't sent their first request; sessions that run end by their own connection
// or source. Several servers may run in one process.
//
// THREADING  All operations: any thread; none from inside a lock that a callback of the host's needs. Call Close once;
//            the pointer is dead after it.
// OWNERSHIP  The server and its sessions keep the CLiveSvr allocated; the host may close it before or after the server.
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

    void Close() override;
    int handle_input(int fd) override;
    int handle_close(CNetHandler* handler) override;

    // Plain RTSP sessions that live now, in the whole process.
    static unsigned int GetSessionCount();
    // Figures of the whole process; cheap, any thread.
    static void GetStatistics(RtspSvrStatistics& statistics);

private:
    struct Internal;
    CRtspSvr();
    ~CRtspSvr() override;

    Internal* m_internal;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPSVR_H
