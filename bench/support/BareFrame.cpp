#include "support/BareFrame.h"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <cstring>

namespace Bench {

namespace {

const size_t HEADER_SIZE = 4;
const size_t MAX_SEGMENTS = 64;          // of one message (UDP_MAX_SEGMENTS)
const size_t MAX_MESSAGE_BYTES = 65507;  // payload of the largest IPv4 datagram

}  // namespace

CBareFrame::CBareFrame(const std::string& merged, bool udp) : m_bytes(merged) {
    if (udp) {
        lay_out();
    }
}

ssize_t CBareFrame::WriteTcp(int fd) const {
    const iovec part = {const_cast<char*>(m_bytes.data()), m_bytes.size()};
    return ::writev(fd, &part, 1);
}

bool CBareFrame::SendUdp(int fd) {
    const unsigned int count = static_cast<unsigned int>(m_messages.size());
    return ::sendmmsg(fd, m_messages.data(), count, MSG_DONTWAIT) == static_cast<int>(count);
}

// Packets of equal size in a row and a shorter one behind them make one message, which the kernel cuts.
void CBareFrame::lay_out() {
    for (size_t at = 0; at + HEADER_SIZE <= m_bytes.size();) {
        const size_t size =
            static_cast<unsigned char>(m_bytes[at + 2]) * 256u + static_cast<unsigned char>(m_bytes[at + 3]);
        m_parts.push_back({&m_bytes[at + HEADER_SIZE], size});
        at += HEADER_SIZE + size;
    }
    m_controls.resize(m_parts.size());  // never moved again: messages point there
    for (size_t first = 0; first < m_parts.size();) {
        const size_t segment = m_parts[first].iov_len;
        size_t end = first + 1;
        size_t bytes = segment;
        while (end < m_parts.size() && end - first < MAX_SEGMENTS && m_parts[end].iov_len <= segment &&
               m_parts[end - 1].iov_len == segment && bytes + m_parts[end].iov_len <= MAX_MESSAGE_BYTES) {
            bytes += m_parts[end++].iov_len;
        }
        add_message(first, end - first);
        first = end;
    }
}

void CBareFrame::add_message(size_t first, size_t count) {
    mmsghdr message = {};
    message.msg_hdr.msg_iov = &m_parts[first];
    message.msg_hdr.msg_iovlen = count;
    if (count > 1) {
        CControl& control = m_controls[m_messages.size()];
        message.msg_hdr.msg_control = control.bytes;
        message.msg_hdr.msg_controllen = sizeof(control.bytes);
        cmsghdr* header = CMSG_FIRSTHDR(&message.msg_hdr);
        header->cmsg_level = SOL_UDP;
        header->cmsg_type = UDP_SEGMENT;
        header->cmsg_len = CMSG_LEN(sizeof(unsigned short));
        const unsigned short segment = static_cast<unsigned short>(m_parts[first].iov_len);
        std::memcpy(CMSG_DATA(header), &segment, sizeof(segment));
    }
    m_messages.push_back(message);
}

}  // namespace Bench
