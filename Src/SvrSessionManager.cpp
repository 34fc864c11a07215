#include "SvrSessionManager.h"

#include <unistd.h>

#include <cstring>
#include <new>

#include "HttpRefuser.h"
#include "NatIntake.h"
#include "RtspSvrSession.h"
#include "Tramel/SockDgram.h"
#include "Tramel/SockStream.h"
#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const int64_t IDENTIFY_TIMEOUT_US = 5000000;
const char HEAD_END[] = "\r\n\r\n";

// The hook for the marking of control connections, which are left unmarked on purpose.
int mark_stream_sock(int /*fd*/, int /*dscp*/) {
    return 0;
}

// Whether `text` stands anywhere in the bytes, in any case.
bool holds(const char* buf, int len, const char* text) {
    unsigned char* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(buf));
    unsigned char* needle = reinterpret_cast<unsigned char*>(const_cast<char*>(text));
    return CStrParser::MemMemCase(bytes, len, needle, static_cast<int>(strlen(text))) != nullptr;
}

int bounded_length(const char* buf) {
    return buf == nullptr ? 0 : static_cast<int>(strnlen(buf, 1024));
}

}  // namespace

CSvrSessionManager::CSvrSessionManager() : m_http_manager(new (std::nothrow) CHttpRefuser) {}

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

void CSvrSessionManager::set_ip_type(int ip_type) {
    CGuard guard(m_mutex);
    m_ip_type = ip_type;
    if (m_http_manager != nullptr) {
        m_http_manager->set_ip_type(ip_type);
    }
}

int CSvrSessionManager::add_connection(CSockStream* sock) {
    CGuard guard(m_mutex);
    mark_locked(sock);
    return add_waiting_locked(sock, 0);
}

int CSvrSessionManager::AddNewConnect(int fd, const char* buf, int len, long extra) {
    const int text_len = bounded_length(buf);
    if (fd < 0 || text_len > MAX_REQUEST_LEN) {
        logError("%s %d AddNewConnect Failed!len: %d\n", __FILE__, __LINE__, len);
        return -1;  // fd stays the caller's
    }
    if (extra != 0 && extra != 1) {
        const ConnectRecord* record = reinterpret_cast<const ConnectRecord*>(extra);
        if (record->kind == CONNECT_KIND_NAT) {
            return add_nat_stream(fd, buf, record->values);
        }
    }
    CSockStream* sock = new (std::nothrow) CSockStream;
    if (sock == nullptr || sock->Attach(fd) < 0) {
        logError("%s %d Attach Sock Failed!\n", __FILE__, __LINE__);
        delete sock;
        return -1;  // unlike a NAT stream's, this fd stays open and the caller's
    }
    {
        CGuard guard(m_mutex);
        mark_locked(sock);
        if (buf == nullptr || strstr(buf, HEAD_END) == nullptr) {
            // Bytes of a request that isn't whole are dropped: the record starts empty.
            const int result = add_waiting_locked(sock, extra);
            if (result < 0) {
                logError("%s %d TNewConnection bad_alloc!\n", __FILE__, __LINE__);
            }
            return result;
        }
    }
    const int bytes = len < 0 ? 0 : (len < MAX_REQUEST_LEN ? len : MAX_REQUEST_LEN);
    if (holds(buf, text_len, "GET /") || holds(buf, bytes, "POST /")) {
        logInfo("%s %d HTTP Add New Connect!\n", __FILE__, __LINE__);
        hand_on(sock, buf, bytes, true, extra);
    } else {
        logInfo("%s %d RTSP Add New Connect!\n", __FILE__, __LINE__);
        hand_on(sock, buf, text_len, false, extra);
    }
    return 0;
}

int CSvrSessionManager::add_nat_stream(int fd, const char* buf, const int (&values)[4]) {
    CSockDgram* sock = new (std::nothrow) CSockDgram;
    if (sock == nullptr || sock->Attach(fd) < 0) {
        logError("%s %d Attach Sock Failed!\n", __FILE__, __LINE__);
        delete sock;
        close(fd);
        return -1;
    }
    logInfo("%s %d P2P Nat Stream Add New Connect!\n", __FILE__, __LINE__);
    m_mutex.enter();
    const CRtspSvrConfig config(m_config);
    const CLiveSvrRef live_svr = m_live_svr;
    m_mutex.leave();
    return INatIntake::Get()->add_connection(sock, buf, bounded_length(buf), values, config, live_svr.get());
}

