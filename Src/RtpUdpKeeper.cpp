#include "RtpUdpKeeper.h"

#include "UdpSockPair.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {
const int64_t US_PER_SECOND = 1000000;
// Datagrams read in one event; more come with the next event, so that a flood doesn't hold the thread.
const int MAX_READS = 64;
}  // namespace

CRtpUdpKeeper::CRtpUdpKeeper(long notify_id, int timeout_s) : m_notify_id(notify_id), m_timeout_s(timeout_s) {
    logInfo("%s:%d:%s  Start keep-alive, timeout: %d s \n", __FILE__, __LINE__, "Vidora::CRtpUdpKeeper::CRtpUdpKeeper",
            m_timeout_s);
}

void CRtpUdpKeeper::AddPair(const std::shared_ptr<CUdpSockPair>& pair) {
    if (m_pair_count < MAX_PAIRS) {
        m_pairs[m_pair_count++] = pair;
    }
}

void CRtpUdpKeeper::Start() {
    if (m_timeout_s == 0) {
        return;
    }
    for (int i = 0; i < m_pair_count; ++i) {
        RegisterSock(m_pairs[i]->Rtcp(), Tramel::SOCK_EVENT_READ, m_timeout_s * US_PER_SECOND);
    }
}

int CRtpUdpKeeper::handle_input(int fd) {
    for (int i = 0; i < m_pair_count; ++i) {
        CSockDgram& sock = m_pairs[i]->Rtcp();
        if (sock.GetHandle() != fd) {
            continue;
        }
        m_timeout_count = 0;
        char buf[1024];
        for (int reads = 0; reads < MAX_READS && sock.Recv(buf, sizeof(buf), nullptr) > 0; ++reads) {
        }
    }
    return 0;
}

int CRtpUdpKeeper::handle_input_timeout(int fd) {
    for (int i = 0; i < m_pair_count; ++i) {
        if (m_pairs[i]->Rtcp().GetHandle() == fd) {
            ++m_timeout_count;
            logWarn("%s:%d:%s  fd:%d timeout, count:%d \n", __FILE__, __LINE__,
                    "Vidora::CRtpUdpKeeper::handle_input_timeout", fd, m_timeout_count);
        }
    }
    // The first silent interval of any track ends the watch, whatever the count says.
    for (int i = 0; i < m_pair_count; ++i) {
        UnregisterSock(m_pairs[i]->Rtcp(), Tramel::SOCK_EVENT_READ);
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
