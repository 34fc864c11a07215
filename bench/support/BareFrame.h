#ifndef VIDORA_BENCH_SUPPORT_BAREFRAME_H
#define VIDORA_BENCH_SUPPORT_BAREFRAME_H

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>
#include <vector>

namespace Bench {

// CBareFrame: a merged frame (RTP packets, each behind its 4-byte interleave header) and the least that it takes to
// send it: one writev on a TCP socket, one sendmmsg with segmentation offload on a connected UDP socket. The floor of
// the benchmarks. The bytes are copied, as a source makes each frame anew, and the vectors are laid out once for all
// sockets.
class CBareFrame {
public:
    explicit CBareFrame(const std::string& merged, bool udp);

    // Bytes that the socket took, or -1.
    ssize_t WriteTcp(int fd) const;
    // False if the socket refused.
    bool SendUdp(int fd);
    const std::string& Bytes() const { return m_bytes; }

private:
    struct alignas(cmsghdr) CControl {
        unsigned char bytes[CMSG_SPACE(sizeof(unsigned short))];
    };

    void lay_out();
    void add_message(size_t first, size_t count);

    std::string m_bytes;
    std::vector<iovec> m_parts;  // packets without their headers
    std::vector<mmsghdr> m_messages;
    std::vector<CControl> m_controls;
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_BAREFRAME_H
