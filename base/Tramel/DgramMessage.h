#ifndef VIDORA_TRAMEL_DGRAMMESSAGE_H
#define VIDORA_TRAMEL_DGRAMMESSAGE_H

#include <sys/socket.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstddef>

#include "Tramel/SockDetail.h"

namespace Kavio {
namespace Tramel {

// Messages of a UDP socket that the kernel cuts into datagrams (UDP_SEGMENT, Linux 4.18).

const unsigned int MAX_MESSAGE_SEGMENTS = 64;  // UDP_MAX_SEGMENTS of all kernels that have the option
const size_t SEGMENT_CONTROL_SIZE = CMSG_SPACE(sizeof(unsigned short));

// How many of the datagrams `parts` make the first message: all of one size, which is below `limit`, and the last one
// shorter but not empty. At least 1, of at least 1.
unsigned int CountSegments(const struct iovec* parts, unsigned int count, size_t limit);

// Makes the kernel cut a message into datagrams of `size` bytes, the last one shorter. `control` has room for what
// controls the message already, and for SEGMENT_CONTROL_SIZE more; the message borrows it.
void SetSegmentSize(struct msghdr& message, unsigned char* control, size_t size);

// The error of a send says that the socket, or the interface, has no room.
inline bool IsFullSocket(int error) {
    return IsWouldBlock(error) || error == ENOBUFS;
}

// Sends up to `count` messages, at least 1, without blocking: how many have gone, at least 1, or -1 with errno set.
int SendMessages(int fd, struct mmsghdr* messages, unsigned int count);

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_DGRAMMESSAGE_H
