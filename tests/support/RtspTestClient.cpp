#include "support/RtspTestClient.h"

#include <arpa/inet.h>
#include <poll.h>

#include <chrono>
#include <cstdlib>

#include "support/Loopback.h"

namespace Kavio {
namespace Support {

namespace {

const char HEAD_END[] = "\r\n\r\n";

// Milliseconds that are left until a deadline.
class CDeadline {
public:
    explicit CDeadline(int timeout_ms)
        : m_end(std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms)) {}
    int Left() const {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(m_end - std::chrono::steady_clock::now()).count();
        return left > 0 ? static_cast<int>(left) : 0;
    }

private:
    std::chrono::steady_clock::time_point m_end;
};

}  // namespace

std::string RtspReply::Header(const std::string& name) const {
    const size_t line = head.find("\r\n" + name + ": ");
    if (line == std::string::npos) {
        return std::string();
    }
    const size_t value = line + name.size() + 4;
    return head.substr(value, head.find("\r\n", value) - value);
}

CRtspTestClient::CRtspTestClient(int port, const char* from) : m_fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    if (from != nullptr) {
        sockaddr_in local = LoopbackAddress(0);
        inet_pton(AF_INET, from, &local.sin_addr);
        bind(m_fd, reinterpret_cast<const sockaddr*>(&local), sizeof(local));
    }
    const sockaddr_in addr = LoopbackAddress(port);
    if (connect(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) < 0) {
        Close();
    }
}

CRtspTestClient::~CRtspTestClient() {
    Close();
}

void CRtspTestClient::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
    m_eof = true;
}

bool CRtspTestClient::Send(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return false;
        }
        sent += static_cast<size_t>(count);
    }
    return true;
}

std::string CRtspTestClient::Request(const std::string& method, const std::string& url, const std::string& headers,
                                     const std::string& body) {
    std::string text = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_cseq) + "\r\n" + headers;
    if (!m_session.empty()) {
        text += "Session: " + m_session + "\r\n";
    }
    if (!body.empty()) {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    }
    return text + "\r\n" + body;
}

RtspReply CRtspTestClient::Ask(const std::string& method, const std::string& url, const std::string& headers,
                               const std::string& body) {
    return Send(Request(method, url, headers, body)) ? Reply() : RtspReply();
}

template <typename T>
T CRtspTestClient::next(std::deque<T>& queue, int timeout_ms) {
    const CDeadline deadline(timeout_ms);
    while (queue.empty() && receive(deadline.Left())) {
    }
    T item;
    if (!queue.empty()) {
        item = queue.front();
        queue.pop_front();
    }
    return item;
}

RtspReply CRtspTestClient::Reply(int timeout_ms) {
    const RtspReply reply = next(m_replies, timeout_ms);
    const std::string session = reply.Header("Session");
    if (!session.empty()) {
        m_session = session.substr(0, session.find(';'));
    }
    return reply;
}

RtspFrame CRtspTestClient::Frame(int timeout_ms) {
    return next(m_frames, timeout_ms);
}

bool CRtspTestClient::Closed(int timeout_ms) {
    const CDeadline deadline(timeout_ms);
    while (!m_eof && receive(deadline.Left())) {
        m_replies.clear();
        m_frames.clear();
    }
    return m_eof;
}

bool CRtspTestClient::Silent(int timeout_ms) {
    return m_replies.empty() && m_frames.empty() && m_bytes.empty() && !receive(timeout_ms) && !m_eof;
}

// Reads once and cuts what is whole. False at the time-out or the connection's end.
bool CRtspTestClient::receive(int timeout_ms) {
    pollfd event = {m_fd, POLLIN, 0};
    if (m_eof || poll(&event, 1, timeout_ms) <= 0) {
        return false;
    }
    char buf[65536];
    const ssize_t count = recv(m_fd, buf, sizeof(buf), 0);
    if (count <= 0) {
        m_eof = true;
        return false;
    }
    m_bytes.append(buf, static_cast<size_t>(count));
    cut();
    return true;
}

void CRtspTestClient::cut() {
    while (!m_bytes.empty() && (m_bytes[0] == '$' ? cut_frame() : cut_reply())) {
    }
}

bool CRtspTestClient::cut_frame() {
    if (m_bytes.size() < 4) {
        return false;
    }
    const size_t length = static_cast<size_t>(static_cast<uint8_t>(m_bytes[2])) << 8 | static_cast<uint8_t>(m_bytes[3]);
    if (m_bytes.size() < length + 4) {
        return false;
    }
    RtspFrame frame;
    frame.channel = static_cast<uint8_t>(m_bytes[1]);
    frame.data = m_bytes.substr(4, length);
    m_frames.push_back(frame);
    m_bytes.erase(0, length + 4);
    return true;
}

bool CRtspTestClient::cut_reply() {
    const size_t end = m_bytes.find(HEAD_END);
    if (end == std::string::npos) {
        return false;
    }
    RtspReply reply;
    reply.head = m_bytes.substr(0, end + 4);
    const size_t body = static_cast<size_t>(atoi(reply.Header("Content-Length").c_str()));
    if (m_bytes.size() < end + 4 + body) {
        return false;
    }
    reply.body = m_bytes.substr(end + 4, body);
    const size_t status = reply.head.find(' ');
    reply.status = status == std::string::npos ? -1 : atoi(reply.head.c_str() + status);
    m_replies.push_back(reply);
    m_bytes.erase(0, end + 4 + body);
    return true;
}

}  // namespace Support
}  // namespace Kavio
