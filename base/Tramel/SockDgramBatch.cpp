// The batch operations of CSockDgram.

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Tramel/DgramRun.h"
#include "Tramel/Interleave.h"
#include "Tramel/MediaCounters.h"
#include "Tramel/SockDetail.h"
#include "Tramel/SockDgram.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Tramel {

namespace {

const size_t MARK_SIZE = INTERLEAVE_HEADER_SIZE - 2;  // "$" and the channel, in front of the length
const unsigned int MAX_RECV_MESSAGES = 64;            // of one system call

int recv_messages(int fd, struct mmsghdr* messages, unsigned int count) {
    // A peer's ICMP answer to what was sent from here is reported once and says nothing about what has arrived.
    for (bool refused = false;; refused = true) {
        int received;
        do {
            received = ::recvmmsg(fd, messages, count, MSG_DONTWAIT, nullptr);
        } while (received < 0 && errno == EINTR);
        if (received >= 0 || errno != ECONNREFUSED || refused) {
            return received;
        }
    }
}

}  // namespace

int CSockDgram::SendMerged(const unsigned char* data, unsigned int length) {
    if (m_fd < 0 || data == nullptr) {
        return -1;
    }
    CDgramRun run(m_fd, m_target, m_offload_limit);
    Ostra::CByteReader reader(data, length);
    while (reader.Remaining() > 0 && !run.Stopped()) {
        reader.Skip(MARK_SIZE);
        const unsigned int size = reader.ReadU16();
        const uint8_t* packet = reader.ReadBytes(size);
        if (!reader.Ok()) {
            break;
        }
        run.Add(packet, size);
    }
    run.Flush();
    CMediaTally tally;
    tally.Sent(static_cast<uint64_t>(run.Sent()), run.Bytes());
    tally.Dropped(run.Stopped() ? 1 : 0);
    tally.Tell();
    if (!reader.Ok()) {
        errno = EBADMSG;
    }
    return reader.Ok() && !run.Failed() ? run.Sent() : -1;
}

int CSockDgram::SendBatch(const DgramSlice* slices, unsigned int count) {
    if (m_fd < 0 || slices == nullptr) {
        return -1;
    }
    CDgramRun run(m_fd, m_target, m_offload_limit);
    for (unsigned int i = 0; i < count && !run.Stopped(); ++i) {
        run.Add(slices[i].data, slices[i].length);
    }
    run.Flush();
    return run.Failed() ? -1 : run.Sent();
}

int CSockDgram::RecvBatch(DgramSlice* slices, unsigned int count, CSockAddrStorage* from) {
    if (m_fd < 0 || slices == nullptr) {
        return -1;
    }
    struct mmsghdr messages[MAX_RECV_MESSAGES];
    struct iovec parts[MAX_RECV_MESSAGES];
    sockaddr_storage senders[MAX_RECV_MESSAGES];
    const unsigned int wanted = count < MAX_RECV_MESSAGES ? count : MAX_RECV_MESSAGES;
    std::memset(messages, 0, wanted * sizeof(messages[0]));
    for (unsigned int i = 0; i < wanted; ++i) {
        parts[i].iov_base = slices[i].data;
        parts[i].iov_len = slices[i].length;
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
        messages[i].msg_hdr.msg_name = from != nullptr ? &senders[i] : nullptr;
        messages[i].msg_hdr.msg_namelen = from != nullptr ? sizeof(senders[i]) : 0;
    }
    const int received = recv_messages(m_fd, messages, wanted);
    if (received < 0) {
        return IsWouldBlock(errno) ? 0 : -1;
    }
    for (int i = 0; i < received; ++i) {
        slices[i].length = messages[i].msg_len;
        if (from != nullptr) {
            from[i].SetSockAddr(reinterpret_cast<const sockaddr*>(&senders[i]), messages[i].msg_hdr.msg_namelen);
        }
    }
    return received;
}

}  // namespace Tramel
}  // namespace Kavio
