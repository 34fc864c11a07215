#include "SvrSessionManager.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "FrameWatch.h"
#include "NatIntake.h"
#include "RtspOverHttp/HttpParser.h"
#include "RtspOverHttp/RtspOverHttpSessionManager.h"
#include "RtspSvrSession.h"
#include "Tramel/SockDgram.h"
#include "Tramel/SockStream.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t IDENTIFY_TIMEOUT_US = 5000000;
const int MAX_HANDED_LEN = 512;    // of the bytes that come with a connection
const int FIRST_ROOM = 512;        // enough for what most clients send first
const int MAX_REQUEST_LEN = 4096;  // as a session takes it
const char HEAD_END[] = "\r\n\r\n";
const int HEAD_END_LEN = sizeof(HEAD_END) - 1;

// The hook for the marking of control connections, which are left unmarked on purpose.
int mark_stream_sock(int /*fd*/, int /*dscp*/) {
    return 0;
}

bool is_http(const char* buf, int len) {
    return CHttpParser::IsHttp(std::string_view(buf, static_cast<size_t>(len)));
}

int bounded_length(const char* buf) {
    return buf == nullptr ? 0 : static_cast<int>(strnlen(buf, 1024));
}

// The record that `extra` of AddNewConnect leads to, if it is that of a NAT stream; otherwise null.
const NatConnectRecord* nat_record(long extra) {
    if (extra == 0 || extra == 1) {
        return nullptr;
    }
    const NatConnectRecord* record = reinterpret_cast<const NatConnectRecord*>(extra);
    return record->kind == CONNECT_KIND_NAT ? record : nullptr;
}

bool is_dgram_sock(int fd) {
    int type = 0;
    socklen_t length = sizeof(type);
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_DGRAM;
}

}  // namespace

// A connection whose kind isn't known yet.
struct CSvrSessionManager::TNewConnection {
    std::unique_ptr<CSockStream> sock;
    std::unique_ptr<char[]> buf{new (std::nothrow) char[FIRST_ROOM]};
    int room = FIRST_ROOM;
    int len = 0;
    long extra = 0;  // of AddNewConnect; a pointer is not looked at again
    const uint64_t deadline_us = CTime::getCurrentMicroSecond() + IDENTIFY_TIMEOUT_US;

    // Microseconds that are left; 0 when there are none.
    int64_t time_left_us() const {
        const uint64_t now = CTime::getCurrentMicroSecond();
        return now < deadline_us ? static_cast<int64_t>(deadline_us - now) : 0;
    }

    // Reads what there is room for: the count, 0, or -1.
    int receive() {
        if (len == room && !grow()) {
            return -1;
        }
        const int count = sock->Recv(buf.get() + len, static_cast<unsigned int>(room - len));
        len += count > 0 ? count : 0;
        return count;
    }

    // Whether a request head ends in the last `count` bytes.
    bool ends_head(int count) const {
        const char* end = buf.get() + len;
        const char* begin = buf.get() + std::max(len - count - HEAD_END_LEN + 1, 0);
        return std::search(begin, end, HEAD_END, HEAD_END + HEAD_END_LEN) != end;
    }

private:
    bool grow() {
        std::unique_ptr<char[]> larger(new (std::nothrow) char[MAX_REQUEST_LEN]);
        if (larger == nullptr) {
            return false;
        }
        memcpy(larger.get(), buf.get(), static_cast<size_t>(len));
        buf = std::move(larger);
        room = MAX_REQUEST_LEN;
        return true;
    }
};

CSvrSessionManager::CSvrSessionManager(INatIntake& nat_intake)
    : m_nat_intake(nat_intake),
      m_roll(CSessionRoll::Create()),
      m_http_manager(new (std::nothrow) CRtspOverHttpSessionManager(m_roll)) {
    CFrameWatch::RegisterConsole();
}

CSvrSessionManager::~CSvrSessionManager() = default;

void CSvrSessionManager::SetLiveSvr(CLiveSvr* live_svr) {
    CGuard guard(m_mutex);
    m_live_svr = CLiveSvrRef(live_svr);
    if (m_http_manager != nullptr) {
        m_http_manager->SetLiveSvr(live_svr);
    }
}

void CSvrSessionManager::SetConfig(const CRtspSvrConfig& config) {
    CGuard guard(m_mutex);
    m_config = config;
    if (m_http_manager != nullptr) {
        m_http_manager->SetConfig(config);
    }
}

