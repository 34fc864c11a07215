#include "support/BlockingPeer.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "support/Loopback.h"

namespace Bench {

CBlockingPeer::CBlockingPeer(uint16_t port) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const sockaddr_in address = loopback(port);
    const timeval limit = {10, 0};
    ::setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    m_good = ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

CBlockingPeer::~CBlockingPeer() {
    ::close(m_fd);
}

bool CBlockingPeer::Ask(const std::string& request, std::string& reply) {
    m_good = m_good && ::send(m_fd, request.data(), request.size(), MSG_NOSIGNAL) > 0;
    size_t size = 0;
    while (m_good && (size = CRtspDialogue::ReplySize(m_bytes)) == 0) {
        more();
    }
    reply = m_bytes.substr(0, size);
    m_bytes.erase(0, size);
    return m_good;
}

bool CBlockingPeer::Play(CRtspDialogue dialogue, std::string* replies) {
    for (int i = 0; i < DIALOGUE_STEPS; ++i) {
        std::string reply;
        if (!Ask(dialogue.Request(), reply) || !dialogue.Take(reply)) {
            return false;
        }
        if (replies != nullptr) {
            replies[i] = reply;
        }
    }
    return true;
}

bool CBlockingPeer::Frame(std::string& frame) {
    frame.clear();
    bool last = false;
    while (!last) {
        while (m_good && (m_bytes.size() < 4 || m_bytes.size() < packet_size())) {
            more();
        }
        if (!m_good || m_bytes[0] != '$') {
            return false;
        }
        const size_t size = packet_size();
        if (m_bytes[1] == 0) {
            frame += m_bytes.substr(0, size);
            last = (m_bytes[5] & 0x80) != 0;
        }
        m_bytes.erase(0, size);
    }
    return true;
}

size_t CBlockingPeer::packet_size() const {
    return 4 + static_cast<unsigned char>(m_bytes[2]) * 256u + static_cast<unsigned char>(m_bytes[3]);
}

void CBlockingPeer::more() {
    char room[65536];
    const ssize_t got = ::recv(m_fd, room, sizeof(room), 0);
    m_good = got > 0;
    m_bytes.append(room, got > 0 ? static_cast<size_t>(got) : 0);
}

}  // namespace Bench
