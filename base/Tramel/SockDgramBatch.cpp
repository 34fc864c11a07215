// The batch operations of CSockDgram.

#include <netinet/in.h>
#include <netinet/udp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Tramel/DgramRun.h"
#include "Tramel/Interleave.h"
#include "Tramel/MediaCounters.h"
#include "Tramel/SockDetail.h"
#include "Tramel/SockDgram.h"
#include "Vidora/Ostra/ByteReader.h"

#ifndef UDP_GRO
#define UDP_GRO 104  // Linux 5.0
#endif

namespace Kavio {
namespace Tramel {

namespace {

const uint32_t MAX_UNIT_SIZE = 0xffff;  // the low half of an interleave header; "$" is its first byte
const unsigned int MARK_SHIFT = 24;
const unsigned int MAX_RECV_MESSAGES = 64;  // of one system call
const int MAX_UNREAD = 1024;

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

// What one recvmmsg needs besides the rooms of the datagrams.
struct RecvFrame {
    // How the system reports what it joined; behind what a host may have its own socket report, such as three time
    // stamps, a packet's interface and its overflows.
    struct Control {
        alignas(struct cmsghdr) unsigned char bytes[CMSG_SPACE(sizeof(int)) + 256];
    };

    struct mmsghdr messages[MAX_RECV_MESSAGES];
    struct iovec parts[MAX_RECV_MESSAGES];
    sockaddr_storage senders[MAX_RECV_MESSAGES];
    Control controls[MAX_RECV_MESSAGES];

    void Prepare(const DgramSlice* slices, unsigned int count, bool with_senders, bool with_segments) {
        for (unsigned int i = 0; i < count; ++i) {
            parts[i] = {slices[i].data, slices[i].length};
            struct msghdr& header = messages[i].msg_hdr;
            header = {};
            header.msg_iov = &parts[i];
            header.msg_iovlen = 1;
            header.msg_name = with_senders ? &senders[i] : nullptr;
            header.msg_namelen = with_senders ? sizeof(senders[i]) : 0;
            header.msg_control = with_segments ? &controls[i] : nullptr;
            header.msg_controllen = with_segments ? sizeof(controls[i]) : 0;
        }
    }

    // The size of the datagrams that message `index` was joined of, or of the one that it is.
    unsigned int Segment(int index) {
        struct msghdr& header = messages[index].msg_hdr;
        for (struct cmsghdr* each = CMSG_FIRSTHDR(&header); each != nullptr; each = CMSG_NXTHDR(&header, each)) {
            int size = 0;
            if (each->cmsg_level == SOL_UDP && each->cmsg_type == UDP_GRO && each->cmsg_len >= CMSG_LEN(sizeof(size))) {
                std::memcpy(&size, CMSG_DATA(each), sizeof(size));
                return size > 0 ? static_cast<unsigned int>(size) : messages[index].msg_len;
            }
        }
        return messages[index].msg_len;
    }
};

// Adds the packets of a run, as far as they can be sent. False if it isn't made of whole units.
bool add_units(CDgramRun& run, const unsigned char* data, unsigned int length) {
    Ostra::CByteReader reader(data, length);
    while (reader.Remaining() > 0 && !run.Stopped()) {
        const uint32_t header = reader.ReadU32();
        const unsigned int size = header & MAX_UNIT_SIZE;
        const uint8_t* packet = reader.ReadBytes(size);
        if (!reader.Ok() || header >> MARK_SHIFT != INTERLEAVE_MARK) {
            return false;
        }
        run.Add(packet, size);
    }
    return true;
}

void count_media(const CDgramRun& run) {
    CMediaTally tally;
    tally.Sent(static_cast<uint64_t>(run.Sent()), run.Bytes());
    tally.Dropped(run.Stopped() ? 1 : 0);
    tally.Tell();
}

}  // namespace

int CSockDgram::SendMerged(const unsigned char* data, unsigned int length, bool* all) {
    if (all != nullptr) {
        *all = false;
    }
    if (m_fd < 0 || data == nullptr) {
        return -1;
    }
    CDgramRun run(m_fd, m_target, m_offload_limit);
    const bool is_run = add_units(run, data, length);
    run.Flush();
    count_media(run);
    if (!is_run) {
        errno = EBADMSG;
    }
    if (all != nullptr) {
        *all = is_run && !run.Stopped();
    }
    return is_run && !run.Failed() ? run.Sent() : -1;
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

int CSockDgram::JoinReceived() {
    return SetOption(m_fd, SOL_UDP, UDP_GRO, 1);
}

// The socket is asked first: it may be a borrowed one, whose descriptor its owner has closed and the system has given
// to something else. Systems before 5.18 don't tell.
void CSockDgram::EndJoining() {
    int joins = 0;
    socklen_t length = sizeof(joins);
    const bool knows = ::getsockopt(m_fd, SOL_UDP, UDP_GRO, &joins, &length) == 0;
    if ((knows && joins == 0) || SetOption(m_fd, SOL_UDP, UDP_GRO, 0) != 0) {
        return;
    }
    char first = 0;
    for (int i = 0; i < MAX_UNREAD && ::recv(m_fd, &first, sizeof(first), MSG_DONTWAIT) >= 0; ++i) {
    }
}

int CSockDgram::RecvBatch(DgramSlice* slices, unsigned int count, CSockAddrStorage* from, unsigned int* segments) {
    if (m_fd < 0 || slices == nullptr) {
        return -1;
    }
    RecvFrame frame;
    const unsigned int wanted = std::min(count, MAX_RECV_MESSAGES);
    frame.Prepare(slices, wanted, from != nullptr, segments != nullptr);
    const int received = recv_messages(m_fd, frame.messages, wanted);
    if (received < 0) {
        return IsWouldBlock(errno) ? 0 : -1;
    }
    for (int i = 0; i < received; ++i) {
        slices[i].length = frame.messages[i].msg_len;
        if (from != nullptr) {
            from[i].SetSockAddr(reinterpret_cast<const sockaddr*>(&frame.senders[i]),
                                frame.messages[i].msg_hdr.msg_namelen);
        }
        if (segments != nullptr) {
            segments[i] = frame.Segment(i);
        }
    }
    return received;
}

}  // namespace Tramel
}  // namespace Kavio
