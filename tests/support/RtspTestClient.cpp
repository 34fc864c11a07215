#include "support/RtspTestClient.h"

#include <poll.h>

#include "support/Interleave.h"
#include "support/Loopback.h"
#include "support/TestHandler.h"

namespace Kavio::Support {

const int POLL_MS = 10;

std::string RtspReply::Header(const std::string& name) const {
    return HeaderOf(head, name);
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

// Reads until `done` holds, the time is over or the connection has ended.
template <typename Done>
void CRtspTestClient::read_until(Done done, int timeout_ms) {
    const auto over = [&] { return m_eof || done(); };
    WaitUntil([&] { return over() || (receive(std::min(timeout_ms, POLL_MS)) && over()); }, timeout_ms);
}

template <typename T>
T CRtspTestClient::next(std::deque<T>& queue, int timeout_ms) {
    read_until([&] { return !queue.empty(); }, timeout_ms);
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
    read_until([] { return false; }, timeout_ms);
    m_replies.clear();
    m_frames.clear();
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
    for (const std::string& unit : TakeUnits(m_bytes)) {
        if (unit[0] == '$') {
            m_frames.push_back({static_cast<uint8_t>(unit[1]), unit.substr(4)});
            continue;
        }
        const size_t head = unit.find("\r\n\r\n") + 4;
        const size_t status = unit.find(' ');
        m_replies.push_back({status < head ? atoi(&unit[status]) : -1, unit.substr(0, head), unit.substr(head)});
    }
    return true;
}

}  // namespace Kavio::Support
