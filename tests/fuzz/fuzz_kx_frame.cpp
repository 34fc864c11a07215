// The functions that look into private frames, with arbitrary bytes; and a frame written around them is read back.
#include <algorithm>

#include "FuzzSupport.h"
#include "Vidora/KXFrame.h"

using namespace Kavio;
using namespace Kavio::Vidora;

namespace {

void check_readers(const uint8_t* data, size_t size) {
    const int len = static_cast<int>(size);
    int remaining = -1;
    const int offset = get_frame_body(data, len, remaining);
    Fuzz::Require(offset >= 0 && remaining >= 0 && offset <= len && remaining <= len - offset);
    KXHeader header;
    const bool whole = kx_read_header(data, size, header);
    const int type = get_assist_type(data, len);
    Fuzz::Require(type == (whole && header.frame_type == KX_TYPE_ASSIST ? header.sub_type : -1));
    const int code = parser_video_info(data, len);
    Fuzz::Require(code == -1 || (size >= 28 && !whole && code == data[26]));
    if (whole) {
        kx_unpack_date_time(header.date_time);
        Fuzz::Bytes copy(data, data + size);
        Fuzz::Require(kx_patch_time_stamp(copy.data(), size, 0x1234) && copy[23] == kx_header_checksum(copy.data()));
    }
}

// Writes a frame of type and size from the first bytes and with the rest as its payload.
void check_writer(const uint8_t* data, size_t size) {
    constexpr char LETTERS[] = {'I', 'P', 'B', 'J', 'A', 'W', 'x'};
    Ostra::CByteReader reader(data, size);
    CKXFrame frame;
    frame.SetFrameType(LETTERS[reader.ReadU8() % sizeof(LETTERS)]);
    frame.SetSequence(reader.ReadU32());
    frame.SetTimeStamp(reader.ReadU16());
    const uint16_t width = reader.ReadU16();
    frame.SetImageSize(width, reader.ReadU16());
    if (!reader.Ok()) {
        return;
    }
    const Fuzz::Bytes payload(reader.Rest(), reader.Rest() + reader.Remaining());
    uint32_t offset = 0;
    const uint32_t total = frame.GetFrameSize(static_cast<uint32_t>(payload.size()), offset);
    Fuzz::Bytes out(total);
    std::copy(payload.begin(), payload.end(), out.begin() + offset);
    Fuzz::Require(frame.WriteFrame(out.data(), total) == 0);
    int remaining = 0;
    Fuzz::Require(get_frame_body(out.data(), static_cast<int>(total), remaining) == static_cast<int>(offset));
    Fuzz::Require(remaining == static_cast<int>(payload.size()));
    Fuzz::Require(std::equal(payload.begin(), payload.end(), out.begin() + offset));
    KXHeader header;
    Fuzz::Require(kx_read_header(out.data(), total, header) && header.total_length == total &&
                  header.sequence == frame.GetSequence() && header.checksum == kx_header_checksum(out.data()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    check_readers(data, size);
    check_writer(data, size);
    return 0;
}
