#ifndef VIDORA_STREAMPARSER_RTPPACKETNODE_H
#define VIDORA_STREAMPARSER_RTPPACKETNODE_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

struct RtpIov {
    const unsigned char* data;
    uint32_t len;
};

// RtpPacketNode: what one packet is made of, without its bytes. All pointers are borrowed.
//
// Order of the bytes: prefix, fixed, the iov pieces in order, body.
struct RtpPacketNode {
    static constexpr uint32_t FIXED_SIZE = 16;

    const unsigned char* prefix = nullptr;  // data ahead of all else; the depacketiser only
    uint32_t prefix_len = 0;
    unsigned char fixed[FIXED_SIZE] = {};  // a small payload header of this packet
    uint32_t fixed_len = 0;
    RtpIov* iov = nullptr;  // further pieces; the array is owned and kept from frame to frame
    uint32_t iov_capacity = 0;
    uint32_t iov_count = 0;
    const unsigned char* body = nullptr;  // the media bytes, inside the frame
    uint32_t body_len = 0;
    const unsigned char* raw = nullptr;  // the received payload; the depacketiser only
    uint32_t raw_len = 0;
    RtpPacketNode* next = nullptr;

    // Empties the node; the iov array and `next` stay.
    void Reset() {
        prefix = nullptr;
        prefix_len = 0;
        fixed_len = 0;
        iov_count = 0;
        body = nullptr;
        body_len = 0;
        raw = nullptr;
        raw_len = 0;
    }
    // Makes room for `count` iov pieces in all; grows to count + 4. False if memory is short, with no change.
    bool ReserveIov(uint32_t count);
    // Appends a piece. False if memory is short.
    bool AddIov(const unsigned char* data, uint32_t len);

    // Bytes of the packet behind its RTP header.
    uint32_t Size() const {
        uint32_t size = prefix_len + fixed_len + body_len;
        for (uint32_t i = 0; i < iov_count; ++i) {
            size += iov[i].len;
        }
        return size;
    }
    // Writes those bytes; check writer.Ok().
    void Write(Ostra::CByteWriter& writer) const {
        if (prefix_len > 0) {
            writer.WriteBytes(prefix, prefix_len);
        }
        if (body_len >= FIXED_SIZE && writer.Remaining() >= FIXED_SIZE && writer.Ok() && writer.Data() != nullptr) {
            // All of it in one move of known size; what is too much is overwritten by what follows in this packet.
            std::memcpy(writer.Reserve(fixed_len), fixed, FIXED_SIZE);
        } else {
            writer.WriteBytes(fixed, fixed_len);
        }
        for (uint32_t i = 0; i < iov_count; ++i) {
            writer.WriteBytes(iov[i].data, iov[i].len);
        }
        writer.WriteBytes(body, body_len);
    }
};

// CRtpPacketList: a list of nodes that is filled from the front, again for each frame. It grows by blocks of 16 nodes
// and keeps them, so that a steady stream allocates nothing. One thread at a time.
class CRtpPacketList {
public:
    static constexpr uint32_t BLOCK_NODES = 16;

    CRtpPacketList() = default;
    ~CRtpPacketList();
    CRtpPacketList(const CRtpPacketList&) = delete;
    CRtpPacketList& operator=(const CRtpPacketList&) = delete;

    // The next free node, emptied and now in use; null if memory is short.
    RtpPacketNode* Append() {
        RtpPacketNode* node = m_count == 0 ? m_head : m_last->next;
        if (node == nullptr) {
            node = grow();
            if (node == nullptr) {
                return nullptr;
            }
        }
        node->Reset();
        m_last = node;
        ++m_count;
        return node;
    }
    // No node is in use any more.
    void Clear() {
        m_count = 0;
        m_last = nullptr;
    }
    uint32_t Count() const { return m_count; }
    // The first node in use, or null. A node's `next` leads on; it may lead to nodes that aren't in use, so walk
    // Count() nodes.
    RtpPacketNode* Head() const { return m_count > 0 ? m_head : nullptr; }
    RtpPacketNode* Last() const { return m_last; }

private:
    struct Block;
    RtpPacketNode* grow();

    Block* m_blocks = nullptr;        // all blocks, the newest first
    RtpPacketNode* m_head = nullptr;  // first node
    RtpPacketNode* m_tail = nullptr;  // last node of the newest block
    RtpPacketNode* m_last = nullptr;  // last node in use
    uint32_t m_count = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPPACKETNODE_H
