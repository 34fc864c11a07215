#include "StreamParser/PesHeader.h"

#include "StreamParser/TsTable.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint64_t CLOCK_TICKS_PER_MS = 90;
constexpr uint64_t CLOCK_MASK = (uint64_t{1} << 33) - 1;
constexpr unsigned PREFIX_PTS = 0x3;  // of a PTS that a DTS follows
constexpr unsigned PREFIX_DTS = 0x1;
constexpr uint32_t STAMPS_LEN = 10;

// Four bits of prefix, then 3, 15 and 15 bits of the clock, each group before a marker bit.
void write_stamp(CByteWriter& writer, unsigned prefix, uint64_t clock) {
    writer.WriteU8(static_cast<uint8_t>((prefix << 4) | ((clock >> 30 & 0x7) << 1) | 1));
    writer.WriteU16(static_cast<uint16_t>(((clock >> 15 & 0x7FFF) << 1) | 1));
    writer.WriteU16(static_cast<uint16_t>(((clock & 0x7FFF) << 1) | 1));
}

}  // namespace

uint64_t ts_clock_of_ms(uint64_t ms) {
    return ms * CLOCK_TICKS_PER_MS & CLOCK_MASK;
}

uint8_t pes_stream_id(int kind, int track) {
    return static_cast<uint8_t>((is_video_kind(kind) ? 0xE0 : 0xC0) + track);
}

void pes_write_header(CByteWriter& writer, uint8_t stream_id, uint32_t payload_len, uint64_t clock) {
    // The packet length counts what follows it: two bytes of flags, the header length and the stamps.
    const uint64_t packet_len = uint64_t{payload_len} + 3 + STAMPS_LEN;
    writer.WriteU24(START_CODE3);
    writer.WriteU8(stream_id);
    writer.WriteU16(packet_len > 0xFFFF ? 0 : static_cast<uint16_t>(packet_len));
    writer.WriteU8(0x80);
    writer.WriteU8(0xC0);  // PTS and DTS follow
    writer.WriteU8(STAMPS_LEN);
    write_stamp(writer, PREFIX_PTS, clock);
    write_stamp(writer, PREFIX_DTS, clock);
}

}  // namespace Vidora
}  // namespace Kavio
