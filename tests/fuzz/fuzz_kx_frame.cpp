// The functions that look into private frames, with arbitrary bytes; and a frame written around them is read back.
#include "FuzzSupport.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using Fuzz::Require;

namespace {

void check_readers(const uint8_t* data, size_t size) {
    const int len = static_cast<int>(size);
    int remaining = -1;
    const int offset = get_frame_body(data, len, remaining);
    Require(offset >= 0 && remaining >= 0 && offset <= len && remaining <= len - offset);
    KXHeader header;
    const bool whole = kx_read_header(data, size, header);
    const int type = get_assist_type(data, len);
    Require(type == (whole && header.frame_type == KX_TYPE_ASSIST ? header.sub_type : -1));
    const int code = parser_video_info(data, len);
    Require(code == -1 || (size >= 28 && !whole && code == data[26]));
    Fuzz::Bytes copy(data, data + size);
    Require(!whole || (kx_patch_time_stamp(copy.data(), size, 0x1234) && copy[23] == kx_header_checksum(copy.data())));
}

// Writes a frame of type and size from the first bytes and with the rest as its payload.
void check_writer(const uint8_t* data, size_t size) {
    constexpr char LETTERS[] = {'I', 'P', 'B', 'J', 'A', 'W', 'x'};
    Ostra::CByteReader reader(data, size);
    CKXFrame writer;
    writer.SetFrameType(LETTERS[reader.ReadU8() % sizeof(LETTERS)]);
    writer.SetSequence(reader.ReadU32());
    writer.SetTimeStamp(reader.ReadU16());
    const uint16_t width = reader.ReadU16();
    writer.SetImageSize(width, reader.ReadU16());
    const Fuzz::Bytes payload(reader.Rest(), reader.Rest() + reader.Remaining());
    uint32_t offset = 0;
    Fuzz::Bytes out(writer.GetFrameSize(static_cast<uint32_t>(payload.size()), offset));
    std::copy(payload.begin(), payload.end(), out.begin() + offset);
    Require(writer.WriteFrame(out.data(), static_cast<uint32_t>(out.size())) == 0);
    int remaining = 0;
    Require(get_frame_body(out.data(), static_cast<int>(out.size()), remaining) == static_cast<int>(offset));
    Require(Support::Part(out, offset, static_cast<size_t>(remaining)) == payload);
    Require(Fuzz::HeaderFits(Fuzz::MakeFrame(out)));
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    check_readers(data, size);
    check_writer(data, size);
}
