#include "support/ScriptedServer.h"

#include <poll.h>

#include "support/Interleave.h"

namespace Kavio::Support {

const char* const CScriptedServer::CLOSE = "(close)";

ServerRequest ServerRequest::Read(const std::string& text) {
    ServerRequest request;
    request.text = text;
    request.method = text.substr(0, text.find(' '));
    const size_t url = std::min(request.method.size() + 1, text.size());
    request.url = text.substr(url, text.find(' ', url) - url);
    request.cseq = HeaderOf(text, "CSeq");
    return request;
}

int ServerRequest::ClientPort() const {
    const size_t place = text.find("client_port=");
    return place == std::string::npos ? 0 : atoi(&text[place + 12]);
}

CScriptedServer::CScriptedServer(answer_t answer, size_t piece) : m_answer(std::move(answer)), m_piece(piece) {
    ::listen(m_listener.Fd(), 128);
    m_accepter = std::thread([this] { accept_all(); });
}

CScriptedServer::~CScriptedServer() {
    m_stops = true;
    m_accepter.join();
    for (std::thread& thread : m_threads) {
        thread.join();
    }
}

void CScriptedServer::accept_all() {
    for (int number = 0; !m_stops;) {
        pollfd waits = {m_listener.Fd(), POLLIN, 0};
        if (::poll(&waits, 1, 20) <= 0) {
            continue;
        }
        const int fd = ::accept4(m_listener.Fd(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_fds.push_back(fd);
            m_threads.emplace_back([this, fd, number] { serve(fd, number); });
            ++number;
        }
    }
}

void CScriptedServer::serve(int fd, int number) {
    std::string bytes;
    bool open = true;
    while (open && !m_stops) {
        pollfd waits = {fd, POLLIN, 0};
        if (::poll(&waits, 1, 20) <= 0) {
            continue;
        }
        char buffer[4096];
        const ssize_t count = ::recv(fd, buffer, sizeof(buffer), 0);
        open = count > 0;
        bytes.append(buffer, open ? static_cast<size_t>(count) : 0);
        for (const std::string& unit : TakeUnits(bytes)) {
            open = open && (unit[0] == '$' || answer(unit, number, fd));
        }
    }
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_fds.erase(std::find(m_fds.begin(), m_fds.end(), fd));
    ::close(fd);
}

// Whether the connection is to go on.
bool CScriptedServer::answer(const std::string& text, int number, int fd) {
    ServerRequest request = ServerRequest::Read(text);
    request.connection = number;
    requests.Add(request);
    const std::string answer = m_answer(request);
    if (answer != CLOSE) {
        send(fd, answer);
    }
    return answer != CLOSE;
}

void CScriptedServer::send(int fd, const std::string& bytes) {
    const std::lock_guard<std::mutex> sending(m_send_mutex);
    const size_t piece = m_piece > 0 ? m_piece : std::max<size_t>(bytes.size(), 1);
    for (size_t place = 0; place < bytes.size(); place += piece) {
        ::send(fd, bytes.data() + place, std::min(piece, bytes.size() - place), MSG_NOSIGNAL);
    }
}

void CScriptedServer::SendAll(const std::string& bytes) {
    const std::lock_guard<std::mutex> sending(m_send_mutex);
    const std::lock_guard<std::mutex> guard(m_mutex);
    for (const int fd : m_fds) {
        ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    }
}

std::string CScriptedServer::Reply(const ServerRequest& request, const std::string& status, const std::string& headers,
                                   const std::string& body) {
    const std::string length = body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
    return "RTSP/1.0 " + status + "\r\nCSeq: " + request.cseq + "\r\n" + headers + length + "\r\n" + body;
}

std::string CScriptedServer::Sdp(const std::string& media) {
    return "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=-\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n" + media;
}

std::string CScriptedServer::Answer(const ServerRequest& request) {
    if (request.method == "OPTIONS") {
        return Reply(request, "200 OK", "Public: OPTIONS, DESCRIBE, SETUP, PLAY, PAUSE, TEARDOWN\r\n");
    }
    if (request.method == "DESCRIBE") {
        return Reply(request, "200 OK", "Content-Type: application/sdp\r\n", Sdp());
    }
    if (request.method == "SETUP") {
        const bool is_udp = request.ClientPort() > 0;
        const size_t place = request.text.find(is_udp ? "client_port=" : "interleaved=");
        const std::string way = request.text.substr(place, request.text.find("\r\n", place) - place);
        return Reply(request, "200 OK",
                     std::string("Session: 77;timeout=60\r\nTransport: RTP/AVP") + (is_udp ? "" : "/TCP") +
                         ";unicast;" + way + "\r\n");
    }
    return Reply(request, "200 OK", "Session: 77\r\n");
}

std::string CScriptedServer::Rtp(unsigned int sequence, int channel) {
    std::string packet("\x80\xe0\0\0\0\0\0\0\0\0\0\x05\x65\x88\x80\x10", 16);
    packet[2] = static_cast<char>(sequence >> 8);
    packet[3] = static_cast<char>(sequence);
    packet[6] = static_cast<char>(sequence);
    std::string bytes = "$";
    bytes += static_cast<char>(channel);
    bytes += '\0';
    bytes += static_cast<char>(packet.size());
    return bytes + packet;
}

}  // namespace Kavio::Support
