#include "RtspOverHttp/RtspOverHttpSessionManager.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "Protocol/LogQuote.h"
#include "RtspOverHttp/HttpParser.h"
#include "RtspOverHttp/RtspOverHttpSession.h"
#include "SvrConversation.h"

namespace Kavio {
namespace Vidora {

namespace {

const std::string_view GET_REPLY =
    "HTTP/1.0 200 OK\r\nServer: Rtsp Server/2.0\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\n";
// What caches on the way have to know (RFC 7234).
const std::string_view UNCACHED_GET_REPLY =
    "HTTP/1.0 200 OK\r\nServer: Rtsp Server/2.0\r\nConnection: close\r\nCache-Control: no-store\r\n"
    "Pragma: no-cache\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\n";
const size_t DROP_READ_SIZE = 32768;
const int LOGGED_COOKIE = 4;  // characters
const size_t MAX_ADDRESS = 128;

std::string address_of(const CSockStream& sock) {
    CSockAddrStorage peer;
    char text[MAX_ADDRESS] = "";
    sock.GetRemoteAddr(&peer);
    peer.GetIpStr(text, sizeof(text));
    return text;
}

// The first line of a request, as a line of the log may show it.
CLogQuote first_line(const char* bytes, size_t length) {
    return CLogQuote(Ostra::LOG_LEVEL_ERROR, bytes, std::min(std::string_view(bytes, length).find("\r\n"), length));
}

struct SessionCloser {
    void operator()(CRtspOverHttpSession* session) const { session->Discard(); }
};

// Null if memory is short.
std::unique_ptr<HttpPost> make_post(std::unique_ptr<CSockStream>& sock, const CHttpParser& parser) {
    const std::string_view rest = parser.rest();
    std::unique_ptr<HttpPost> post(new (std::nothrow) HttpPost);
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[rest.size() + 1]);
    if (post == nullptr || bytes == nullptr) {
        return nullptr;
    }
    memcpy(bytes.get(), rest.data(), rest.size());
    post->sock = std::move(sock);
    post->rest = std::move(bytes);
    post->rest_length = rest.size();
    post->content_length = parser.content_length();
    return post;
}

}  // namespace

void CRtspOverHttpSessionManager::SetLiveSvr(CLiveSvr* live_svr) {
    CGuard guard(m_mutex);
    m_live_svr = CLiveSvrRef(live_svr);
}

void CRtspOverHttpSessionManager::SetConfig(const CRtspSvrConfig& config) {
    CGuard guard(m_mutex);
    m_config = config;
}

int CRtspOverHttpSessionManager::add_connection(CSockStream* sock, const char* buf, int len, uint64_t deadline_us) {
    std::unique_ptr<CSockStream> owned(sock);
    const size_t length = static_cast<size_t>(len);
    std::unique_ptr<TArrival> arrival(new (std::nothrow) TArrival);
    std::unique_ptr<char[]> bytes(new (std::nothrow) char[length + 1]);
    if (arrival == nullptr || bytes == nullptr) {
        return -1;
    }
    memcpy(bytes.get(), buf, length);
    arrival->sock = std::move(owned);
    arrival->bytes = std::move(bytes);
    arrival->length = length;
    arrival->deadline_us = deadline_us;
    try {
        CGuard guard(m_mutex);
        m_arrivals.push_back(std::move(arrival));
    } catch (const std::bad_alloc&) {
        return -1;
    }
    Notify(GetID(), MSG_TUNNEL_ARRIVAL, 0);
    return 0;
}

int CRtspOverHttpSessionManager::handle_message(long sender_id, unsigned int msg, long /*param*/) {
    if (msg == MSG_TUNNEL_ARRIVAL || msg == MSG_TUNNEL_STOP) {
        take_arrivals();
        return msg == MSG_TUNNEL_STOP ? drop_waiting(), 0 : 0;
    }
    const auto it = m_running.find(sender_id);
    if (msg == MSG_TUNNEL_ENDED && it != m_running.end()) {
        m_sessions.erase(it->second);
        m_running.erase(it);
        logInfo("%s:%d rtsp over http client:%d \n", __FILE__, __LINE__, static_cast<int>(m_sessions.size()));
    }
    return 0;
}

// Who isn't taken over is closed with its record.
void CRtspOverHttpSessionManager::take_arrivals() {
    std::list<std::unique_ptr<TArrival>> arrivals;
    {
        CGuard guard(m_mutex);
        arrivals.swap(m_arrivals);
    }
    for (const std::unique_ptr<TArrival>& arrival : arrivals) {
        CHttpParser parser;
        if (parser.parse(std::string_view(arrival->bytes.get(), arrival->length)) != CHttpParser::HTTP_OK) {
            logError("%s:%d http parse failed, req:%s\n", __FILE__, __LINE__,
                     first_line(arrival->bytes.get(), arrival->length).Text());
            continue;
        }
        int result = -1;
        try {
            result = handle_http_request(*arrival, parser);
        } catch (const std::bad_alloc&) {
        }
        if (result < 0) {
            logError("%s:%d handle_http_request failed, req:%s\n", __FILE__, __LINE__,
                     first_line(arrival->bytes.get(), arrival->length).Text());
        }
    }
}

int CRtspOverHttpSessionManager::handle_http_request(TArrival& arrival, const CHttpParser& parser) {
    const char* cookie = parser.cookie().data();
    const int shown = parser.cookie().size() > LOGGED_COOKIE ? LOGGED_COOKIE : 0;
    const auto it = m_sessions.find(parser.cookie());
    if (it == m_sessions.end() && parser.is_post()) {
        logError("%s:%d POST Request,no cookie match, cookie:%.*s\n", __FILE__, __LINE__, shown, cookie);
        return -1;
    }
    if (it == m_sessions.end()) {
        return take_get(arrival, parser);
    }
    if (!parser.is_post()) {
        logError("%s:%d multicast GET with same cookie not supported, cookie:%.*s\n", __FILE__, __LINE__, shown,
                 cookie);
        return -1;
    }
    if (it->second.m_get_sock == nullptr) {
        return set_post_stream(it->second, arrival, parser);
    }
    logInfo("%s:%d cookie match, Create New Session. cookie:%.*s \n", __FILE__, __LINE__, shown, cookie);
    return start_session(it, arrival, parser);
}

std::string_view CRtspOverHttpSessionManager::get_reply() {
    CGuard guard(m_mutex);
    return m_config.GetConformance() ? UNCACHED_GET_REPLY : GET_REPLY;
}

// Bytes behind its head are of no use.
int CRtspOverHttpSessionManager::take_get(TArrival& arrival, const CHttpParser& parser) {
    const std::string_view reply = get_reply();
    const int size = static_cast<int>(reply.size());
    if (arrival.sock->Send(reply.data(), static_cast<unsigned int>(size)) != size) {
        logError("%s:%d new_sock->Send failed, resp.c_str():%s size:%d\n", __FILE__, __LINE__, reply.data(), size);
        return -1;
    }
    const auto place = m_sessions.try_emplace(std::string(parser.cookie())).first;
    try {
        m_waiting.insert_or_assign(arrival.sock->GetHandle(), place);
    } catch (const std::bad_alloc&) {
        m_sessions.erase(place);
        return -1;
    }
    place->second.m_get_sock = std::move(arrival.sock);
    place->second.m_deadline_us = arrival.deadline_us;
    return watch_get(place);
}

// The time runs from the beginning, whatever comes meanwhile.
int CRtspOverHttpSessionManager::watch_get(nodes_t::iterator place) {
    SessionNode& node = place->second;
    const uint64_t now = CTime::getCurrentMicroSecond();
    if (now >= node.m_deadline_us) {
        logInfo("%s:%d GET Request Timeout\n", __FILE__, __LINE__);
        return drop_get(place);
    }
    const int64_t left_us = static_cast<int64_t>(node.m_deadline_us - now);
    return RegisterSock(*node.m_get_sock, Tramel::SOCK_EVENT_READ, left_us) < 0 ? drop_get(place) : 0;
}

int CRtspOverHttpSessionManager::drop_get(nodes_t::iterator place) {
    CSockStream& sock = *place->second.m_get_sock;
    RemoveSock(sock);
    m_waiting.erase(sock.GetHandle());
    m_sessions.erase(place);
    return -1;
}

void CRtspOverHttpSessionManager::drop_waiting() {
    while (!m_waiting.empty()) {
        drop_get(m_waiting.begin()->second);
    }
}

int CRtspOverHttpSessionManager::start_session(nodes_t::iterator place, TArrival& arrival, const CHttpParser& parser) {
    SessionNode& node = place->second;
    node.m_post_address = address_of(*arrival.sock);
    node.m_tunnel = std::make_shared<CHttpTunnel>();
    std::unique_ptr<HttpPost> post = make_post(arrival.sock, parser);
    std::unique_ptr<CRtspOverHttpSession, SessionCloser> session(new (std::nothrow)
                                                                     CRtspOverHttpSession(node.m_tunnel, GetID()));
    if (session == nullptr || post == nullptr || session->SetRoll(m_roll) < 0) {
        logError("%s:%d fatal error , new failed\n", __FILE__, __LINE__);
        return drop_get(place);
    }
    node.m_tunnel->Offer(post);
    node.m_session_id = session->GetID();
    {
        CGuard guard(m_mutex);
        session->SetConfig(m_config);
        session->SetLiveSvr(m_live_svr);
    }
    m_running.insert_or_assign(node.m_session_id, place);
    RemoveSock(*node.m_get_sock);
    m_waiting.erase(node.m_get_sock->GetHandle());
    session.release()->Start(node.m_get_sock.release());
    return 0;
}

// Only the address that the session began with may go on with it.
int CRtspOverHttpSessionManager::set_post_stream(SessionNode& node, TArrival& arrival, const CHttpParser& parser) {
    const bool known = address_of(*arrival.sock) == node.m_post_address;
    std::unique_ptr<HttpPost> post = known ? make_post(arrival.sock, parser) : nullptr;
    if (post == nullptr || !node.m_tunnel->Offer(post)) {
        logError("%s:%d SetPostStream failed\n", __FILE__, __LINE__);
        return -1;
    }
    Notify(node.m_session_id, MSG_TUNNEL_POST, 0);
    return 0;
}

int CRtspOverHttpSessionManager::handle_input(int fd) {
    const auto it = m_waiting.find(fd);
    if (it == m_waiting.end()) {
        return 0;
    }
    char dropped[DROP_READ_SIZE];
    if (it->second->second.m_get_sock->Recv(dropped, sizeof(dropped)) < 0) {
        logInfo("%s:%d GET Request disconnected\n", __FILE__, __LINE__);
        return drop_get(it->second);
    }
    return watch_get(it->second);
}

int CRtspOverHttpSessionManager::handle_input_timeout(int fd) {
    const auto it = m_waiting.find(fd);
    if (it == m_waiting.end()) {
        return 0;
    }
    logInfo("%s:%d GET Request Timeout\n", __FILE__, __LINE__);
    return drop_get(it->second);
}

void CRtspOverHttpSessionManager::Stop() {
    Notify(GetID(), MSG_TUNNEL_STOP, 0);
}

void CRtspOverHttpSessionManager::Close() {
    CNetHandler::Close();
}

// What waits is closed with the object.
int CRtspOverHttpSessionManager::handle_close(CNetHandler* /*handler*/) {
    for (const auto& running : m_running) {
        Notify(running.first, MSG_SESSION_END, MSG_SESSION_BROKEN);
    }
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
