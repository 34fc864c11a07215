#include "SIP/RTPUdpTransmiter.h"

#include <new>

#include "Tramel/IpText.h"

namespace Kavio {
namespace Vidora {

namespace {

const int ANY_PORT = -1;

bool is_port(int port) {
    return port > 0 && port <= Tramel::MAX_PORT;
}

bool is_udp_sock(int fd) {
    int domain = 0;
    int type = 0;
    socklen_t length = sizeof(int);
    return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 &&
           ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_DGRAM &&
           (domain == AF_INET || domain == AF_INET6);
}

// A host name isn't one: its look-up might block.
bool read_address(const char* ip, unsigned short port, CSockAddrStorage& address) {
    const CSockAddrIPv4 ipv4(ip, port);
    const CSockAddrIPv6 ipv6(ip, port);
    const CSockAddr& found = ipv4.IsValid() ? static_cast<const CSockAddr&>(ipv4) : ipv6;
    sockaddr_storage native = {};
    sockaddr* any = reinterpret_cast<sockaddr*>(&native);
    return *ip != '\0' && found.GetAddr(any) == 0 &&
           address.SetSockAddr(any, static_cast<unsigned int>(found.GetAddrLen())) == 0;
}

bool is_direction(int mode) {
    return mode >= IRTPUdpTransmiter::REMOTE_SEND && mode <= IRTPUdpTransmiter::REMOTE_BOTH;
}

// Who may send: null is any address.
udp_stream_remote_t sender_at(const CSockAddrStorage* address, int port) {
    udp_stream_remote_t remote;
    remote.port = port;
    if (address != nullptr) {
        address->GetIpStr(remote.ip, sizeof(remote.ip));
    }
    return remote;
}

// The host's descriptor: the last owner's release leaves it open. Null if `fd` can't be used or memory is short.
std::shared_ptr<CSockDgram> borrow_sock(int fd) {
    if (!is_udp_sock(fd)) {
        return nullptr;
    }
    try {
        std::shared_ptr<CSockDgram> sock(new CSockDgram, [](CSockDgram* borrowed) {
            borrowed->Detach();
            delete borrowed;
        });
        return sock->Attach(fd) == 0 ? sock : nullptr;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace

IRTPUdpTransmiter::IRTPUdpTransmiter() = default;
IRTPUdpTransmiter::IRTPUdpTransmiter(const IRTPUdpTransmiter&) = default;
IRTPUdpTransmiter& IRTPUdpTransmiter::operator=(const IRTPUdpTransmiter&) = default;
IRTPUdpTransmiter::~IRTPUdpTransmiter() = default;

IRTPUdpTransmiter* IRTPUdpTransmiter::Create() {
    return CRTPUdpTransmiter::Make();
}

void IRTPUdpTransmiter::Close() {}

bool IRTPUdpTransmiter::SetSdpInfo(SDP_TYPE, const char*) {
    return false;
}

bool IRTPUdpTransmiter::Attach(int) {
    return false;
}

bool IRTPUdpTransmiter::SetRemote(const char*, int, int) {
    return false;
}

bool IRTPUdpTransmiter::StartRecv(frame_proc_t) {
    return false;
}

bool IRTPUdpTransmiter::Put(const Flumen::CMediaFrame&) {
    return false;
}

int IRTPUdpTransmiter::Detach() {
    return 0;
}

void IRTPUdpTransmiter::GetStatistics(RtpUdpStatistics&) {}

// A call's share of the object.
class CRTPUdpTransmiter::CShare {
public:
    explicit CShare(CRTPUdpTransmiter& owner) : m_owner(owner) { ++m_owner.m_shares; }
    ~CShare() { m_owner.release(); }
    CShare(const CShare&) = delete;
    CShare& operator=(const CShare&) = delete;

private:
    CRTPUdpTransmiter& m_owner;
};

CRTPUdpTransmiter* CRTPUdpTransmiter::Make() {
    CRTPUdpTransmiter* made = new (std::nothrow) CRTPUdpTransmiter;
    if (made == nullptr) {
        return nullptr;
    }
    made->m_receiver = made->m_sender.Init() ? CUdpStreamReceiver::Create() : nullptr;
    if (made->m_receiver == nullptr) {
        delete made;
        return nullptr;
    }
    return made;
}

CRTPUdpTransmiter::~CRTPUdpTransmiter() {
    if (m_receiver != nullptr) {
        m_receiver->Close();
    }
}

void CRTPUdpTransmiter::release() {
    if (--m_shares == 0) {
        delete this;
    }
}

void CRTPUdpTransmiter::Close() {
    const CShare share(*this);
    if (m_closed.exchange(true)) {
        return;
    }
    {
        const CGuard guard(m_mutex);
        m_sender.Detach();
        m_receiver->Shut();
    }
    m_receiver->WaitForCall();
    release();
}

bool CRTPUdpTransmiter::SetSdpInfo(SDP_TYPE type, const char* sdp) {
    const CShare share(*this);
    CSdpTrack track;
    if (sdp == nullptr || (type != SDP_TYPE_SEND && type != SDP_TYPE_RECV) || !track.Read(sdp)) {
        return false;
    }
    return type == SDP_TYPE_SEND ? m_sender.SetTrack(track) : m_receiver->SetTrack(track);
}

bool CRTPUdpTransmiter::Attach(int fd) {
    const CShare share(*this);
    const bool attached = exchange_sock(fd);
    m_receiver->WaitForCall();
    return attached;
}

bool CRTPUdpTransmiter::exchange_sock(int fd) {
    const CGuard guard(m_mutex);
    const std::shared_ptr<CSockDgram> sock = borrow_sock(fd);
    if (sock == nullptr || !m_receiver->Attach(sock)) {
        return false;
    }
    m_sender.Attach(sock);
    return true;
}

bool CRTPUdpTransmiter::SetRemote(const char* ip, int port, int mode) {
    const CShare share(*this);
    if (ip == nullptr || !is_direction(mode)) {
        return false;
    }
    const bool sends = mode != REMOTE_RECV;
    CSockAddrStorage address;
    const bool has_address = read_address(ip, static_cast<unsigned short>(port), address);
    const bool takes_any = !sends && *ip == '\0';
    const bool takes_any_port = !sends && port == ANY_PORT;
    if (!(has_address || takes_any) || !(is_port(port) || takes_any_port)) {
        return false;
    }
    if (sends) {
        m_sender.SetRemote(address);
    }
    if (mode != REMOTE_SEND) {
        m_receiver->SetRemote(sender_at(has_address ? &address : nullptr, port));
    }
    return true;
}

bool CRTPUdpTransmiter::StartRecv(frame_proc_t proc) {
    const CShare share(*this);
    return m_receiver->Start(proc);
}

bool CRTPUdpTransmiter::Put(const Flumen::CMediaFrame& frame) {
    const CShare share(*this);
    return m_sender.Put(frame);
}

int CRTPUdpTransmiter::Detach() {
    const CShare share(*this);
    int fd = -1;
    {
        const CGuard guard(m_mutex);
        m_sender.Detach();
        fd = m_receiver->Detach();
    }
    m_receiver->WaitForCall();
    return fd;
}

void CRTPUdpTransmiter::GetStatistics(RtpUdpStatistics& statistics) {
    const CShare share(*this);
    m_receiver->GetStatistics(statistics);
}

}  // namespace Vidora
}  // namespace Kavio
