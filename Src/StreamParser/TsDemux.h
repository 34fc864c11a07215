#ifndef VIDORA_STREAMPARSER_TSDEMUX_H
#define VIDORA_STREAMPARSER_TSDEMUX_H

#include <cstdint>

#include "Ostra/LogGate.h"
#include "StreamParser/TsTable.h"

namespace Kavio {
namespace Vidora {

enum ts_demux_result_t {
    TS_DEMUX_FAILED = -1,       // not a packet, or a PES packet that doesn't begin like one
    TS_DEMUX_UNKNOWN_PID = -2,  // neither a table nor a track of the program
    TS_DEMUX_OK = 0
};

// The parts of one packet (ISO 13818-1 2.4.3.2). Offsets count from the packet's first byte.
struct TsPacketInfo {
    int pid = 0;
    bool unit_start = false;
    int payload_offset = TS_PACK_LEN;  // TS_PACK_LEN: it carries no payload
    bool has_pcr = false;
    uint64_t pcr_base = 0;        // 33 bits, 90 kHz
    bool bad_adaptation = false;  // the adaptation field is longer than the packet
};

// What is wrong with a packet and worth a log line.
enum ts_fault_t { TS_FAULT_SECTION, TS_FAULT_ADAPTATION, TS_FAULT_PES, TS_FAULT_COUNT };

// What the demultiplexer knows of the stream and found in the last packet.
struct TsDemuxState {
    TsProgramTable table;
    // The last program clock reference, in ticks that go on where its 33 bits wrap after 26 hours, and in milliseconds.
    uint64_t pcr_ticks = 0;
    uint64_t pcr_ms = 0;
    // Of the last packet.
    TsPacketInfo packet;
    bool is_media = false;  // it belongs to a track
    int32_t program = 0;
    int32_t track = 0;
    Ostra::CLogGate logs[TS_FAULT_COUNT];  // a line a second for each
};

// Takes one packet apart. False if it doesn't begin with the sync byte. An adaptation field that is longer than the
// packet leaves no payload.
bool ts_parse_packet(const unsigned char packet[TS_PACK_LEN], TsPacketInfo& info);

// Reads one packet into `state`: PAT and PMT, the clock, which may have a PID of its own, and which track it belongs
// to. A ts_demux_result_t.
//
// One program is read, with up to two tracks. Only whole sections are understood, and only program maps without program
// descriptors: with some, entries are read from the wrong place. Transport errors and gaps in the continuity counters
// aren't looked at.
int ts_demux(TsDemuxState& state, const unsigned char packet[TS_PACK_LEN]);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_TSDEMUX_H
