#include "Tramel/DgramMessage.h"

#include <netinet/in.h>
#include <netinet/udp.h>

#include <cerrno>
#include <cstring>

#ifndef UDP_SEGMENT
#define UDP_SEGMENT 103
#endif

namespace Kavio {
namespace Tramel {

namespace {

const size_t MAX_MESSAGE_BYTES = 65507;  // payload of the largest IPv4 datagram

}  // namespace

unsigned int CountSegments(const struct iovec* parts, unsigned int count, size_t limit) {
    const size_t segment = parts[0].iov_len;
    if (segment == 0 || segment >= limit) {
        return 1;
    }
    size_t bytes = segment;
    unsigned int end = 1;
    while (end < count && end < MAX_MESSAGE_SEGMENTS) {
        const size_t length = parts[end].iov_len;
        if (length == 0 || length > segment || bytes + length > MAX_MESSAGE_BYTES) {
            break;
        }
        bytes += length;
        ++end;
        if (length < segment) {
            break;
        }
    }
    return end;
}

void SetSegmentSize(struct msghdr& message, unsigned char* control, size_t size) {
    const size_t others = message.msg_controllen;
    if (others > 0) {
        std::memcpy(control, message.msg_control, others);
    }
    std::memset(control + others, 0, SEGMENT_CONTROL_SIZE);
    message.msg_control = control;
    message.msg_controllen = others + SEGMENT_CONTROL_SIZE;
    struct cmsghdr* header = reinterpret_cast<struct cmsghdr*>(control + others);
    header->cmsg_level = SOL_UDP;
    header->cmsg_type = UDP_SEGMENT;
    header->cmsg_len = CMSG_LEN(sizeof(unsigned short));
    const unsigned short segment = static_cast<unsigned short>(size);
    std::memcpy(CMSG_DATA(header), &segment, sizeof(segment));
}

// One message goes by the smaller call, which is also there where sendmmsg isn't. See SendNow for the bare calls.
int SendMessages(int fd, struct mmsghdr* messages, unsigned int count) {
    int sent = -1;
    if (count > 1) {
        do {
            sent = static_cast<int>(syscall(SYS_sendmmsg, fd, messages, count, SEND_FLAGS));
        } while (sent < 0 && errno == EINTR);
    }
    if (count > 1 && (sent >= 0 || errno != ENOSYS)) {
        return sent;
    }
    ssize_t bytes = -1;
    do {
        bytes = SendNow(fd, messages[0].msg_hdr);
    } while (bytes < 0 && errno == EINTR);
    messages[0].msg_len = bytes < 0 ? 0 : static_cast<unsigned int>(bytes);
    return bytes < 0 ? -1 : 1;
}

}  // namespace Tramel
}  // namespace Kavio
