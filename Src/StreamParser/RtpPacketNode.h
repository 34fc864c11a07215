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

// RtpPacketNode: what one packet is made of, without its bytes, in one cache line. All pointers are borrowed.
//
// Order of the bytes: fixed, the iov pieces in order, body.
struct alignas(64) RtpPacketNode {
    static constexpr uint32_t FIXED_SIZE = 16;

    unsigned char fixed[FIXED_SIZE];  // a small payload header of this packet
    const unsigned char* body;        // the media bytes, inside the frame
    const unsigned char* raw;         // the received payload; the depacketiser only
    uint32_t body_len;
    uint32_t raw_len;
    uint32_t fixed_len;
    uint16_t iov_count;
    uint16_t iov_capacity;
    RtpIov* iov;  // further pieces; the array is owned by the list and kept from frame to frame

    // Empties the node; the iov array stays.
    void Reset() {
        fixed_len = 0;
        iov_count = 0;
        body = nullptr;
        body_len = 0;
        raw = nullptr;
        raw_len = 0;
    }
    // Makes room for `count` iov pieces in all; grows to count + 4. False if memory is short, with no change.
    bool ReserveIov(uint16_t count);
    // Appends a piece. False if memory is short.
    bool AddIov(const unsigned char* data, uint32_t len);

    // Bytes of the packet behind its RTP header.
    uint32_t Size() const {
        uint32_t size = fixed_len + body_len;
        for (uint32_t i = 0; i < iov_count; ++i) {
            size += iov[i].len;
        }
        return size;
    }
    // Writes those bytes; check writer.Ok().
    void Write(Ostra::CByteWriter& writer) const {
        if (unsigned char* place = writer.Reserve(Size())) {
            Store(place);
        }
    }
    // The same without a check: `place` has room for Size() bytes.
    void Store(unsigned char* place) const {
        if (body_len >= FIXED_SIZE) {
            // All of it in one move of known size; what is too much is overwritten by what follows in this packet.
            std::memcpy(place, fixed, FIXED_SIZE);
        } else {
            std::memcpy(place, fixed, fixed_len);
        }
        place += fixed_len;
        for (uint32_t i = 0; i < iov_count; ++i) {
            std::memcpy(place, iov[i].data, iov[i].len);
            place += iov[i].len;
        }
        if (body_len > 0) {
            std::memcpy(place, body, body_len);
        }
    }
};

// CRtpPacketList: nodes in a row that are filled from the front, again for each frame. Their memory grows by doubling
// and is kept, so that a steady stream allocates nothing. One thread at a time.
class CRtpPacketList {
public:
    static constexpr uint32_t FIRST_NODES = 16;

    CRtpPacketList() = default;
    ~CRtpPacketList();
    CRtpPacketList(const CRtpPacketList&) = delete;
    CRtpPacketList& operator=(const CRtpPacketList&) = delete;

    // The next free node, emptied and now in use; null if memory is short. Pointers to other nodes end with it.
    RtpPacketNode* Append() {
        if (m_count == m_capacity && !grow()) {
            return nullptr;
        }
        RtpPacketNode* node = m_nodes + m_count++;
        node->Reset();
        return node;
    }
    // No node is in use any more.
    void Clear() { m_count = 0; }
    uint32_t Count() const { return m_count; }
    // The nodes in use, from the first to behind the last.
    RtpPacketNode* begin() const { return m_nodes; }
    RtpPacketNode* end() const { return m_nodes + m_count; }

private:
    bool grow();

    RtpPacketNode* m_nodes = nullptr;
    uint32_t m_count = 0;
    uint32_t m_capacity = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPPACKETNODE_H
