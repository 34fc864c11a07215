#ifndef VIDORA_UDPSOCKPAIR_H
#define VIDORA_UDPSOCKPAIR_H

#include "Tramel/SockDgram.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CUdpSockPair: the two sockets of one RTP track, RTP on an even port and RTCP on the port above it (RFC 3550 11).
//
// The search for a free pair goes by the process's CUdpPortTable.
//
// THREADING  OpenInRange, OpenAt and the destructor may run on any threads for different pairs. One pair is opened by
//            one thread; then one may send while another receives.
class CUdpSockPair {
public:
    // `receives`: both sockets have room for a burst of media, see CSockDgram::Open.
    explicit CUdpSockPair(bool receives = true) : m_receives(receives) {}
    ~CUdpSockPair();
    CUdpSockPair(const CUdpSockPair&) = delete;
    CUdpSockPair& operator=(const CUdpSockPair&) = delete;

    // Opens both sockets on the wildcard address of `family` (a sock_addr_type_t) at the lowest free pair from
    // `min_port` (rounded up to even) on, below `max_port`; the first pair is tried in any case. `port` gets the last
    // port that was tried. 0, or -1 if no pair is free, or the system has no more sockets to give.
    int OpenInRange(int min_port, int max_port, int family, int* port);
    // Opens both sockets at `port` and the one above it. A socket that can't be opened stays invalid.
    void OpenAt(int port, int family);

    // Sets where the pair sends: RTP to `port` of `remote`, RTCP to the port above it. RTP to one peer is connected,
    // for speed. Multicast isn't, so that it isn't tied to the route and the address of this host that there are now:
    // it leaves by the interface `index` from `source`, if the index isn't 0. Nor is RTCP, which a peer may send from
    // any port of its. May be called again while one thread receives. 0 or -1.
    int Aim(const CSockAddrStorage& remote, int port, unsigned int index, const CSockAddrStorage& source);

    // The port that OpenInRange has found, or -1.
    int Port() const { return m_held_port; }
    // The family of the last open: a sock_addr_type_t.
    int Family() const { return m_family; }
    CSockDgram& Rtp() { return m_rtp; }
    CSockDgram& Rtcp() { return m_rtcp; }

private:
    int walk(int first, int max_port, int family, int retries, int* port);
    int open_at(int port, int family);
    int bind_one(CSockDgram& sock, int port) const;
    void close_both();

    const bool m_receives;
    CSockDgram m_rtp;
    CSockDgram m_rtcp;
    int m_held_port = -1;  // in the table
    int m_family = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_UDPSOCKPAIR_H
