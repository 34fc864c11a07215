#include "StreamParser/RtpHeader.h"

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

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
    header.marker = (type & 0x80) != 0;
    header.payload_type = type & 0x7F;

    reader.Skip((flags & 0x0Fu) * 4);
    if ((flags & 0x10) != 0) {
        reader.Skip(2);
        reader.Skip(reader.ReadU16() * 4u);
    }
    // The last byte of a padded packet counts the padding, itself included.
    const size_t padding = (flags & 0x20) != 0 ? reader.PeekU8(reader.Remaining() - 1) : 0;
    header.is_empty = reader.Ok() && reader.Remaining() == padding;
    if (reader.Ok() && reader.Remaining() > padding) {
        header.payload_len = static_cast<uint32_t>(reader.Remaining() - padding);
        header.payload = reader.ReadBytes(header.payload_len);
    }
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
