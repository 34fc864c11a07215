#include "StreamParser/RtpPacketNode.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

static_assert(sizeof(RtpPacketNode) == 64, "a node has one cache line");

bool RtpPacketNode::ReserveIov(uint16_t count) {
    if (count <= iov_capacity) {
        return true;
    }
    const auto capacity = static_cast<uint16_t>(count + 4);
    RtpIov* larger = new (std::nothrow) RtpIov[capacity];
    if (larger == nullptr) {
        return false;
    }
    std::copy(iov, iov + iov_count, larger);
    delete[] iov;
    iov = larger;
    iov_capacity = capacity;
    return true;
}

bool RtpPacketNode::AddIov(const unsigned char* data, uint32_t len) {
    if (!ReserveIov(static_cast<uint16_t>(iov_count + 1))) {
        return false;
    }
    iov[iov_count].data = data;
    iov[iov_count].len = len;
    ++iov_count;
    return true;
}

CRtpPacketList::~CRtpPacketList() {
    for (uint32_t i = 0; i < m_capacity; ++i) {
        delete[] m_nodes[i].iov;
    }
    delete[] m_nodes;
}

// Makes room for as many nodes again.
bool CRtpPacketList::grow() {
    const uint32_t capacity = m_capacity == 0 ? FIRST_NODES : 2 * m_capacity;
    RtpPacketNode* larger = new (std::nothrow) RtpPacketNode[capacity]();
    if (larger == nullptr) {
        return false;
    }
    std::copy(m_nodes, m_nodes + m_count, larger);
    delete[] m_nodes;
    m_nodes = larger;
    m_capacity = capacity;
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
