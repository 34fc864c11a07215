#include "RawMemory.h"

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <new>

namespace Kavio {
namespace Vidora {

// What copies share: in one allocation with the data, or over the areas of a packet that was taken over.
struct alignas(std::max_align_t) RawCounter {
    std::atomic<int32_t> m_ref{1};
    unsigned char* m_data = nullptr;
    uint32_t m_capacity = 0;
    uint32_t m_size = 0;
    MediaFrameInfo* m_extra = nullptr;
    uint8_t m_extra_len = 0;
    Memory::CPacket m_packet;  // the packet image, empty until needed
    MediaFrameInfo m_info;

    // Null if memory is short.
    static RawCounter* Create(uint32_t data_size) {
        void* memory = ::operator new(sizeof(RawCounter) + data_size, std::nothrow);
        return memory != nullptr ? new (memory) RawCounter : nullptr;
    }
    // Whether the areas are those of m_packet, which then needs no copying.
    bool adopted() const { return m_data == m_packet.getBuffer(); }
};

CRawMemory::CRawMemory(uint32_t capacity) {
    m_counter = capacity > 0 ? RawCounter::Create(capacity) : nullptr;
    if (m_counter == nullptr) {
        return;
    }
    m_counter->m_data = reinterpret_cast<unsigned char*>(m_counter + 1);
    m_counter->m_capacity = capacity;
    m_counter->m_size = capacity;
    m_counter->m_extra = &m_counter->m_info;
    m_counter->m_extra_len = sizeof(MediaFrameInfo);
    m_counter->m_info.Init(capacity);
}

CRawMemory::CRawMemory(const CRawMemory& other) : CMediaPacket(), CFrameFacts(), m_counter(other.m_counter) {
    if (m_counter != nullptr) {
        m_counter->m_ref.fetch_add(1, std::memory_order_relaxed);
    }
}

CRawMemory::CRawMemory(const Memory::CPacket& packet) {
    m_counter = packet.valid() ? RawCounter::Create(0) : nullptr;
    if (m_counter == nullptr) {
        return;
    }
    m_counter->m_packet = packet;
    m_counter->m_data = packet.getBuffer();
    m_counter->m_capacity = packet.capacity();
    m_counter->m_size = packet.size();
    m_counter->m_extra = static_cast<MediaFrameInfo*>(packet.getExtraData());
    m_counter->m_extra_len = static_cast<uint8_t>(std::min(packet.getExtraSize(), 255U));
    static_cast<void>(OSTRA_ASSERT(m_counter->m_extra_len >= sizeof(MediaFrameInfo)));
}

CRawMemory& CRawMemory::operator=(const CRawMemory& other) {
    CRawMemory copy(other);
    std::swap(m_counter, copy.m_counter);
    m_need_packet = true;
    m_data_dirty = false;
    m_extra_dirty = false;
    return *this;
}

CRawMemory::~CRawMemory() {
    release();
}

void CRawMemory::release() {
    if (m_counter != nullptr && m_counter->m_ref.fetch_sub(1, std::memory_order_acq_rel) == 1) {
        m_counter->~RawCounter();
        ::operator delete(m_counter);
    }
    m_counter = nullptr;
}

Memory::CPacket* CRawMemory::getPacket() {
    if (m_counter == nullptr) {
        return nullptr;
    }
    Memory::CPacket& packet = m_counter->m_packet;
    if (m_counter->adopted()) {
        packet.resize(m_counter->m_size);
        return &packet;
    }
    if (m_need_packet) {
        packet = Memory::CPacket(m_counter->m_capacity, m_counter->m_extra_len);
        if (!packet.valid()) {
            return nullptr;
        }
        m_data_dirty = true;
        m_extra_dirty = true;
    }
    if (m_data_dirty) {
        packet.resize(0);
        packet.putBuffer(m_counter->m_data, m_counter->m_size);
        m_data_dirty = false;
    }
    if (m_extra_dirty) {
        const size_t length = std::min<size_t>(packet.getExtraSize(), m_counter->m_extra_len);
        if (packet.getExtraData() != nullptr && m_counter->m_extra != nullptr && length > 0) {
            std::memcpy(packet.getExtraData(), m_counter->m_extra, length);
        }
        m_extra_dirty = false;
    }
    m_need_packet = false;
    return &packet;
}

int CRawMemory::putBuffer(const void* data, uint32_t length) {
    if (m_counter == nullptr) {
        return -1;
    }
    const uint32_t taken = data != nullptr ? std::min(length, m_counter->m_capacity - m_counter->m_size) : 0;
    if (taken > 0) {
        std::memcpy(m_counter->m_data + m_counter->m_size, data, taken);
    }
    m_counter->m_size += taken;
    m_data_dirty = true;
    return static_cast<int>(taken);
}

unsigned char* CRawMemory::getBuffer() const {
    return m_counter != nullptr ? m_counter->m_data : nullptr;
}

int CRawMemory::resize(uint32_t size) {
    if (m_counter == nullptr) {
        return -1;
    }
    m_counter->m_size = std::min(size, m_counter->m_capacity);
    return 0;  // m_data_dirty stays as it is, on purpose: the packet image keeps the bytes that were put
}

uint32_t CRawMemory::size() const {
    return m_counter != nullptr ? m_counter->m_size : 0;
}

uint32_t CRawMemory::capacity() const {
    return m_counter != nullptr ? m_counter->m_capacity : 0;
}

const MediaFrameInfo* CRawMemory::facts() const {
    if (m_counter == nullptr || !OSTRA_ASSERT(m_counter->m_extra_len >= sizeof(MediaFrameInfo))) {
        return nullptr;
    }
    return m_counter->m_extra;
}

MediaFrameInfo* CRawMemory::changed_facts() {
    if (facts() == nullptr) {
        return nullptr;
    }
    m_extra_dirty = true;
    return m_counter->m_extra;
}

}  // namespace Vidora
}  // namespace Kavio
