#include "Vidora/JpegParser.h"

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

// SOF0: precision, height, width, components.
void read_frame_header(CByteReader& segment, JpegImage& image) {
    segment.Skip(1);
    image.height = segment.ReadU16();
    image.width = segment.ReadU16();
}

// Reads one segment; `segment` stands behind the length. False if it lies about its contents.
bool read_segment(uint8_t marker, CByteReader segment, JpegImage& image) {
    switch (marker) {
        case JPEG_SOF0:
            read_frame_header(segment, image);
            break;
        case JPEG_DQT:
            read_tables(segment, image);
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
