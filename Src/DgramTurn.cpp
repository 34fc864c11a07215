#include "DgramTurn.h"

#include <algorithm>
#include <cerrno>

namespace Kavio {
namespace Vidora {

bool CDgramTurn::Next(DgramSlice& datagram) {
    if (!m_more) {
        if (m_index + 1 >= m_count && !read()) {
            return false;
        }
        ++m_index;
        m_done = 0;
    }
    const DgramSlice& message = m_batch->Datagram(m_index);
    datagram.data = message.data + m_done;
    datagram.length = std::min(m_batch->Segment(m_index), message.length - m_done);
    m_done += datagram.length;
    m_more = m_done < message.length;
    return true;
}

// The first read that leaves room has emptied the socket.
bool CDgramTurn::read() {
    const bool is_first = m_reads == 0;
    if (!is_first && (m_reads > 1 || m_count < FEW_DATAGRAMS)) {
        return false;
    }
    ++m_reads;
    m_index = -1;
    if (m_batch == nullptr) {
        errno = ENOMEM;
        m_count = -1;
        return false;
    }
    m_count = m_batch->Recv(m_sock, is_first ? FEW_DATAGRAMS : CDgramBatch::MAX_DATAGRAMS - FEW_DATAGRAMS);
    return m_count > 0;
}

}  // namespace Vidora
}  // namespace Kavio
