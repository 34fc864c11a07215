#ifndef VIDORA_OSTRA_BYTEREADER_H
#define VIDORA_OSTRA_BYTEREADER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kavio {
namespace Ostra {

// CByteReader: bounded reading of a byte string that it doesn't own.
//
// Failure is sticky: the first read that lacks bytes fails, moves nothing, and every later one fails as well and gives
// 0 or null. So a parser reads from top to bottom like its format's diagram and asks Ok() once. Network order unless
// the name says Le (little-endian).
class CByteReader {
public:
    CByteReader(const void* data, size_t size)
        : m_data(static_cast<const uint8_t*>(data)), m_size(data == nullptr ? 0 : size) {}

    bool Ok() const { return m_ok; }
    size_t Offset() const { return m_offset; }
    size_t Remaining() const { return m_size - m_offset; }
    size_t Size() const { return m_size; }

    uint8_t ReadU8() { return static_cast<uint8_t>(read_be(1)); }
    uint16_t ReadU16() { return static_cast<uint16_t>(read_be(2)); }
    uint32_t ReadU24() { return static_cast<uint32_t>(read_be(3)); }
    uint32_t ReadU32() { return static_cast<uint32_t>(read_be(4)); }
    uint64_t ReadU64() { return read_be(8); }
    uint16_t ReadU16Le() { return static_cast<uint16_t>(read_le(2)); }
    uint32_t ReadU32Le() { return static_cast<uint32_t>(read_le(4)); }
    uint64_t ReadU64Le() { return read_le(8); }

    // The byte `ahead` of the cursor, or 0 if there is none; neither moves nor fails.
    uint8_t PeekU8(size_t ahead = 0) const { return ahead < Remaining() ? m_data[m_offset + ahead] : 0; }

    // The next `length` bytes in place, or null.
    const uint8_t* ReadBytes(size_t length) {
        if (!take(length)) {
            return nullptr;
        }
        return m_data + m_offset - length;
    }

    // Copies the next `length` bytes out. False, with nothing written, if they aren't there.
    bool Read(void* out, size_t length) {
        const uint8_t* bytes = ReadBytes(length);
        if (m_ok && length > 0) {
            std::memcpy(out, bytes, length);
        }
        return m_ok;
    }

    bool Skip(size_t length) { return take(length); }

    // A reader of the next `length` bytes, which this one steps over; a failed, empty one if they aren't there.
    CByteReader SubReader(size_t length) {
        const uint8_t* bytes = ReadBytes(length);
        CByteReader sub(bytes, length);
        sub.m_ok = m_ok;
        return sub;
    }

    // The unread bytes.
    const uint8_t* Rest() const { return m_data == nullptr ? nullptr : m_data + m_offset; }

    // Moves to an absolute offset; fails if it is beyond the end.
    bool Seek(size_t offset) {
        if (!m_ok || offset > m_size) {
            m_ok = false;
            return false;
        }
        m_offset = offset;
        return true;
    }

private:
    bool take(size_t length) {
        if (!m_ok || length > Remaining()) {
            m_ok = false;
            return false;
        }
        m_offset += length;
        return true;
    }

    uint64_t read_be(size_t length) {
        if (!take(length)) {
            return 0;
        }
        uint64_t value = 0;
        for (const uint8_t* p = m_data + m_offset - length; length > 0; --length) {
            value = (value << 8) | *p++;
        }
        return value;
    }

    uint64_t read_le(size_t length) {
        if (!take(length)) {
            return 0;
        }
        uint64_t value = 0;
        const uint8_t* first = m_data + m_offset - length;
        for (; length > 0; --length) {
            value = (value << 8) | first[length - 1];
        }
        return value;
    }

    const uint8_t* m_data;
    size_t m_size;
    size_t m_offset = 0;
    bool m_ok = true;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_BYTEREADER_H
