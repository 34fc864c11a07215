#include "StreamParser/RtpHeader.h"

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr unsigned int VERSION_SHIFT = 6;
constexpr unsigned int VERSION = 2;
constexpr uint8_t PADDING_BIT = 0x20;
constexpr uint8_t EXTENSION_BIT = 0x10;
constexpr uint8_t CSRC_COUNT_MASK = 0x0F;
constexpr uint8_t MARKER_BIT = 0x80;
constexpr size_t WORD_LEN = 4;
constexpr size_t PROFILE_LEN = 2;  // what an extension begins with

}  // namespace

//  0                   1                   2                   3
//  |V=2|P|X|  CC   |M|     PT      |       sequence number         |
//  |                           timestamp                           |
//  |                             SSRC                              |
//  |                     CSRC, CC words                            |
//  |       profile (X)             |        length in words        |
bool rtp_parse_header(const unsigned char* data, size_t len, RtpHeader& header) {
    CByteReader reader(data, len);
    CByteReader fixed(reader.ReadBytes(RTP_HEADER_LEN), RTP_HEADER_LEN);  // all of it is there, or nothing
    if (!reader.Ok()) {
        return false;
    }
    const uint8_t flags = fixed.ReadU8();
    const uint8_t type = fixed.ReadU8();
    header.sequence = fixed.ReadU16();
    header.timestamp = fixed.ReadU32();
    header.ssrc = fixed.ReadU32();
    header.payload = nullptr;
    header.payload_len = 0;
    header.marker = (type & MARKER_BIT) != 0;
    header.payload_type = type & RTP_PAYLOAD_TYPE_MASK;

    reader.Skip((flags & CSRC_COUNT_MASK) * WORD_LEN);
    if ((flags & EXTENSION_BIT) != 0) {
        reader.Skip(PROFILE_LEN);
        reader.Skip(reader.ReadU16() * WORD_LEN);
    }
    // The last byte of a padded packet counts the padding, itself included.
    const size_t padding = (flags & PADDING_BIT) != 0 ? reader.PeekU8(reader.Remaining() - 1) : 0;
    header.is_empty = reader.Ok() && reader.Remaining() == padding;
    if (reader.Ok() && reader.Remaining() > padding) {
        header.payload_len = static_cast<uint32_t>(reader.Remaining() - padding);
        header.payload = reader.ReadBytes(header.payload_len);
    }
    return true;
}

int rtp_peek_payload_type(const unsigned char* data, size_t len) {
    CByteReader reader(data, len);
    const bool is_rtp = reader.ReadU8() >> VERSION_SHIFT == VERSION;
    const uint8_t type = reader.ReadU8();
    return is_rtp && reader.Ok() ? type & RTP_PAYLOAD_TYPE_MASK : -1;
}

}  // namespace Vidora
}  // namespace Kavio
