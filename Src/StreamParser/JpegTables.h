#ifndef VIDORA_STREAMPARSER_JPEGTABLES_H
#define VIDORA_STREAMPARSER_JPEGTABLES_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Vidora {

constexpr size_t JPEG_TABLE_LEN = 64;
constexpr size_t JPEG_HUFFMAN_LEN = 432;

constexpr uint16_t JPEG_MARKER = 0xFF00;  // with one of these in the low byte

// Markers, behind a byte 0xFF (ISO 10918-1 table B.1).
enum jpeg_marker_t {
    JPEG_SOF0 = 0xC0,
    JPEG_DHT = 0xC4,
    JPEG_RST0 = 0xD0,
    JPEG_RST7 = 0xD7,
    JPEG_SOI = 0xD8,
    JPEG_EOI = 0xD9,
    JPEG_SOS = 0xDA,
    JPEG_DQT = 0xDB,
    JPEG_DRI = 0xDD,
    JPEG_TEM = 0x01
};

// Quantisation tables of ISO 10918-1 annex K.1 and K.2, in zigzag order, as DQT segments and RFC 2435 carry them.
extern const uint8_t JPEG_LUMA_QUANTISER[JPEG_TABLE_LEN];
extern const uint8_t JPEG_CHROMA_QUANTISER[JPEG_TABLE_LEN];

// The four Huffman tables of ISO 10918-1 annex K.3 as whole DHT segments: luminance DC and AC, chrominance DC and AC.
extern const uint8_t JPEG_HUFFMAN_SEGMENTS[JPEG_HUFFMAN_LEN];

// Makes both quantisation tables for a Q of RFC 2435 4.2; Q is clamped to 1 to 99.
void jpeg_make_quantisers(int q, uint8_t luma[JPEG_TABLE_LEN], uint8_t chroma[JPEG_TABLE_LEN]);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_JPEGTABLES_H
