#include "Nat/NatLink.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "DgramBatch.h"
#include "Nat/NatHello.h"
#include "Nat/P2PUdpReceiver.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

int cseq_of(const char* text, unsigned int length) {
    CStrParser parser(text, length);
    const bool found = parser.LocateStringCase("\nCSeq:") >= 0 && parser.ConsumeUntilDigit() >= 0;
    return found ? static_cast<int>(parser.ConsumeUint32()) : 0;
}

}  // namespace

CNatLink::~CNatLink() {
    CloseLink();
}

void CNatLink::Open(const CSockAddrStorage& server, const std::shared_ptr<CSockDgram>& sock, bool takes_rtcp) {
    m_sock = sock;
    m_takes_rtcp = takes_rtcp;
    // In the form in which the socket reports senders.
    m_server = server.ForFamily(Local().GetType());
    m_reads = m_handler.RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, 0) == 0;
    if (m_reads) {
        say_hello();
    } else {
        fail(RTSP_CLIENT_FAILURE_UNREACHABLE);
    }
}

void CNatLink::OnTick() {
    if (m_sock == nullptr) {
        return;
    }
    ++m_ticks;
    if (!m_up && m_ticks >= ClientTiming().nat_connect_ticks) {
        logWarn("%s:%d rtsp connect timeout!\n", __FILE__, __LINE__);
        fail(RTSP_CLIENT_FAILURE_TIMEOUT);
        return;
    }
    if (!m_up || m_ticks % ClientTiming().nat_hello_ticks == 0) {
        say_hello();
    }
    repeat_request();
}

void CNatLink::say_hello() {
    const CSockAddrStorage* to = m_up ? nullptr : &m_server;
    m_sock->Send(NAT_CLIENT_HELLO.data(), static_cast<unsigned int>(NAT_CLIENT_HELLO.size()), to);
}

int CNatLink::OnInput(int fd) {
    CDgramBatch* batch = CDgramBatch::OfThread();
    if (batch == nullptr || m_sock == nullptr || fd != m_sock->GetHandle()) {
        return -1;
    }
    const int count = batch->Recv(*m_sock);
    const int error = count < 0 ? errno : 0;
    if (count <= 0 && !m_sock->GoesOn(error)) {
        logWarn("%s:%d return -1 error: %s\n", __FILE__, __LINE__, strerror(error));
        fail(RTSP_CLIENT_FAILURE_LOST);
        return -1;
    }
    // The conversation may end in the middle.
    for (int i = 0; i < count && m_reads; ++i) {
        if (is_server(batch->From(i))) {
            take(batch->Datagram(i), batch->From(i));
        }
    }
    return 0;
}

bool CNatLink::is_server(CSockAddrStorage from) const {
    if (!m_up) {
        from.SetPort(m_server.GetPort());
    }
    return from == m_server;
}

// Until the server's hello, what is left of the rendezvous may still be on its way. The batch has room for a NUL behind
// each datagram.
void CNatLink::take(const DgramSlice& datagram, const CSockAddrStorage& from) {
    const char* text = reinterpret_cast<const char*>(datagram.data);
    const bool is_message = datagram.length > 0 && datagram.length <= RTSP_MAX_MESSAGE;
    if (IsNatHello({text, datagram.length}, NAT_SERVER_HELLO)) {
        rise(from);
    } else if (is_message && (m_up || text[0] == NAT_TEXT_MARK)) {
        datagram.data[datagram.length] = '\0';
        m_user.TakeDatagram(text, datagram.length);
    }
}

void CNatLink::rise(const CSockAddrStorage& from) {
    if (m_up) {
        return;
    }
    if (m_sock->SetRemote(&from) < 0) {
        fail(RTSP_CLIENT_FAILURE_UNREACHABLE);
        return;
    }
    m_server = from;
    m_up = true;
    m_user.OnLinkUp();
}

int CNatLink::Send(const char* bytes, unsigned int length) {
    if (!m_up) {
        return -1;
    }
    m_sock->Send(bytes, length, nullptr);
    return 0;
}

int CNatLink::SendRequest(const char* text, unsigned int length) {
    if (!m_up) {
        return -1;
    }
    try {
        m_requests.push_back(request_t{cseq_of(text, length), std::string(text, length), false});
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (m_requests.size() == 1) {
        send_request();
    }
    return 0;
}

void CNatLink::send_request() {
    const std::string& text = m_requests.front().text;
    Send(text.data(), static_cast<unsigned int>(text.size()));
}

// One that left since the last tick has time until the next.
void CNatLink::repeat_request() {
    if (m_requests.empty()) {
        return;
    }
    if (m_requests.front().aged) {
        send_request();
    }
    m_requests.front().aged = true;
}

void CNatLink::OnAnswered(int cseq) {
    const auto found = std::find_if(m_requests.begin(), m_requests.end(),
                                    [cseq](const request_t& request) { return request.cseq == cseq; });
    if (found == m_requests.end()) {
        return;
    }
    const bool is_first = found == m_requests.begin();
    m_requests.erase(found);
    if (is_first && !m_requests.empty()) {
        send_request();
    }
}

CSockAddrStorage CNatLink::Local() const {
    CSockAddrStorage addr;
    if (m_sock != nullptr) {
        m_sock->GetLocalAddr(&addr);
    }
    return addr;
}

CStreamReceiver* CNatLink::MakeReceiver(packet_type_t, long owner_id) {
    CStreamReceiver* receiver = CP2PUdpReceiver::Create(m_sock, m_server, m_takes_rtcp, owner_id);
    if (receiver != nullptr) {
        StopReading();
    }
    return receiver;
}

void CNatLink::StopReading() {
    if (m_reads) {
        m_handler.RemoveSock(*m_sock);
        m_reads = false;
    }
}

void CNatLink::CloseLink() {
    StopReading();
    m_sock.reset();
    m_up = false;
}

}  // namespace Vidora
}  // namespace Kavio
