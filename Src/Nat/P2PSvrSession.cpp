#include "Nat/P2PSvrSession.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "Nat/NatHello.h"
#include "Tramel/IpText.h"

namespace Kavio {
namespace Vidora {

namespace {

const int MAX_DATAGRAM = 4096;
const size_t MAX_ADDRESS = 64;
const int MAX_PORT = 65535;

// The decimal port of a whole text; 0 if it is none.
int read_port(const char* text) {
    int port = 0;
    for (; *text >= '0' && *text <= '9' && port <= MAX_PORT; ++text) {
        port = port * 10 + (*text - '0');
    }
    return *text == '\0' && port <= MAX_PORT ? port : 0;
}

class CNatIntake : public INatIntake {
public:
    int add_connection(std::unique_ptr<CSockDgram> sock, const char* peer, const nat_return_t& socket_return,
                       const CRtspSvrConfig& config, const CLiveSvrRef& live_svr,
                       const std::shared_ptr<CSessionRoll>& roll) override {
        CSockAddrStorage remote;
        if (!CP2PSvrSession::ReadPeer(peer, remote)) {
            logError("%s:%d no address of a peer, connection closed, fd:%d \n", __FILE__, __LINE__, sock->GetHandle());
            return -1;
        }
        CP2PSvrSession* session = new (std::nothrow) CP2PSvrSession;
        if (session == nullptr || session->SetRoll(roll) < 0) {
            if (session != nullptr) {
                session->Discard();
            }
            return -1;
        }
        session->SetConfig(config);
        session->SetLiveSvr(live_svr);
        session->Start(std::move(sock), remote, socket_return);
        return 0;
    }
};

}  // namespace

INatIntake& NatSessions() {
    static CNatIntake intake;
    return intake;
}

bool CP2PSvrSession::ReadPeer(const char* text, CSockAddrStorage& peer) {
    const char* colon = text == nullptr ? nullptr : strrchr(text, ':');
    if (colon == nullptr) {
        logError("%s:%d pos != std::string::npos\n", __FILE__, __LINE__);
    }
    const size_t length = colon == nullptr ? 0 : static_cast<size_t>(colon - text);
    const int port = colon == nullptr ? 0 : read_port(colon + 1);
    char host[MAX_ADDRESS] = "";
    if (port == 0 || length == 0 || length >= sizeof(host)) {
        return false;
    }
    memcpy(host, text, length);
    sockaddr_storage native;
    if (!Tramel::ParseIpText(host, native)) {  // no name, whose look-up would hold the host's thread up
        return false;
    }
    peer.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native));
    peer = peer.ForFamily(Tramel::SOCK_ADDR_IPV4);
    peer.SetPort(static_cast<unsigned short>(port));
    return true;
}

void CP2PSvrSession::Start(std::unique_ptr<CSockDgram> sock, const CSockAddrStorage& peer,
                           const nat_return_t& socket_return) {
    m_sock = std::move(sock);
    m_remote = peer;
    m_socket_return = socket_return;
    Notify(GetID(), MSG_SESSION_INIT, 0);
}

int CP2PSvrSession::Init(int /*count*/) {
    m_conversation.OpenGate(m_conversation.Config().GetRtspAuthType());
    m_sock->Send(NAT_SERVER_HELLO.data(), static_cast<unsigned int>(NAT_SERVER_HELLO.size()), &m_remote);
    if (!watch_silence() || RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, 0) < 0) {
        return end_broken();
    }
    return 0;
}

// One datagram an event: a client sends a request at a time, and a hello now and then.
int CP2PSvrSession::handle_input(int fd) {
    if (m_sock == nullptr || fd != m_sock->GetHandle()) {
        return 0;
    }
    // With room for one byte more than a message has: what fills it was cut. Behind that a NUL.
    char text[MAX_DATAGRAM + 2];
    CSockAddrStorage from;
    const int count = m_sock->Recv(text, MAX_DATAGRAM + 1, &from);
    if (count <= 0 && !m_sock->GoesOn(count < 0 ? errno : 0)) {
        return end_broken();
    }
    if (count <= 0 || count > MAX_DATAGRAM || stopped()) {
        return 0;
    }
    text[count] = '\0';
    return take_datagram(text, count, from);
}

int CP2PSvrSession::end_broken() {
    RemoveSock(*m_sock);
    m_conversation.End(MSG_SESSION_BROKEN);
    return -1;
}

int CP2PSvrSession::take_datagram(const char* text, int length, const CSockAddrStorage& from) {
    if (is_stranger(from)) {
        return 0;
    }
    rtsp_msg_info info;
    const std::string_view datagram(text, static_cast<size_t>(length));
    const bool hello = IsNatHello(datagram, NAT_CLIENT_HELLO);
    const bool counts = hello || m_remote_fixed || m_conversation.LookAtMessage(text, length, info) > 0;
    if (!counts || (!m_remote_fixed && !fix_peer(from))) {
        return 0;
    }
    note_sign_of_life();
    if (hello) {
        send(NAT_SERVER_HELLO);
        return 0;
    }
    return is_report(datagram) ? 0 : take_request(text, length);
}

// What had come before the socket was connected is still read from it.
bool CP2PSvrSession::is_stranger(const CSockAddrStorage& from) const {
    CSockAddrStorage known = m_remote;
    CSockAddrStorage other = from.ForFamily(Tramel::SOCK_ADDR_IPV4);
    if (!m_remote_fixed) {
        other.SetPort(known.GetPort());
    }
    return other != known;
}

// While there is no way to the peer it is asked for with the next datagram.
bool CP2PSvrSession::fix_peer(const CSockAddrStorage& from) {
    if (m_sock->SetRemote(&from) < 0) {
        logWarn("%s:%d no way to the peer: %s\n", __FILE__, __LINE__, strerror(errno));
        return false;
    }
    m_remote = from.ForFamily(Tramel::SOCK_ADDR_IPV4);
    m_remote_fixed = true;
    return true;
}

CP2PSvrSession::~CP2PSvrSession() {
    logInfo("%s %s this:%p\n", __FILE__, "Vidora::CP2PSvrSession::~CP2PSvrSession", static_cast<void*>(this));
}

// The host gets its socket when nothing of the session is left, and the session counts until it has it.
int CP2PSvrSession::handle_close(CNetHandler* handler) {
    m_conversation.Release();
    int fd = -1;
    if (m_sock != nullptr) {
        RemoveSock(*m_sock);
        m_sock->ClearRemote();
        fd = m_sock->Detach();
    }
    const nat_return_t give_back = m_socket_return;
    std::unique_ptr<CSessionEntry> entry = take_entry();
    const int result = CSvrHandler::handle_close(handler);
    if (give_back) {
        give_back(NAT_SOCKET_RETURN, &fd, static_cast<int>(sizeof(fd)));
    } else if (fd >= 0) {
        close(fd);
    }
    entry.reset();
    return result;
}

}  // namespace Vidora
}  // namespace Kavio
