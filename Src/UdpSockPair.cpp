#include "UdpSockPair.h"

#include <bitset>

namespace Kavio {
namespace Vidora {

namespace {

const int PAIR_COUNT = 65536 / 2;
const int MAX_EVEN_PORT = 65534;

// Which even ports are not worth a try. A port is `held` while a pair of this process has it. It is `refused` when the
// system refused it, that is, when some other program has it; those are tried again when nothing else is left.
class CPortTable {
public:
    // Reserves the lowest pair from `first` on that may be free and is below `limit`, or is `first` itself; 0 for none.
    // Refused ones are passed over unless `retry` is set; `passed_over` is set when there was one.
    int Reserve(int first, int limit, bool retry, bool* passed_over) {
        CGuard guard(m_mutex);
        for (int port = first; port <= MAX_EVEN_PORT && (port == first || port < limit); port += 2) {
            const size_t index = static_cast<size_t>(port / 2);
            if (m_held[index]) {
                continue;
            }
            if (m_refused[index] && !retry) {
                *passed_over = true;
                continue;
            }
            m_held[index] = true;
            return port;
        }
        return 0;
    }

    void Release(int port, bool refused) {
        CGuard guard(m_mutex);
        m_held[static_cast<size_t>(port / 2)] = false;
        m_refused[static_cast<size_t>(port / 2)] = refused;
    }

private:
    CMutex m_mutex;
    std::bitset<PAIR_COUNT> m_held VIDORA_GUARDED_BY(m_mutex);
    std::bitset<PAIR_COUNT> m_refused VIDORA_GUARDED_BY(m_mutex);
};

CPortTable& port_table() {
    static CPortTable* table = new CPortTable;  // never freed: pairs may outlive the statics
    return *table;
}

}  // namespace

CUdpSockPair::~CUdpSockPair() {
    m_rtp.Close();
    m_rtcp.Close();
    if (m_held_port != 0) {
        port_table().Release(m_held_port, false);
    }
}

int CUdpSockPair::OpenInRange(int min_port, int max_port, int family, int* port) {
    const int first = (min_port + 1) & ~1;
    *port = first;
    bool passed_over = false;
    return search(first, max_port, family, false, port, &passed_over) ||
                   (passed_over && search(first, max_port, family, true, port, &passed_over))
               ? 0
               : -1;
}

// One walk up the range, so that it ends even while other threads give ports back.
bool CUdpSockPair::search(int first, int limit, int family, bool retry, int* port, bool* passed_over) {
    int candidate = first;
    do {
        candidate = port_table().Reserve(candidate, limit, retry, passed_over);
        if (candidate == 0) {
            return false;
        }
        *port = candidate;
        if (open_at(candidate, family)) {
            m_held_port = candidate;
            return true;
        }
        port_table().Release(candidate, true);
        candidate += 2;
    } while (candidate < limit && candidate <= MAX_EVEN_PORT);
    return false;
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
