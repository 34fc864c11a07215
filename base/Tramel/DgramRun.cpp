#include "Tramel/DgramRun.h"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <cerrno>
#include <cstring>

#include "Tramel/SockDetail.h"

#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103  // Linux 4.18
#endif

namespace Kavio {
namespace Tramel {

namespace {

// Makes the kernel cut a message into datagrams of `size` bytes, the last one shorter. `control` has room for what
// controls the message already, and for this.
void set_segment_size(struct msghdr& message, unsigned char* control, unsigned int size) {
    const size_t others = message.msg_controllen;
    if (others > 0) {
        std::memcpy(control, message.msg_control, others);
    }
    std::memset(control + others, 0, CMSG_SPACE(sizeof(unsigned short)));
    message.msg_control = control;
    message.msg_controllen = others + CMSG_SPACE(sizeof(unsigned short));
    struct cmsghdr* header = reinterpret_cast<struct cmsghdr*>(control + others);
    header->cmsg_level = SOL_UDP;
    header->cmsg_type = UDP_SEGMENT;
    header->cmsg_len = CMSG_LEN(sizeof(unsigned short));
    const unsigned short segment = static_cast<unsigned short>(size);
    std::memcpy(CMSG_DATA(header), &segment, sizeof(segment));
}

// The kernel or the interface can't cut messages.
bool cuts_no_size(int error) {
    return error == EIO || error == ENOPROTOOPT || error == EOPNOTSUPP;
}

bool cuts_not_this_size(int error) {
    return error == EINVAL || error == EMSGSIZE;
}

}  // namespace

void CDgramRun::Add(const unsigned char* data, unsigned int length) {
    if (m_part_count == MAX_PARTS) {
        Flush();
    }
    if (Stopped()) {
        return;
    }
    m_parts[m_part_count].iov_base = const_cast<unsigned char*>(data);
    m_parts[m_part_count].iov_len = length;
    ++m_part_count;
}

void CDgramRun::Flush() {
    unsigned int first = 0;
    while (first < m_part_count && !Stopped()) {
        const int sent = transmit(plan(first));
        if (sent < 0) {
            if (!recover(errno, first)) {
                break;
            }
            continue;  // with a new plan
        }
        for (int i = 0; i < sent; ++i) {
            const unsigned int parts = static_cast<unsigned int>(m_messages[i].msg_hdr.msg_iovlen);
            first += parts;
            m_sent += static_cast<int>(parts);
            m_bytes += m_messages[i].msg_len;
        }
    }
    m_part_count = 0;
}

// Lays the parts from `first_part` on out in messages: their number.
unsigned int CDgramRun::plan(unsigned int first_part) {
    unsigned int count = 0;
    for (unsigned int part = first_part; part < m_part_count && count < MAX_MESSAGES; ++count) {
        struct msghdr& message = m_messages[count].msg_hdr;
        std::memset(&message, 0, sizeof(message));
        message.msg_iov = &m_parts[part];
        message.msg_iovlen = message_parts(part);
        m_target.Fill(message);
        if (message.msg_iovlen > 1) {
            set_segment_size(message, m_controls[count], static_cast<unsigned int>(m_parts[part].iov_len));
        }
        part += static_cast<unsigned int>(message.msg_iovlen);
    }
    return count;
}

// How many parts from `first_part` on make one message: all of one size, the last may be shorter but not empty.
unsigned int CDgramRun::message_parts(unsigned int first_part) const {
    const size_t segment = m_parts[first_part].iov_len;
    if (segment == 0 || segment >= m_offload_limit) {
        return 1;
    }
    size_t bytes = segment;
    unsigned int end = first_part + 1;
    while (end < m_part_count && end - first_part < MAX_SEGMENTS) {
        const size_t length = m_parts[end].iov_len;
        if (length == 0 || length > segment || bytes + length > MAX_MESSAGE_BYTES) {
            break;
        }
        bytes += length;
        ++end;
        if (length < segment) {
            break;
        }
    }
    return end - first_part;
}

// Messages sent, at least 1, or -1 with errno set. See SendNow for the bare call.
int CDgramRun::transmit(unsigned int message_count) {
    int sent;
    do {
        sent = static_cast<int>(syscall(SYS_sendmmsg, m_fd, m_messages, message_count, SEND_FLAGS));
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && errno == ENOSYS) {
        const ssize_t bytes = SendNow(m_fd, m_messages[0].msg_hdr);
        m_messages[0].msg_len = bytes < 0 ? 0 : static_cast<unsigned int>(bytes);
        sent = bytes < 0 ? -1 : 1;
    }
    return sent;
}

// What a failed transmission of the part at `first_part` means. True to try again.
bool CDgramRun::recover(int error, unsigned int first_part) {
    if (IsWouldBlock(error) || error == ENOBUFS) {
        m_full = true;
        return false;
    }
    // A peer's ICMP answer to an earlier datagram is reported once, in place of sending this one.
    if (error == ECONNREFUSED && m_refused_at != m_sent) {
        m_refused_at = m_sent;
        return true;
    }
    const bool cut = m_messages[0].msg_hdr.msg_iovlen > 1;
    if (cut && cuts_no_size(error)) {
        m_offload_limit = 0;
        return true;
    }
    if (cut && cuts_not_this_size(error)) {
        m_offload_limit = static_cast<unsigned int>(m_parts[first_part].iov_len);
        return true;
    }
    m_failed = true;
    return false;
}

}  // namespace Tramel
}  // namespace Kavio
