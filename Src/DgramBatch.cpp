#include "DgramBatch.h"

#include <new>

namespace Kavio {
namespace Vidora {

CDgramBatch* CDgramBatch::OfThread() {
    static thread_local std::unique_ptr<CDgramBatch> batch;
    if (batch == nullptr) {
        batch.reset(new (std::nothrow) CDgramBatch);
    }
    return batch != nullptr && batch->allocate() ? batch.get() : nullptr;
}

bool CDgramBatch::allocate() {
    if (m_memory == nullptr) {
        m_memory.reset(new (std::nothrow) unsigned char[MAX_DATAGRAMS * STRIDE]);
    }
    return m_memory != nullptr;
}

int CDgramBatch::Recv(CSockDgram& sock, int limit) {
    const size_t count = static_cast<size_t>(limit);
    for (size_t i = 0; i < count; ++i) {
        m_slices[i].data = m_memory.get() + i * STRIDE;
        m_slices[i].length = ROOM;
    }
    return sock.RecvBatch(m_slices, static_cast<unsigned int>(count), m_from, m_segments);
}

}  // namespace Vidora
}  // namespace Kavio
