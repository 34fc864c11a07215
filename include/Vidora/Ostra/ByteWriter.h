#ifndef VIDORA_OSTRA_BYTEWRITER_H
#define VIDORA_OSTRA_BYTEWRITER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kavio {
namespace Ostra {

// CByteWriter: bounded writing into a buffer that it doesn't own.
//
// Failure is sticky, as in CByteReader: a write that doesn't fit writes nothing and makes all later ones fail. Made
// with a null buffer it only counts, so that a size and its bytes come from one piece of code. Network order unless the
// name says Le.
class CByteWriter {
public:
    CByteWriter(void* data, size_t capacity)
        : m_data(static_cast<uint8_t*>(data)), m_capacity(data == nullptr ? SIZE_MAX : capacity) {}

    bool Ok() const { return m_ok; }
    // Bytes written so far.
    size_t Offset() const { return m_offset; }
    size_t Remaining() const { return m_capacity - m_offset; }
    uint8_t* Data() const { return m_data; }

    bool WriteU8(uint8_t value) { return write_be(value, 1); }
    bool WriteU16(uint16_t value) { return write_be(value, 2); }
    bool WriteU24(uint32_t value) { return write_be(value, 3); }
    bool WriteU32(uint32_t value) { return write_be(value, 4); }
    bool WriteU64(uint64_t value) {
        uint8_t* place = Reserve(8);
        if (place != nullptr) {
            store_be64(place, value);
        }
        return m_ok;
    }
    bool WriteU16Le(uint16_t value) { return write_le(value, 2); }
    bool WriteU32Le(uint32_t value) { return write_le(value, 4); }
    bool WriteU64Le(uint64_t value) { return write_le(value, 8); }

    bool WriteBytes(const void* bytes, size_t length) {
        uint8_t* place = Reserve(length);
        if (place != nullptr && length > 0) {
            std::memcpy(place, bytes, length);
        }
        return m_ok;
    }

    bool Fill(uint8_t value, size_t length) {
        uint8_t* place = Reserve(length);
        if (place != nullptr && length > 0) {
            std::memset(place, value, length);
        }
        return m_ok;
    }

    // Steps over `length` bytes to be filled later, and returns their place; null if they don't fit or when only
    // counting.
    uint8_t* Reserve(size_t length) {
        if (!m_ok || length > Remaining()) {
            m_ok = false;
            return nullptr;
        }
        uint8_t* place = m_data == nullptr ? nullptr : m_data + m_offset;
        m_offset += length;
        return place;
    }

    // Patches a value at an offset that has been written already.
    void PatchU8(size_t offset, uint8_t value) { patch(offset, value, 1); }
    void PatchU16(size_t offset, uint16_t value) { patch(offset, value, 2); }
    void PatchU32(size_t offset, uint32_t value) { patch(offset, value, 4); }

private:
    bool write_be(uint64_t value, size_t length) {
        uint8_t* place = Reserve(length);
        if (place != nullptr) {
            store_be(place, value, length);
        }
        return m_ok;
    }

    bool write_le(uint64_t value, size_t length) {
        uint8_t* place = Reserve(length);
        if (place != nullptr) {
            for (size_t i = 0; i < length; ++i) {
                place[i] = static_cast<uint8_t>(value >> (8 * i));
            }
        }
        return m_ok;
    }

    void patch(size_t offset, uint64_t value, size_t length) {
        if (!m_ok || offset > m_offset || length > m_offset - offset) {
            m_ok = false;
        } else if (m_data != nullptr) {
            store_be(m_data + offset, value, length);
        }
    }

    static void store_be(uint8_t* place, uint64_t value, size_t length) {
        for (size_t i = 0; i < length; ++i) {
            place[i] = static_cast<uint8_t>(value >> (8 * (length - 1 - i)));
        }
    }

    // Without a loop, which compilers don't unroll for eight bytes: so they make one store of it.
    static void store_be64(uint8_t* place, uint64_t value) {
        place[0] = static_cast<uint8_t>(value >> 56);
        place[1] = static_cast<uint8_t>(value >> 48);
        place[2] = static_cast<uint8_t>(value >> 40);
        place[3] = static_cast<uint8_t>(value >> 32);
        place[4] = static_cast<uint8_t>(value >> 24);
        place[5] = static_cast<uint8_t>(value >> 16);
        place[6] = static_cast<uint8_t>(value >> 8);
        place[7] = static_cast<uint8_t>(value);
    }

    uint8_t* m_data;
    size_t m_capacity;
    size_t m_offset = 0;
    bool m_ok = true;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_BYTEWRITER_H
