#ifndef VIDORA_DGRAMBATCH_H
#define VIDORA_DGRAMBATCH_H

#include <memory>

#include "Tramel/SockDgram.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CDgramBatch: reads datagrams of any size, up to 64 with one system call, into memory that all receivers of a thread
// share, so that a receiver of its own needs none.
//
// MEMORY  4 MiB of address space a thread; what no large datagram ever used is not touched.
class CDgramBatch {
public:
    static constexpr int MAX_DATAGRAMS = 64;

    // The calling thread's; null if memory is short.
    static CDgramBatch* OfThread();

    // As CSockDgram::RecvBatch of up to `limit` datagrams. What was read before ends.
    int Recv(CSockDgram& sock, int limit = MAX_DATAGRAMS);
    // Of the last Recv, `index` below its result. Where the socket joins what it receives, a datagram may be several of
    // Segment bytes, the last one shorter.
    const DgramSlice& Datagram(int index) const { return m_slices[index]; }
    unsigned int Segment(int index) const { return m_segments[index]; }
    const CSockAddrStorage& From(int index) const { return m_from[index]; }

private:
    // A datagram's room. A stride of a large power of two would put the beginnings of all datagrams into the same lines
    // of the processor's caches.
    static constexpr size_t ROOM = 65536;
    static constexpr size_t STRIDE = ROOM + 2048;

    bool allocate();

    std::unique_ptr<unsigned char[]> m_memory;
    DgramSlice m_slices[MAX_DATAGRAMS] = {};
    CSockAddrStorage m_from[MAX_DATAGRAMS];
    unsigned int m_segments[MAX_DATAGRAMS] = {};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_DGRAMBATCH_H