int CSvrSessionManager::add_connection(CSockStream* sock) {
    std::unique_ptr<CSockStream> owned(sock);
    CGuard guard(m_mutex);
    if (m_stopped) {
        return -1;
    }
    mark_locked(*sock);
    return add_waiting_locked(owned, 0);
}

bool CSvrSessionManager::is_stopped() {
    CGuard guard(m_mutex);
    return m_stopped;
}

int CSvrSessionManager::AddNewConnect(int fd, const char* buf, int len, long extra) {
    const int text_len = bounded_length(buf);
    const bool is_taken = fd >= 0 && text_len <= MAX_HANDED_LEN;
    const NatConnectRecord* nat = is_taken ? nat_record(extra) : nullptr;
    if (nat != nullptr) {
        return add_nat_stream(fd, buf, nat->on_return);
    }
    if (!is_taken || is_stopped()) {
        logError("%s %d AddNewConnect Failed!len: %d\n", __FILE__, __LINE__, len);
        return -1;  // fd stays the caller's
    }
    std::unique_ptr<CSockStream> sock(new (std::nothrow) CSockStream);
    if (sock == nullptr || sock->Attach(fd) < 0) {
        logError("%s %d Attach Sock Failed!\n", __FILE__, __LINE__);
        return -1;  // unlike a NAT stream's, this fd stays open and the caller's
    }
    return add_stream(std::move(sock), buf, std::min(len, text_len), extra);  // who counts wrong has no more
}

// `len` bytes came already, and count only if they end the head of a request: otherwise they are dropped. -1: the
// descriptor stays the caller's.
int CSvrSessionManager::add_stream(std::unique_ptr<CSockStream> sock, const char* buf, int len, long extra) {
    {
        CGuard guard(m_mutex);
        if (m_stopped) {
            sock->Detach();
            return -1;
        }
        mark_locked(*sock);
        if (buf == nullptr || strstr(buf, HEAD_END) == nullptr) {
            const int result = add_waiting_locked(sock, extra);
            if (result < 0) {
                logError("%s %d TNewConnection bad_alloc!\n", __FILE__, __LINE__);
                sock->Detach();
            }
            return result;
        }
    }
    const int text_len = bounded_length(buf);
    if (is_http(buf, text_len)) {
        logInfo("%s %d HTTP Add New Connect!\n", __FILE__, __LINE__);
        const int head_len =
            static_cast<int>(strstr(buf, HEAD_END) - buf) + HEAD_END_LEN;  // whole, whatever `len` says
        hand_on_http(sock.release(), buf, std::max(len, head_len),
                     CTime::getCurrentMicroSecond() + IDENTIFY_TIMEOUT_US);
    } else {
        logInfo("%s %d RTSP Add New Connect!\n", __FILE__, __LINE__);
        start_rtsp_session(sock.release(), buf, text_len, extra);
    }
    return 0;
}

int CSvrSessionManager::add_nat_stream(int fd, const char* peer, const nat_return_t& socket_return) {
    std::unique_ptr<CSockDgram> sock(new (std::nothrow) CSockDgram);
    if (is_stopped() || sock == nullptr || !is_dgram_sock(fd) || sock->Attach(fd) < 0) {
        logError("%s %d Attach Sock Failed!\n", __FILE__, __LINE__);
        close(fd);
        return -1;
    }
    logInfo("%s %d P2P Nat Stream Add New Connect!\n", __FILE__, __LINE__);
    m_mutex.enter();
    const CRtspSvrConfig config(m_config);
    const CLiveSvrRef live_svr = m_live_svr;
    m_mutex.leave();
    return m_nat_intake.add_connection(std::move(sock), peer, socket_return, config, live_svr, m_roll);
}

void CSvrSessionManager::mark_locked(const CSockStream& sock) {
    const int dscp = m_config.GetDSCP();
    if (dscp > 0) {
        mark_stream_sock(sock.GetHandle(), dscp);
    }
}

// 0; or -1, and the socket stays the caller's: memory is short, or nothing would watch it.
int CSvrSessionManager::add_waiting_locked(std::unique_ptr<CSockStream>& sock, long extra) {
    std::unique_ptr<TNewConnection> connection(new (std::nothrow) TNewConnection);
    if (connection == nullptr || connection->buf == nullptr) {
        return -1;
    }
    connections_t::iterator place;
    try {
        place = m_connections.insert_or_assign(sock->GetHandle(), std::move(connection)).first;
    } catch (const std::bad_alloc&) {
        return -1;
    }
    if (RegisterSock(*sock, Tramel::SOCK_EVENT_READ, IDENTIFY_TIMEOUT_US) < 0) {
        m_connections.erase(place);
        return -1;
    }
    place->second->sock = std::move(sock);
    place->second->extra = extra;
    return 0;
}

