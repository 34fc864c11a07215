#ifndef VIDORA_TRAMEL_SOCKDETAIL_H
#define VIDORA_TRAMEL_SOCKDETAIL_H

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>

#include "Vidora/Tramel/Sock.h"
#include "Vidora/Tramel/SockAddr.h"

namespace Kavio {
namespace Tramel {

// Small things that the socket classes share.

// The operation would have waited.
inline bool IsWouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

// 0 or -1.
inline int SetOption(int fd, int level, int name, int value) {
    return ::setsockopt(fd, level, name, &value, sizeof(value)) == 0 ? 0 : -1;
}

// The option's value, or -1.
inline int GetOption(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    return ::getsockopt(fd, level, name, &value, &length) == 0 ? value : -1;
}

const int SEND_FLAGS = MSG_NOSIGNAL | MSG_DONTWAIT;

// As sendmsg, for a message that never blocks: without the C library's look at whether the thread is to be cancelled,
// in front of each call and behind it.
inline ssize_t SendNow(int fd, const struct msghdr& message) {
    return static_cast<ssize_t>(syscall(SYS_sendmsg, fd, &message, SEND_FLAGS));
}

// Writes a vector to a stream socket: the bytes that it took, or -1 with errno set.
inline int64_t WriteParts(int fd, const struct iovec* parts, unsigned int count) {
    struct msghdr message = {};
    message.msg_iov = const_cast<struct iovec*>(parts);
    message.msg_iovlen = count;
    ssize_t sent;
    do {
        sent = SendNow(fd, message);
    } while (sent < 0 && errno == EINTR);
    return sent;
}

inline int ClampInt(unsigned int value) {
    return value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

// A length whose count fits an int result.
inline size_t ClampLength(unsigned int length) {
    return static_cast<size_t>(ClampInt(length));
}

// Any address as CSockAddrStorage; an invalid one for null.
inline CSockAddrStorage ToStorage(const CSockAddr* addr) {
    CSockAddrStorage storage;
    sockaddr_storage native = {};
    if (addr != nullptr && addr->GetAddr(reinterpret_cast<sockaddr*>(&native)) == 0) {
        storage.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), static_cast<unsigned int>(addr->GetAddrLen()));
    }
    return storage;
}

// Closes a socket that could not be opened and keeps errno for the caller: -1.
inline int FailOpen(CSock& sock) {
    const int error = errno;
    sock.Close();
    errno = error;
    return -1;
}

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCKDETAIL_H