void CSvrSessionManager::mark_locked(CSockStream* sock) {
    const int dscp = m_config.GetDSCP();
    if (dscp > 0) {
        mark_stream_sock(sock->GetHandle(), dscp);
    }
}

// Takes `sock` over; it is deleted on failure.
int CSvrSessionManager::add_waiting_locked(CSockStream* sock, long extra) {
    TNewConnection* connection = new (std::nothrow) TNewConnection();
    connections_t::iterator place = m_connections.end();
    if (connection != nullptr) {
        connection->sock = sock;
        connection->extra = extra;
        try {
            place = m_connections.insert_or_assign(sock->GetHandle(), connection).first;
        } catch (const std::bad_alloc&) {
            delete connection;
        }
    }
    if (place == m_connections.end()) {
        delete sock;
        return -1;
    }
    // A connection that nothing watches would wait for ever.
    return RegisterSock(*sock, Tramel::SOCK_EVENT_READ, IDENTIFY_TIMEOUT_US) < 0 ? remove_locked(place) : 0;
}

int CSvrSessionManager::handle_input(int fd) {
    CGuard guard(m_mutex);
    const auto it = m_connections.find(fd);
    if (it == m_connections.end()) {
        return 0;
    }
    TNewConnection& connection = *it->second;
    CSockStream* sock = connection.sock;
    if (!OSTRA_ASSERT(sock != NULL)) {
        return -1;
    }
    if (connection.len >= MAX_REQUEST_LEN) {
        logWarn("%s:%d Request max buf reached, error, fd:%d \n", __FILE__, __LINE__, fd);
        return remove_locked(it);
    }
    const int count =
        sock->Recv(connection.buf + connection.len, static_cast<unsigned int>(MAX_REQUEST_LEN - connection.len));
    if (count < 0) {
        logWarn("%s:%d sock recv failed, fd:%d \n", __FILE__, __LINE__, fd);
        remove_locked(it);
        return 0;
    }
    connection.len += count;
    if (count == 0 || strstr(connection.buf, HEAD_END) == nullptr) {
        return 0;
    }
    const TNewConnection known = connection;
    RemoveSock(*sock);
    delete it->second;
    m_connections.erase(it);
    guard.Leave();
    // A connection that starts with neither is RTSP: garbage ends up in the RTSP parser, and dies there.
    const bool http = holds(known.buf, known.len, "GET /") || holds(known.buf, known.len, "POST /");
    hand_on(known.sock, known.buf, known.len, http, known.extra);
    return 0;
}

int CSvrSessionManager::handle_input_timeout(int fd) {
    CGuard guard(m_mutex);
    const auto it = m_connections.find(fd);
    if (it != m_connections.end()) {
        logWarn("%s:%d handle_input_timeout error, fd:%d \n", __FILE__, __LINE__, fd);
        remove_locked(it);
    }
    return -1;
}

int CSvrSessionManager::remove_locked(connections_t::iterator it) {
    RemoveSock(*it->second->sock);
    delete it->second->sock;
    delete it->second;
    m_connections.erase(it);
    return -1;
}

// Gives a connection whose first request is whole to those that serve it.
void CSvrSessionManager::hand_on(CSockStream* sock, const char* buf, int len, bool http, long extra) {
    if (!http) {
        start_rtsp_session(sock, buf, len, extra);
        return;
    }
    CGuard guard(m_mutex);
    if (m_http_manager != nullptr) {
        m_http_manager->add_connection(sock, buf, len);
    } else {
        delete sock;
    }
}

void CSvrSessionManager::start_rtsp_session(CSockStream* sock, const char* buf, int len, long extra) {
    CRtspSvrSession* session = new (std::nothrow) CRtspSvrSession;
    if (session == nullptr) {
        delete sock;
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

void CSvrSessionManager::Close() {
    {
        CGuard guard(m_mutex);
        while (!m_connections.empty()) {
            remove_locked(m_connections.begin());
        }
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
