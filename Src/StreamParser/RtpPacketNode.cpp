#include "StreamParser/RtpPacketNode.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

bool RtpPacketNode::ReserveIov(uint32_t count) {
    if (count <= iov_capacity) {
        return true;
    }
    const uint32_t capacity = count + 4;
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
    if (!ReserveIov(iov_count + 1)) {
        return false;
    }
    iov[iov_count].data = data;
    iov[iov_count].len = len;
    ++iov_count;
    return true;
}

struct CRtpPacketList::Block {
    RtpPacketNode nodes[BLOCK_NODES];
    Block* older = nullptr;
};

CRtpPacketList::~CRtpPacketList() {
    while (m_blocks != nullptr) {
        Block* block = m_blocks;
        m_blocks = block->older;
        for (RtpPacketNode& node : block->nodes) {
            delete[] node.iov;
        }
        delete block;
    }
}

// Puts one more block behind the last node; its first node, or null.
RtpPacketNode* CRtpPacketList::grow() {
    Block* block = new (std::nothrow) Block;
    if (block == nullptr) {
        return nullptr;
    }
    block->older = m_blocks;
    m_blocks = block;
    for (uint32_t i = 0; i + 1 < BLOCK_NODES; ++i) {
        block->nodes[i].next = &block->nodes[i + 1];
    }
    (m_tail == nullptr ? m_head : m_tail->next) = &block->nodes[0];
    m_tail = &block->nodes[BLOCK_NODES - 1];
    return &block->nodes[0];
}

}  // namespace Vidora
}  // namespace Kavio
