#include "Vidora/Mpeg4Parser.h"

#include "Vidora/Ostra/BitReader.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

using Ostra::CBitReader;

namespace {

constexpr uint32_t EXTENDED_ASPECT = 15;
constexpr uint32_t SHAPE_RECTANGULAR = 0;

// vol_control_parameters (6.2.3): the decoder model's buffer figures.
void skip_control_parameters(CBitReader& reader) {
    reader.SkipBits(3);  // chroma_format, low_delay
    if (reader.ReadFlag()) {
        reader.SkipBits(79);  // vbv: bit rate, buffer size and occupancy in halves, with their marker bits
    }
}

// Bits of a number that runs from 0 to `resolution` - 1, at least one.
unsigned time_bits(uint32_t resolution) {
    unsigned bits = 1;
    while (bits < 16 && (1U << bits) < resolution) {
        ++bits;
    }
    return bits;
}

bool read_vol(CBitReader& reader, Mpeg4Vol& vol) {
    reader.SkipBits(1 + 8);  // random_accessible_vol, video_object_type_indication
    if (reader.ReadFlag()) {
        reader.SkipBits(4 + 3);  // verid, priority
    }
    if (reader.ReadBits(4) == EXTENDED_ASPECT) {
        reader.SkipBits(16);
    }
    if (reader.ReadFlag()) {
        skip_control_parameters(reader);
    }
    if (reader.ReadBits(2) != SHAPE_RECTANGULAR) {
        return false;  // a video object of another shape isn't a camera's picture
    }
    reader.SkipBits(1);
    vol.time_increment_resolution = reader.ReadBits(16);
    reader.SkipBits(1);
    if (reader.ReadFlag()) {  // fixed_vop_rate
        reader.SkipBits(time_bits(vol.time_increment_resolution));
    }
    reader.SkipBits(1);
    vol.width = reader.ReadBits(13);
    reader.SkipBits(1);
    vol.height = reader.ReadBits(13);
    reader.SkipBits(1);
    vol.interlaced = reader.ReadFlag();
    return reader.Ok() && vol.width > 0 && vol.height > 0;
}

}  // namespace

bool mpeg4_parse_vol(const unsigned char* data, size_t len, Mpeg4Vol& vol) {
    for (size_t at = find_start_code3(data, len); at != NO_START_CODE; at = find_start_code3(data, len, at + 3)) {
        if (len - at < 4 || data[at + 3] < MPEG4_VOL_FIRST || data[at + 3] > MPEG4_VOL_LAST) {
            continue;
        }
        CBitReader reader(data + at + 4, len - at - 4);
        Mpeg4Vol read;
        if (!read_vol(reader, read)) {
            return false;
        }
        vol = read;
        return true;
    }
    return false;
}

}  // namespace Vidora
}  // namespace Kavio
