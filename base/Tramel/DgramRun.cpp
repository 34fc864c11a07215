#include "Tramel/DgramRun.h"

#include <cerrno>
#include <cstring>

namespace Kavio {
namespace Tramel {

namespace {

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
        const int sent = SendMessages(m_fd, m_messages, plan(first));
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
        message.msg_iovlen = CountSegments(&m_parts[part], m_part_count - part, m_offload_limit);
        m_target.Fill(message);
        if (message.msg_iovlen > 1) {
            SetSegmentSize(message, m_controls[count], m_parts[part].iov_len);
        }
        part += static_cast<unsigned int>(message.msg_iovlen);
    }
    return count;
}

// What a failed transmission of the part at `first_part` means. True to try again.
bool CDgramRun::recover(int error, unsigned int first_part) {
    if (IsFullSocket(error)) {
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
