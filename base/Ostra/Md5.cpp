#include "Vidora/Ostra/Md5.h"

#include <algorithm>
#include <cstring>

#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Ostra {
namespace Utils {

namespace {

const size_t BLOCK_SIZE = 64;
const size_t DIGEST_SIZE = 16;

// RFC 1321 3.4: the shifts of the four rounds, and floor(2^32 * abs(sin(i + 1))).
const unsigned SHIFTS[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};
const uint32_t SINES[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

uint32_t rotate(uint32_t value, unsigned count) {
    return value << count | value >> (32 - count);
}

}  // namespace

void CMd5::init() {
    m_state[0] = 0x67452301;
    m_state[1] = 0xefcdab89;
    m_state[2] = 0x98badcfe;
    m_state[3] = 0x10325476;
    m_length = 0;
    std::memset(m_block, 0, sizeof(m_block));
}

void CMd5::update(const unsigned char* data, unsigned int length) {
    CByteReader reader(data, length);
    while (reader.Remaining() > 0) {
        const size_t filled = static_cast<size_t>(m_length % BLOCK_SIZE);
        const size_t taken = std::min(BLOCK_SIZE - filled, reader.Remaining());
        reader.Read(m_block + filled, taken);
        m_length += taken;
        if (filled + taken == BLOCK_SIZE) {
            transform(m_block);
        }
    }
}

void CMd5::transform(const unsigned char* block) {
    uint32_t words[16];
    CByteReader reader(block, BLOCK_SIZE);
    for (uint32_t& word : words) {
        word = reader.ReadU32Le();
    }
    uint32_t a = m_state[0];
    uint32_t b = m_state[1];
    uint32_t c = m_state[2];
    uint32_t d = m_state[3];
    for (unsigned i = 0; i < 64; ++i) {
        uint32_t mixed = 0;
        unsigned index = 0;
        switch (i / 16) {
            case 0:
                mixed = (b & c) | (~b & d);
                index = i;
                break;
            case 1:
                mixed = (b & d) | (c & ~d);
                index = 5 * i + 1;
                break;
            case 2:
                mixed = b ^ c ^ d;
                index = 3 * i + 5;
                break;
            default:
                mixed = c ^ (b | ~d);
                index = 7 * i;
                break;
        }
        const uint32_t turned = rotate(a + mixed + SINES[i] + words[index % 16], SHIFTS[i / 16][i % 4]);
        a = d;
        d = c;
        c = b;
        b += turned;
    }
    m_state[0] += a;
    m_state[1] += b;
    m_state[2] += c;
    m_state[3] += d;
}

void CMd5::digest(unsigned char* out) {
    // RFC 1321 3.1 and 3.2: a 1 bit, zeros up to 8 bytes below a whole block, the length in bits.
    unsigned char tail[BLOCK_SIZE + 8] = {0x80};
    const uint64_t bit_count = m_length * 8;
    const size_t filled = static_cast<size_t>(m_length % BLOCK_SIZE);
    const size_t padding = (filled < BLOCK_SIZE - 8 ? BLOCK_SIZE - 8 : 2 * BLOCK_SIZE - 8) - filled;
    CByteWriter writer(tail, sizeof(tail));
    writer.Reserve(padding);
    writer.WriteU64Le(bit_count);
    update(tail, static_cast<unsigned int>(writer.Offset()));

    CByteWriter result(out, DIGEST_SIZE);
    for (const uint32_t word : m_state) {
        result.WriteU32Le(word);
    }
}

void CMd5::hex(char* out) {
    const char digits[] = "0123456789abcdef";
    unsigned char bytes[DIGEST_SIZE];
    digest(bytes);
    for (const unsigned char byte : bytes) {
        *out++ = digits[byte >> 4];
        *out++ = digits[byte & 15];
    }
    *out = '\0';
}

}  // namespace Utils
}  // namespace Ostra
}  // namespace Kavio
