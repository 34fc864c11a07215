#include "StreamParser/Mpeg2Parser.h"

#include "Vidora/Ostra/BitReader.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

using Ostra::CBitReader;

namespace {

// The bytes behind the first start code 00 00 01 `value`; null if there is none.
const unsigned char* find_header(const unsigned char* data, size_t len, unsigned char value, size_t& left) {
    for (size_t at = find_start_code3(data, len); at != NO_START_CODE; at = find_start_code3(data, len, at + 3)) {
        if (len - at >= 4 && data[at + 3] == value) {
            left = len - at - 4;
            return data + at + 4;
        }
    }
    left = 0;
    return nullptr;
}

}  // namespace

int mpeg2_frame_rate(int frame_rate_code) {
    // By code, from 0. Code 3 and those above 8 are 25.
    constexpr int RATES[] = {0, 24, 24, 25, 30, 30, 50, 60, 60};
    constexpr int COUNT = sizeof(RATES) / sizeof(RATES[0]);
    return frame_rate_code >= 0 && frame_rate_code < COUNT ? RATES[frame_rate_code] : 25;
}

bool mpeg2_parse_sequence(const unsigned char* data, size_t len, Mpeg2Sequence& sequence) {
    size_t left = 0;
    const unsigned char* header = find_header(data, len, MPEG2_SEQUENCE, left);
    CBitReader reader(header, left);
    Mpeg2Sequence read;
    read.width = reader.ReadBits(12);
    read.height = reader.ReadBits(12);
    read.aspect_code = static_cast<uint8_t>(reader.ReadBits(4));
    read.frame_rate_code = static_cast<uint8_t>(reader.ReadBits(4));
    if (!reader.Ok()) {
        return false;
    }
    read.frame_rate = mpeg2_frame_rate(read.frame_rate_code);
    sequence = read;
    return true;
}

int mpeg2_picture_type(const unsigned char* data, size_t len) {
    size_t left = 0;
    const unsigned char* header = find_header(data, len, MPEG2_PICTURE, left);
    CBitReader reader(header, left);
    reader.SkipBits(10);  // temporal_reference
    return static_cast<int>(reader.ReadBits(3));
}

}  // namespace Vidora
}  // namespace Kavio
