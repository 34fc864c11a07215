#include "RtpUdpKeeper.h"

#include "UdpSockPair.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {
const int64_t US_PER_SECOND = 1000000;
const uint64_t MS_PER_SECOND = 1000;
// Datagrams read in one event; more come with the next event, so that a flood doesn't hold the thread.
const int MAX_READS = 64;

// The address in the form in which those of one host are equal.
CSockAddrStorage host_of(const CSockAddrStorage& addr) {
    CSockAddrStorage host = addr.ForFamily(addr.GetRealType());
    host.SetPort(0);
    return host;
}

}  // namespace

CRtpUdpKeeper::CRtpUdpKeeper(long notify_id, int timeout_s, const CSockAddrStorage& peer)
    : m_notify_id(notify_id), m_timeout_s(timeout_s), m_peer(host_of(peer)) {
    logInfo("%s:%d:%s  Start keep-alive, timeout: %d s \n", __FILE__, __LINE__, "Vidora::CRtpUdpKeeper::CRtpUdpKeeper",
            m_timeout_s);
}

void CRtpUdpKeeper::AddPair(const std::shared_ptr<CUdpSockPair>& pair) {
    if (m_pair_count < MAX_PAIRS) {
        m_watches[m_pair_count++].pair = pair;
    }
}

void CRtpUdpKeeper::Start() {
    if (m_timeout_s == 0) {
        return;
    }
    for (int i = 0; i < m_pair_count; ++i) {
        m_watches[i].last_sign_ms = CTime::getCurrentMilliSecond();
        RegisterSock(m_watches[i].pair->Rtcp(), Tramel::SOCK_EVENT_READ, m_timeout_s * US_PER_SECOND);
    }
}

int CRtpUdpKeeper::handle_input(int fd) {
    for (int i = 0; i < m_pair_count; ++i) {
        Watch& watch = m_watches[i];
        if (watch.pair->Rtcp().GetHandle() != fd) {
            continue;
        }
        const uint64_t now_ms = CTime::getCurrentMilliSecond();
        if (drain(watch.pair->Rtcp())) {
            m_timeout_count = 0;
            watch.last_sign_ms = now_ms;
        } else if (now_ms - watch.last_sign_ms >= static_cast<uint64_t>(m_timeout_s) * MS_PER_SECOND) {
            return give_up();  // only others send, which keeps the time-out of the socket from running out
        }
    }
    return 0;
}

// Drops what has arrived. True if any of it came from the peer.
bool CRtpUdpKeeper::drain(CSockDgram& sock) const {
    bool from_peer = false;
    char buf[1024];
    CSockAddrStorage from;
    for (int reads = 0; reads < MAX_READS && sock.Recv(buf, sizeof(buf), &from) > 0; ++reads) {
        from_peer = from_peer || host_of(from) == m_peer;
    }
    return from_peer;
}

int CRtpUdpKeeper::handle_input_timeout(int fd) {
    for (int i = 0; i < m_pair_count; ++i) {
        if (m_watches[i].pair->Rtcp().GetHandle() == fd) {
            ++m_timeout_count;
            logWarn("%s:%d:%s  fd:%d timeout, count:%d \n", __FILE__, __LINE__,
                    "Vidora::CRtpUdpKeeper::handle_input_timeout", fd, m_timeout_count);
        }
    }
    // The first silent interval of any track ends the watch, whatever the count says.
    return give_up();
}

int CRtpUdpKeeper::give_up() {
    for (int i = 0; i < m_pair_count; ++i) {
        UnregisterSock(m_watches[i].pair->Rtcp(), Tramel::SOCK_EVENT_READ);
    }
    logWarn("%s:%d:%s  Keep-alive failed! timeout: %d s \n", __FILE__, __LINE__,
            "Vidora::CRtpUdpKeeper::handle_input_timeout", m_timeout_s);
    Notify(m_notify_id, MSG_KEEPALIVE_TIMEOUT, 0);
    return -1;
}

int CRtpUdpKeeper::handle_close(CNetHandler* /*handler*/) {
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
