#ifndef VIDORA_STREAMPARSER_PESHEADER_H
#define VIDORA_STREAMPARSER_PESHEADER_H

#include <cstdint>

#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

constexpr uint32_t PES_HEADER_LEN = 19;

// 33 bits of a 90 kHz clock (ISO 13818-1 2.4.2.1) for a time in milliseconds.
uint64_t ts_clock_of_ms(uint64_t ms);

// The stream id of a track: 0xE0 (video) or 0xC0 (audio) and up.
uint8_t pes_stream_id(int kind, int track);

// Writes the header of a PES packet of `payload_len` bytes (ISO 13818-1 2.4.3.6), PTS and DTS both `clock`:
//     00 00 01, stream id, packet length (2), 0x80, 0xC0, 10, PTS (5), DTS (5)
// A packet length above 65535 is written as 0, which the standard allows for video in a transport stream.
void pes_write_header(Ostra::CByteWriter& writer, uint8_t stream_id, uint32_t payload_len, uint64_t clock);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_PESHEADER_H
