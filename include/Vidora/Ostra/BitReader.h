#ifndef VIDORA_OSTRA_BITREADER_H
#define VIDORA_OSTRA_BITREADER_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Ostra {

// CBitReader: bounded reading of bits, the most significant first. Failure is sticky and reads as 0, as in CByteReader.
class CBitReader {
public:
    CBitReader(const void* data, size_t size)
        : m_data(static_cast<const uint8_t*>(data)), m_bits(data == nullptr ? 0 : uint64_t{size} * 8) {}

    bool Ok() const { return m_ok; }
    uint64_t BitOffset() const { return m_offset; }
    uint64_t BitsLeft() const { return m_bits - m_offset; }

    // `count` bits, 0 to 32.
    uint32_t ReadBits(unsigned count) {
        if (!m_ok || count > 32 || count > BitsLeft()) {
            m_ok = false;
            return 0;
        }
        uint64_t value = 0;
        while (count > 0) {
            const unsigned in_byte = static_cast<unsigned>(m_offset & 7);
            const unsigned take = count < 8 - in_byte ? count : 8 - in_byte;
            const unsigned byte = m_data[m_offset >> 3];
            value = (value << take) | ((byte >> (8 - in_byte - take)) & ((1U << take) - 1));
            m_offset += take;
            count -= take;
        }
        return static_cast<uint32_t>(value);
    }

    bool ReadFlag() { return ReadBits(1) != 0; }

    bool SkipBits(uint64_t count) {
        if (!m_ok || count > BitsLeft()) {
            m_ok = false;
            return false;
        }
        m_offset += count;
        return true;
    }

    // Exp-Golomb codes ue(v) and se(v) of ISO 14496-10 9.1; a code of more than 31 leading zero bits is a failure.
    uint32_t ReadUe() {
        unsigned zeros = 0;
        while (m_ok && !ReadFlag()) {
            if (++zeros > 31) {
                m_ok = false;
            }
        }
        if (!m_ok) {
            return 0;
        }
        const uint32_t suffix = ReadBits(zeros);
        return m_ok ? ((1U << zeros) - 1) + suffix : 0;
    }

    int32_t ReadSe() {
        const uint32_t code = ReadUe();
        const int32_t magnitude = static_cast<int32_t>((code >> 1) + (code & 1));
        return (code & 1) != 0 ? magnitude : -magnitude;
    }

private:
    const uint8_t* m_data;
    uint64_t m_bits;
    uint64_t m_offset = 0;
    bool m_ok = true;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_BITREADER_H
