#include "StreamParser/RtpPacketNode.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

void RtpPacketNode::Reset() {
    prefix = nullptr;
    prefix_len = 0;
    fixed_len = 0;
    iov_count = 0;
    body = nullptr;
    body_len = 0;
    raw = nullptr;
    raw_len = 0;
}

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

uint32_t RtpPacketNode::Size() const {
    uint32_t size = prefix_len + fixed_len + body_len;
    for (uint32_t i = 0; i < iov_count; ++i) {
        size += iov[i].len;
    }
    return size;
}

void RtpPacketNode::Write(Ostra::CByteWriter& writer) const {
    writer.WriteBytes(prefix, prefix_len);
    writer.WriteBytes(fixed, fixed_len);
    for (uint32_t i = 0; i < iov_count; ++i) {
        writer.WriteBytes(iov[i].data, iov[i].len);
    }
    writer.WriteBytes(body, body_len);
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

RtpPacketNode* CRtpPacketList::Append() {
    RtpPacketNode* node = m_count == 0 ? m_head : m_last->next;
    if (node == nullptr) {
        if (!grow()) {
            return nullptr;
        }
        node = m_count == 0 ? m_head : m_last->next;
    }
    node->Reset();
    m_last = node;
    ++m_count;
    return node;
}

void CRtpPacketList::Clear() {
    m_count = 0;
    m_last = nullptr;
}

// Puts one more block behind the last node.
bool CRtpPacketList::grow() {
    Block* block = new (std::nothrow) Block;
    if (block == nullptr) {
        return false;
    }
    block->older = m_blocks;
    m_blocks = block;
    for (uint32_t i = 0; i + 1 < BLOCK_NODES; ++i) {
        block->nodes[i].next = &block->nodes[i + 1];
    }
    (m_tail == nullptr ? m_head : m_tail->next) = &block->nodes[0];
    m_tail = &block->nodes[BLOCK_NODES - 1];
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
