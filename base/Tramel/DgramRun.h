#ifndef VIDORA_TRAMEL_DGRAMRUN_H
#define VIDORA_TRAMEL_DGRAMRUN_H

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>

#include "Tramel/DgramMessage.h"
#include "Tramel/DgramTarget.h"

namespace Kavio {
namespace Tramel {

// CDgramRun: collects datagrams for a UDP socket and sends them in few system calls.
//
// Datagrams of equal size in a row, and a shorter one behind them, leave as one message that the kernel cuts (see
// CountSegments); many messages leave in one sendmmsg. A kernel or a route that refuses a segment size (no such option,
// no checksum offload, a size above the path's MTU) is remembered in `offload_limit`, and datagrams of that size and
// above go one a message. What the peer sees is the same in all cases. Borrows the bytes until Flush. A value of one
// thread.
class CDgramRun {
public:
    static const unsigned int MAX_PARTS = 256;
    static const unsigned int MAX_MESSAGES = 64;

    // `target`: where they go, unless the socket is connected. `offload_limit`: segments below that size may be cut by
    // the kernel; lowered when it refuses. Both are borrowed.
    CDgramRun(int fd, const CDgramTarget& target, unsigned int& offload_limit)
        : m_fd(fd), m_target(target), m_offload_limit(offload_limit) {}

    // Adds a datagram; sends those before it when there is no more place.
    void Add(const unsigned char* data, unsigned int length);
    // Sends what was added.
    void Flush();
    // The socket failed, or was full: what follows is lost.
    bool Failed() const { return m_failed; }
    bool Stopped() const { return m_failed || m_full; }
    // Datagrams that were sent.
    int Sent() const { return m_sent; }
    // Their bytes.
    size_t Bytes() const { return m_bytes; }

private:
    unsigned int plan(unsigned int first_part);
    bool recover(int error, unsigned int first_part);

    static const size_t CONTROL_SIZE = CDgramTarget::CONTROL_SIZE + SEGMENT_CONTROL_SIZE;

    int m_fd;
    const CDgramTarget& m_target;
    unsigned int& m_offload_limit;
    bool m_failed = false;
    bool m_full = false;
    int m_sent = 0;
    size_t m_bytes = 0;
    int m_refused_at = -1;  // m_sent when a pending error of the connection was last met
    unsigned int m_part_count = 0;
    struct iovec m_parts[MAX_PARTS];
    struct mmsghdr m_messages[MAX_MESSAGES];
    alignas(struct cmsghdr) unsigned char m_controls[MAX_MESSAGES][CONTROL_SIZE];
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_DGRAMRUN_H
