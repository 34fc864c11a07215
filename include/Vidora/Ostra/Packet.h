#ifndef VIDORA_OSTRA_PACKET_H
#define VIDORA_OSTRA_PACKET_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {
namespace Memory {

// CPacket: a handle on a reference-counted block of bytes with a data area and an extra area.
//
// Copies share the block. The count is atomic, so that copies may be made and dropped on several threads; the bytes
// and the size belong to the block, have no lock, and are written by one thread before the block is shared.
class VIDORA_API CPacket {
public:
    // No block: invalid.
    CPacket() = default;
    // A block of `size` data bytes, uninitialised and counted as in use (resize(0) before appending), and `extra_size`
    // zeroed extra bytes. If memory is short, or `size` is 0, the packet is invalid.
    explicit CPacket(unsigned int size, unsigned int extra_size = 0);
    CPacket(const CPacket& other);
    CPacket(CPacket&& other) noexcept : m_block(other.m_block) { other.m_block = nullptr; }
    CPacket& operator=(const CPacket& other);
    CPacket& operator=(CPacket&& other) noexcept;
    ~CPacket() { release(); }

    bool valid() const { return m_block != nullptr; }

    // The data area, or null.
    unsigned char* getBuffer() const;
    // Bytes in use, and bytes that there are; 0 if invalid.
    unsigned int size() const;
    unsigned int capacity() const;

    // Sets the bytes in use. False, and no change, if invalid or `size` is above the capacity.
    bool resize(unsigned int size);

    // Appends at size() as many of the `length` bytes as fit, and returns their number; 0 if invalid.
    unsigned int putBuffer(const void* data, unsigned int length);

    // The extra area, or null if there is none.
    void* getExtraData() const;
    unsigned int getExtraSize() const;

private:
    struct VIDORA_LOCAL Block;
    void release();

    Block* m_block = nullptr;
};

}  // namespace Memory
}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_PACKET_H
