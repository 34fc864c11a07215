#ifndef VIDORA_JPEGPARSER_H
#define VIDORA_JPEGPARSER_H

#include <cstddef>
#include <cstdint>

#include "Vidora/Export.h"

namespace Kavio {
namespace Vidora {

// What of a baseline JPEG image travels in RTP (RFC 2435). Pointers lie inside the image.
struct JpegImage {
    uint16_t width = 0;
    uint16_t height = 0;
    uint16_t restart_interval = 0;
    bool is_420 = false;           // baseline, 8 bits, 4:2:0: what type 1 of RFC 2435 stands for
    bool standard_huffman = true;  // its tables are those of ISO 10918-1 K.3, the only ones that RFC 2435 knows
    const unsigned char* luma_table = nullptr;    // 64 bytes, zigzag order
    const unsigned char* chroma_table = nullptr;  // the same table if the image has only one
    const unsigned char* scan = nullptr;          // entropy-coded data, and all that follows it
    uint32_t scan_len = 0;
};

// Reads the marker segments of a JFIF image up to the end of SOS. False if a marker or a segment is missing, lies about
// its length, or the image has no quantisation table or scan.
VIDORA_API bool jpeg_parse(const unsigned char* data, size_t len, JpegImage& image);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_JPEGPARSER_H
