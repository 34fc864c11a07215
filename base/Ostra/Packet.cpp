#include "Vidora/Ostra/Packet.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

namespace Kavio {
namespace Ostra {
namespace Memory {

// One piece of memory: this header, the extra area, the data area; both areas aligned for any type.
struct alignas(std::max_align_t) CPacket::Block {
    std::atomic<uint32_t> ref{1};
    unsigned int size = 0;
    unsigned int capacity = 0;
    unsigned int extra_size = 0;

    unsigned char* extra() { return reinterpret_cast<unsigned char*>(this + 1); }
    unsigned char* data() { return extra() + aligned(extra_size); }

    static size_t aligned(size_t size) {
        const size_t unit = alignof(std::max_align_t);
        return (size + unit - 1) / unit * unit;
    }
};

CPacket::CPacket(unsigned int size, unsigned int extra_size) {
    if (size == 0) {
        return;
    }
    void* memory = ::operator new(sizeof(Block) + Block::aligned(extra_size) + size, std::nothrow);
    if (memory == nullptr) {
        return;
    }
    m_block = new (memory) Block;
    m_block->size = size;
    m_block->capacity = size;
    m_block->extra_size = extra_size;
    std::memset(m_block->extra(), 0, extra_size);
}

CPacket::CPacket(const CPacket& other) : m_block(other.m_block) {
    if (m_block != nullptr) {
        m_block->ref.fetch_add(1, std::memory_order_relaxed);
    }
}

CPacket& CPacket::operator=(const CPacket& other) {
    CPacket copy(other);
    return *this = static_cast<CPacket&&>(copy);
}

CPacket& CPacket::operator=(CPacket&& other) noexcept {
    Block* block = other.m_block;
    other.m_block = nullptr;
    release();
    m_block = block;
    return *this;
}

unsigned char* CPacket::getBuffer() const {
    return m_block != nullptr ? m_block->data() : nullptr;
}

unsigned int CPacket::size() const {
    return m_block != nullptr ? m_block->size : 0;
}

unsigned int CPacket::capacity() const {
    return m_block != nullptr ? m_block->capacity : 0;
}

bool CPacket::resize(unsigned int size) {
    if (m_block == nullptr || size > m_block->capacity) {
        return false;
    }
    m_block->size = size;
    return true;
}

unsigned int CPacket::putBuffer(const void* data, unsigned int length) {
    if (m_block == nullptr || data == nullptr) {
        return 0;
    }
    const unsigned int room = m_block->capacity - m_block->size;
    const unsigned int taken = length < room ? length : room;
    std::memcpy(m_block->data() + m_block->size, data, taken);
    m_block->size += taken;
    return taken;
}

void* CPacket::getExtraData() const {
    return m_block != nullptr && m_block->extra_size > 0 ? m_block->extra() : nullptr;
}

unsigned int CPacket::getExtraSize() const {
    return m_block != nullptr ? m_block->extra_size : 0;
}

void CPacket::release() {
    // Acquire-release: the last holder frees only after every other holder's reads and writes.
    if (m_block != nullptr && m_block->ref.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        m_block->~Block();
        ::operator delete(m_block);
    }
    m_block = nullptr;
}

}  // namespace Memory
}  // namespace Ostra
}  // namespace Kavio
