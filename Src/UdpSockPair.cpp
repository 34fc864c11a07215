#include "UdpSockPair.h"

#include <algorithm>
#include <cerrno>
#include <climits>

#include "UdpPortTable.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_EVEN_PORT = CUdpPortTable::MAX_EVEN_PORT;
// Pairs that another program had a moment ago and that are tried all the same: where others have few, the lowest free
// pair is found at once when it comes back.
const int RETRIES = 4;

// No other port is better.
bool has_no_socket(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

CUdpSockPair::~CUdpSockPair() {
    close_both();
    if (m_held_port >= 0) {
        CUdpPortTable::Shared().Release(m_held_port);
    }
}

int CUdpSockPair::OpenInRange(int min_port, int max_port, int family, int* port) {
    const int first = (std::clamp(min_port, 1, MAX_EVEN_PORT + 1) + 1) & ~1;
    *port = first;
    if (first > MAX_EVEN_PORT) {
        return -1;
    }
    // What was passed over may be free by now: that is asked before the search fails.
    if (walk(first, max_port, family, RETRIES, port) == 0 || walk(first, max_port, family, INT_MAX, port) == 0) {
        return 0;
    }
    close_both();
    return -1;
}

// One walk up the range, so that it ends even while other threads release ports.
int CUdpSockPair::walk(int first, int max_port, int family, int retries, int* port) {
    CUdpPortTable& table = CUdpPortTable::Shared();
    const uint64_t now_ms = CTime::getCurrentMilliSecond();
    int candidate = first;
    do {
        candidate = table.Reserve(candidate, max_port, family, now_ms, &retries);
        if (candidate < 0) {
            return -1;
        }
        *port = candidate;
        const int error = open_at(candidate, family);
        if (error == 0) {
            m_held_port = candidate;
            return 0;
        }
        if (error == EADDRINUSE) {
            table.ReleaseTaken(candidate, family, now_ms);
        } else {
            table.Release(candidate);
        }
        if (has_no_socket(error)) {
            return -1;
        }
        candidate += 2;
    } while (candidate < max_port && candidate <= MAX_EVEN_PORT);
    return -1;
}

void CUdpSockPair::OpenAt(int port, int family) {
    m_family = family;
    if (bind_one(m_rtp, port) != 0) {
        m_rtp.Close();
    }
    if (bind_one(m_rtcp, port + 1) != 0) {
        m_rtcp.Close();
    }
}

int CUdpSockPair::Aim(const CSockAddrStorage& remote, int port, unsigned int index, const CSockAddrStorage& source) {
    CSockAddrStorage to(remote);
    to.SetPort(static_cast<unsigned short>(port + 1));
    const int rtcp = m_rtcp.SetTarget(to, index, source);
    to.SetPort(static_cast<unsigned short>(port));
    const int rtp = remote.IsMulticast() ? m_rtp.SetTarget(to, index, source) : m_rtp.SetRemote(&to);
    return rtp == 0 ? rtcp : rtp;
}

// 0, or the error's number: then neither is bound.
int CUdpSockPair::open_at(int port, int family) {
    m_family = family;
    if (bind_one(m_rtp, port) != 0) {
        return errno;
    }
    if (bind_one(m_rtcp, port + 1) == 0) {
        return 0;
    }
    const int error = errno;
    m_rtp.Close();
    return error;
}

// To the wildcard address. A socket whose port another program has is kept for the next one: behind many of them the
// search costs a call of bind each.
int CUdpSockPair::bind_one(CSockDgram& sock, int port) const {
    if (!sock.IsValid() && sock.OpenUnbound(m_family, m_receives) != 0) {
        return -1;
    }
    const char* any = m_family == Tramel::SOCK_ADDR_IPV6 ? "::" : "0.0.0.0";
    return sock.Bind(CSockAddrStorage(any, static_cast<unsigned short>(port)));
}

void CUdpSockPair::close_both() {
    m_rtp.Close();
    m_rtcp.Close();
}

}  // namespace Vidora
}  // namespace Kavio
