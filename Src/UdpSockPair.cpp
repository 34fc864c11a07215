#include "UdpSockPair.h"

#include <algorithm>
#include <bitset>
#include <new>

namespace Kavio {
namespace Vidora {

namespace {

const int PAIR_COUNT = 65536 / 2;
const int MAX_EVEN_PORT = 65534;

// The even ports that pairs of this process hold.
class CPortTable {
public:
    // Reserves the lowest pair from `first` on that isn't held and is below `limit`, or is `first` itself; 0 for none.
    int Reserve(int first, int limit) {
        CGuard guard(m_mutex);
        for (int port = first; port <= MAX_EVEN_PORT && (port == first || port < limit); port += 2) {
            const size_t index = static_cast<size_t>(port / 2);
            if (!m_held[index]) {
                m_held[index] = true;
                return port;
            }
        }
        return 0;
    }

    void Release(int port) {
        CGuard guard(m_mutex);
        m_held[static_cast<size_t>(port / 2)] = false;
    }

private:
    CMutex m_mutex;
    std::bitset<PAIR_COUNT> m_held VIDORA_GUARDED_BY(m_mutex);
};

CPortTable& port_table() {
    // Never ended: pairs may outlive the statics.
    alignas(CPortTable) static unsigned char room[sizeof(CPortTable)];
    static CPortTable* table = new (room) CPortTable;
    return *table;
}

}  // namespace

CUdpSockPair::~CUdpSockPair() {
    m_rtp.Close();
    m_rtcp.Close();
    if (m_held_port != 0) {
        port_table().Release(m_held_port);
    }
}

// One walk up the range, so that it ends even while other threads give ports back.
int CUdpSockPair::OpenInRange(int min_port, int max_port, int family, int* port) {
    int candidate = (std::clamp(min_port, 1, MAX_EVEN_PORT + 1) + 1) & ~1;
    *port = candidate;
    do {
        candidate = port_table().Reserve(candidate, max_port);
        if (candidate == 0) {
            return -1;
        }
        *port = candidate;
        if (open_at(candidate, family)) {
            m_held_port = candidate;
            return 0;
        }
        port_table().Release(candidate);  // another program has it
        candidate += 2;
    } while (candidate < max_port && candidate <= MAX_EVEN_PORT);
    return -1;
}

void CUdpSockPair::OpenAt(int port, int family) {
    const char* any = family == Tramel::SOCK_ADDR_IPV6 ? "::" : "0.0.0.0";
    const CSockAddrStorage rtp_local(any, static_cast<unsigned short>(port));
    const CSockAddrStorage rtcp_local(any, static_cast<unsigned short>(port + 1));
    m_family = family;
    m_rtp.Open(&rtp_local);
    m_rtcp.Open(&rtcp_local);
}

bool CUdpSockPair::open_at(int port, int family) {
    OpenAt(port, family);
    if (m_rtp.IsValid() && m_rtcp.IsValid()) {
        return true;
    }
    m_rtp.Close();
    m_rtcp.Close();
    return false;
}

}  // namespace Vidora
}  // namespace Kavio