int CSvrSessionManager::handle_input(int fd) {
    CGuard guard(m_mutex);
    const auto it = m_connections.find(fd);
    if (it == m_connections.end()) {
        return 0;
    }
    TNewConnection& connection = *it->second;
    if (!OSTRA_ASSERT(connection.sock != NULL)) {
        return -1;
    }
    if (connection.len >= MAX_REQUEST_LEN) {
        logWarn("%s:%d Request max buf reached, error, fd:%d \n", __FILE__, __LINE__, fd);
        return drop_locked(it);
    }
    const int count = connection.receive();
    if (count < 0) {
        logWarn("%s:%d sock recv failed, fd:%d \n", __FILE__, __LINE__, fd);
        drop_locked(it);
        return 0;
    }
    if (!connection.ends_head(count)) {
        return wait_for_rest_locked(it);
    }
    const std::unique_ptr<TNewConnection> known = std::move(it->second);
    RemoveSock(*known->sock);
    m_connections.erase(it);
    guard.Leave();
    // A connection that starts with neither is RTSP: garbage ends up in the RTSP parser, and dies there.
    const char* buf = known->buf.get();
    if (is_http(buf, known->len)) {
        hand_on_http(known->sock.release(), buf, known->len, known->deadline_us);
    } else {
        start_rtsp_session(known->sock.release(), buf, known->len, known->extra);
    }
    return 0;
}

// The time runs from the beginning, whatever comes meanwhile: what was a quiet time so far becomes the rest of it.
int CSvrSessionManager::wait_for_rest_locked(connections_t::iterator it) {
    const int64_t left_us = it->second->time_left_us();
    if (left_us == 0) {
        logWarn("%s:%d handle_input_timeout error, fd:%d \n", __FILE__, __LINE__, it->first);
        return drop_locked(it);
    }
    return RegisterSock(*it->second->sock, Tramel::SOCK_EVENT_READ, left_us) < 0 ? drop_locked(it) : 0;
}

int CSvrSessionManager::handle_input_timeout(int fd) {
    CGuard guard(m_mutex);
    const auto it = m_connections.find(fd);
    if (it != m_connections.end()) {
        logWarn("%s:%d handle_input_timeout error, fd:%d \n", __FILE__, __LINE__, fd);
        drop_locked(it);
    }
    return -1;
}

int CSvrSessionManager::drop_locked(connections_t::iterator it) {
    RemoveSock(*it->second->sock);
    m_connections.erase(it);
    return -1;
}

void CSvrSessionManager::hand_on_http(CSockStream* sock, const char* buf, int len, uint64_t deadline_us) {
    CGuard guard(m_mutex);
    if (m_http_manager != nullptr && !m_stopped) {
        m_http_manager->add_connection(sock, buf, len, deadline_us);
    } else {
        delete sock;
    }
}

void CSvrSessionManager::start_rtsp_session(CSockStream* sock, const char* buf, int len, long extra) {
    CRtspSvrSession* session = new (std::nothrow) CRtspSvrSession;
    if (session == nullptr || session->SetRoll(m_roll) < 0) {
        delete sock;
        if (session != nullptr) {
            session->Discard();
        }
        return;
    }
    m_mutex.enter();
    CRtspSvrConfig config(m_config);
    const CLiveSvrRef live_svr = m_live_svr;
    m_mutex.leave();
    if (extra == 1) {
        const rtsp_auth_t no_auth = 0;
        config.SetConfig(RTSP_SVR_CONFIG_AUTH_TYPE, &no_auth, sizeof(no_auth));
    }
    session->SetConfig(config);
    session->SetLiveSvr(live_svr);
    session->Start(sock, buf, len);
}

void CSvrSessionManager::Stop() {
    m_roll->Shut();
    CGuard guard(m_mutex);
    m_stopped = true;
    while (!m_connections.empty()) {
        drop_locked(m_connections.begin());
    }
    if (m_http_manager != nullptr) {
        m_http_manager->Stop();
    }
}

void CSvrSessionManager::Close() {
    if (m_roll != nullptr) {
        Stop();
    }
    {
        CGuard guard(m_mutex);
        m_live_svr = CLiveSvrRef();
        if (m_http_manager != nullptr) {
            m_http_manager->Close();
            m_http_manager = nullptr;
        }
    }
    CNetHandler::Close();
}

int CSvrSessionManager::handle_close(CNetHandler* /*handler*/) {
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
