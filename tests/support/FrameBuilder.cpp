#include "support/FrameBuilder.h"

#include <ctime>

#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Support {

namespace {

const size_t HEADER_SIZE = 24;
const size_t TRAILER_SIZE = 8;

uint8_t type_byte(int letter) {
    return letter == 'I' ? 0xFD : letter == 'P' ? 0xFC : letter == 'A' ? 0xF0 : 0xF1;
}

// Encoding and frame rate (25), and the picture's size in units of 8 pixels (48 high); or encoding and 8000 Hz.
std::string extensions(const FrameSpec& fields) {
    const char code = static_cast<char>(fields.encode_code);
    if (fields.type == 'I') {
        return std::string({'\x81', 0, code, 25, '\x80', 0, static_cast<char>(fields.width / 8), 48 / 8});
    }
    return fields.type == 'A' ? std::string({'\x83', 1, code, 2}) : std::string();
}

uint32_t packed_time(double utc) {
    const time_t seconds = static_cast<time_t>(utc);
    tm fields = {};
    gmtime_r(&seconds, &fields);
    return static_cast<uint32_t>((fields.tm_year - 100) << 26 | (fields.tm_mon + 1) << 22 | fields.tm_mday << 17 |
                                 fields.tm_hour << 12 | fields.tm_min << 6 | fields.tm_sec);
}

}  // namespace

Flumen::CMediaFrame BuildFrame(const FrameSpec& fields) {
    const std::string ext = extensions(fields);
    const size_t total = HEADER_SIZE + ext.size() + fields.payload.size() + TRAILER_SIZE;
    Flumen::CMediaFrame frame(static_cast<unsigned int>(total));
    Ostra::CByteWriter writer(frame.getBuffer(), total);
    writer.WriteBytes("KXAV", 4);
    writer.WriteU8(type_byte(fields.type));
    writer.Fill(0, 3);
    writer.WriteU32Le(fields.sequence);
    writer.WriteU32Le(static_cast<uint32_t>(total));
    writer.WriteU32Le(packed_time(fields.utc));
    writer.WriteU16Le(static_cast<uint16_t>(fields.pts_ms));
    writer.WriteU8(static_cast<uint8_t>(ext.size()));
    uint8_t sum = 0;
    for (size_t i = 0; i < HEADER_SIZE - 1; ++i) {
        sum = static_cast<uint8_t>(sum + frame.getBuffer()[i]);
    }
    writer.WriteU8(sum);
    writer.WriteBytes(ext.data(), ext.size());
    writer.WriteBytes(fields.payload.data(), fields.payload.size());
    writer.WriteBytes("kxav", 4);
    writer.WriteU32Le(static_cast<uint32_t>(total));

    frame.setType(fields.type);
    frame.setSequence(static_cast<int>(fields.sequence));
    frame.setPts(fields.pts_ms, Flumen::PTS_TYPE_MS);
    frame.setUtc(fields.utc);
    frame.setNewFormat(fields.new_format);
    return frame;
}

std::string H264ParameterSets() {
    // 64 x 48, baseline.
    static const unsigned char bytes[] = {0,    0,    0,    1, 0x67, 0x42, 0xC0, 0x0A, 0xDA, 0x44, 0x36, 0xC0,
                                          0x44, 0,    0,    3, 0,    4,    0,    0,    3,    0,    0xCA, 0x3C,
                                          0x48, 0x99, 0x20, 0, 0,    0,    1,    0x68, 0xCE, 0x0F, 0xC8};
    return std::string(reinterpret_cast<const char*>(bytes), sizeof(bytes));
}

std::string H264Picture(bool key, unsigned int size, uint8_t fill) {
    std::string picture = key ? H264ParameterSets() : std::string();
    picture.append("\0\0\0\1", 4);
    picture.push_back(static_cast<char>(key ? 0x65 : 0x41));
    picture.push_back(static_cast<char>(key ? 0x88 : 0x9A));  // first_mb_in_slice 0
    picture.append(size, static_cast<char>(fill == 0 ? 1 : fill));
    return picture;
}

}  // namespace Support
}  // namespace Kavio
