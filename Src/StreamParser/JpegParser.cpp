#include "Vidora/JpegParser.h"

#include <cstring>

#include "StreamParser/JpegTables.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

using Ostra::CByteReader;

namespace {

bool is_standalone(uint8_t marker) {
    return marker == JPEG_SOI || marker == JPEG_EOI || marker == JPEG_TEM ||
           (marker >= JPEG_RST0 && marker <= JPEG_RST7);
}

// The marker at the cursor, past fill bytes (ISO 10918-1 B.1.1.2); 0 if there is none.
uint8_t read_marker(CByteReader& reader) {
    if (reader.ReadU8() != 0xFF) {
        return 0;
    }
    uint8_t marker = reader.ReadU8();
    while (marker == 0xFF) {
        marker = reader.ReadU8();
    }
    return marker;
}

// Table DQT: a segment with room for it holds both tables, in the order that encoders of 4:2:0 pictures write; the
// shorter one holds one, whose destination is the byte after the length.
void read_tables(CByteReader& segment, JpegImage& image) {
    constexpr size_t ONE_TABLE = 1 + JPEG_TABLE_LEN;
    const bool both = segment.Remaining() > ONE_TABLE;
    const uint8_t destination = segment.ReadU8();
    const unsigned char* table = segment.ReadBytes(JPEG_TABLE_LEN);
    if (!both) {
        (destination != 0 ? image.chroma_table : image.luma_table) = table;
        return;
    }
    segment.Skip(1);
    image.luma_table = table;
    image.chroma_table = segment.ReadBytes(JPEG_TABLE_LEN);
}

// SOF0: precision, height, width, components, each with its sampling factors and the number of its table.
void read_frame_header(CByteReader& segment, JpegImage& image) {
    const uint8_t precision = segment.ReadU8();
    image.height = segment.ReadU16();
    image.width = segment.ReadU16();
    static constexpr uint8_t FACTORS[] = {0x22, 0x11, 0x11};
    image.is_420 = precision == 8 && segment.PeekU8(0) == sizeof(FACTORS);
    for (size_t i = 0; i < sizeof(FACTORS); ++i) {
        image.is_420 = image.is_420 && segment.PeekU8(2 + 3 * i) == FACTORS[i];
    }
}

// A Huffman table of a DHT segment: class and destination, 16 counts, as many values as they sum up to (B.2.4.2).
CByteReader read_huffman_table(CByteReader& segment) {
    size_t length = 17;
    for (size_t i = 1; i < 17; ++i) {
        length += segment.PeekU8(i);
    }
    return segment.SubReader(length);
}

bool is_standard_huffman(const CByteReader& table) {
    CByteReader standard(JPEG_HUFFMAN_SEGMENTS, JPEG_HUFFMAN_LEN);
    while (standard.Ok() && standard.Remaining() > 0) {
        standard.Skip(4);  // marker and length
        const CByteReader candidate = read_huffman_table(standard);
        if (candidate.Remaining() == table.Remaining() &&
            std::memcmp(candidate.Rest(), table.Rest(), table.Remaining()) == 0) {
            return true;
        }
    }
    return false;
}

// Tables that lie about their length aren't the standard's either; the image travels without them all the same.
void read_huffman_tables(CByteReader segment, JpegImage& image) {
    while (segment.Ok() && segment.Remaining() > 0) {
        image.standard_huffman = is_standard_huffman(read_huffman_table(segment)) && image.standard_huffman;
    }
}

// Reads one segment; `segment` is behind the length. False if it lies about its contents.
bool read_segment(uint8_t marker, CByteReader segment, JpegImage& image) {
    switch (marker) {
        case JPEG_SOF0:
            read_frame_header(segment, image);
            break;
        case JPEG_DQT:
            read_tables(segment, image);
            break;
        case JPEG_DHT:
            read_huffman_tables(segment, image);
            break;
        case JPEG_DRI:
            image.restart_interval = segment.ReadU16();
            break;
        default:
            break;
    }
    return segment.Ok();
}

}  // namespace

bool jpeg_parse(const unsigned char* data, size_t len, JpegImage& image) {
    image = JpegImage();
    if (len > UINT32_MAX) {
        return false;
    }
    CByteReader reader(data, len);
    for (;;) {
        const uint8_t marker = read_marker(reader);
        if (!reader.Ok() || marker == 0) {
            return false;
        }
        if (is_standalone(marker)) {
            continue;
        }
        const uint16_t length = reader.ReadU16();  // counts itself
        if (length < 2 || !read_segment(marker, reader.SubReader(length - 2U), image)) {
            return false;
        }
        if (marker == JPEG_SOS) {
            break;
        }
    }
    image.scan = reader.Rest();
    image.scan_len = static_cast<uint32_t>(reader.Remaining());
    if (image.luma_table == nullptr) {
        image.luma_table = image.chroma_table;
    }
    if (image.chroma_table == nullptr) {
        image.chroma_table = image.luma_table;
    }
    return image.luma_table != nullptr && image.scan_len > 0;
}

}  // namespace Vidora
}  // namespace Kavio
