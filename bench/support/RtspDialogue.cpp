#include "support/RtspDialogue.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

namespace Bench {

namespace {

// The text between `begin` and the line's end, behind the position of `after`.
std::string line_value(const std::string& text, const char* after, const char* begin) {
    const size_t from = text.find(after);
    const size_t at = from == std::string::npos ? from : text.find(begin, from);
    if (at == std::string::npos) {
        return std::string();
    }
    const size_t start = at + std::strlen(begin);
    return text.substr(start, text.find_first_of("\r\n", start) - start);
}

}  // namespace

std::string HeaderValue(const std::string& text, const char* name) {
    const size_t length = std::strlen(name);
    for (size_t at = text.find("\r\n"); at != std::string::npos && at + 2 < text.size();
         at = text.find("\r\n", at + 2)) {
        const char* line = text.c_str() + at + 2;
        if (strncasecmp(line, name, length) == 0 && line[length] == ':') {
            const char* value = line + length + 1 + std::strspn(line + length + 1, " ");
            return std::string(value, std::strcspn(value, "\r\n"));
        }
    }
    return std::string();
}

CRtspDialogue::CRtspDialogue(uint16_t server_port, uint16_t client_port, const std::string& content)
    : m_client_port(client_port), m_url("rtsp://127.0.0.1:" + std::to_string(server_port) + "/" + content) {}

std::string CRtspDialogue::Request() const {
    static const char* const METHODS[] = {"OPTIONS", "DESCRIBE", "SETUP", "PLAY"};
    std::string text = METHODS[m_step];
    text += " " + (m_step == 2 ? m_control : m_url) + " RTSP/1.0\r\nCSeq: " + std::to_string(m_step + 1) +
            "\r\nUser-Agent: load\r\n";
    if (m_step == 1) {
        text += "Accept: application/sdp\r\n";
    } else if (m_step == 2 && m_client_port == 0) {
        text += "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
    } else if (m_step == 2) {
        text += "Transport: RTP/AVP;unicast;client_port=" + std::to_string(m_client_port) + "-" +
                std::to_string(m_client_port + 1) + "\r\n";
    } else if (m_step == 3) {
        text += "Session: " + m_session + "\r\nRange: npt=0.000-\r\n";
    }
    return text + "\r\n";
}

size_t CRtspDialogue::ReplySize(const std::string& text) {
    const size_t head = text.find("\r\n\r\n");
    if (head == std::string::npos) {
        return 0;
    }
    const size_t size =
        head + 4 + static_cast<size_t>(std::atoi(HeaderValue(text.substr(0, head + 4), "Content-Length").c_str()));
    return text.size() < size ? 0 : size;
}

bool CRtspDialogue::Take(const std::string& reply) {
    if (reply.compare(0, 12, "RTSP/1.0 200") != 0) {
        return false;
    }
    if (m_step == 1) {
        m_control = line_value(reply, "\nm=", "a=control:");
        if (m_control.compare(0, 5, "rtsp:") != 0) {
            std::string base = HeaderValue(reply, "Content-Base");
            if (base.empty()) {
                base = m_url;
            }
            m_control = base + (base.back() == '/' ? "" : "/") + m_control;
        }
    } else if (m_step == 2) {
        m_session = HeaderValue(reply, "Session");
        m_session.resize(std::strcspn(m_session.c_str(), "; "));
        if (m_session.empty()) {
            return false;
        }
    }
    ++m_step;
    return true;
}

}  // namespace Bench
