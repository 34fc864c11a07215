#ifndef VIDORA_OSTRA_BYTEREADER_H
#define VIDORA_OSTRA_BYTEREADER_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Kavio {
namespace Ostra {

// CByteReader: bounded reading of a byte string that it doesn't own.
//
// Failure is sticky: the first read that lacks bytes fails, moves nothing, and every later one fails as well and
// returns 0 or null. So a parser reads from top to bottom like its format's diagram and asks Ok() once. Network order
// unless the name says Le (little-endian).
class CByteReader {
public:
    CByteReader(const void* data, size_t size)
        : m_data(static_cast<const uint8_t*>(data)), m_size(data == nullptr ? 0 : size) {}

    bool Ok() const { return m_ok; }
    size_t Offset() const { return m_offset; }
    size_t Remaining() const { return m_size - m_offset; }
    size_t Size() const { return m_size; }

    uint8_t ReadU8() {
        return read<1>([](const uint8_t* p) { return p[0]; });
    }
    uint16_t ReadU16() {
        return read<2>([](const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); });
    }
    uint32_t ReadU24() {
        return read<3>([](const uint8_t* p) { return uint32_t{p[0]} << 16 | uint32_t{p[1]} << 8 | uint32_t{p[2]}; });
    }
    uint32_t ReadU32() { return read<4>(be32); }
    uint64_t ReadU64() {
        return read<8>([](const uint8_t* p) { return uint64_t{be32(p)} << 32 | be32(p + 4); });
    }
    uint16_t ReadU16Le() {
        return read<2>([](const uint8_t* p) { return static_cast<uint16_t>(p[1] << 8 | p[0]); });
    }
    uint32_t ReadU32Le() { return read<4>(le32); }
    uint64_t ReadU64Le() {
        return read<8>([](const uint8_t* p) { return uint64_t{le32(p + 4)} << 32 | le32(p); });
    }

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

    // Compilers make one load of each of these.
    static uint32_t be32(const uint8_t* p) {
        return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | uint32_t{p[3]};
    }
    static uint32_t le32(const uint8_t* p) {
        return uint32_t{p[3]} << 24 | uint32_t{p[2]} << 16 | uint32_t{p[1]} << 8 | uint32_t{p[0]};
    }

    // The number that `load` makes of the next LENGTH bytes, or 0 if they aren't there.
    template <size_t LENGTH, typename Load>
    auto read(Load load) -> decltype(load(nullptr)) {
        return take(LENGTH) ? load(m_data + m_offset - LENGTH) : decltype(load(nullptr)){0};
    }

    const uint8_t* m_data;
    size_t m_size;
    size_t m_offset = 0;
    bool m_ok = true;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_BYTEREADER_H
