#include "StreamParser/TsDemux.h"

#include <algorithm>

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/StartCode.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr int PAT_PID = 0;
constexpr int PAT_TABLE = 0;
constexpr int PMT_TABLE = 2;
constexpr int MAX_PROGRAMS = 1;
constexpr size_t SECTION_LEN_END = 3;   // the section length counts from here
constexpr size_t SECTION_HEAD_LEN = 8;  // what all sections have in common
constexpr size_t DESCRIPTORS_LEN = 2;   // their length in front of those of a program, taken as if there were none
constexpr size_t PMT_ENTRY_LEN = 5;
constexpr size_t PAT_ENTRY_LEN = 4;
constexpr size_t CRC_LEN = 4;
constexpr uint64_t TICKS_PER_MS = 90;
constexpr uint64_t CLOCK_MASK = (uint64_t{1} << 33) - 1;

// The adaptation field, of which only the clock reference matters (ISO 13818-1 2.4.3.4).
void read_adaptation(CByteReader& field, TsPacketInfo& info) {
    if ((field.ReadU8() & TS_HAS_PCR) == 0) {
        return;
    }
    const uint32_t high = field.ReadU32();
    const uint16_t low = field.ReadU16();
    info.has_pcr = field.Ok();
    info.pcr_base = uint64_t{high} << 1 | low >> 15;
}

// The section behind the pointer field, without its CRC; a failed reader if it doesn't lie whole in the packet.
CByteReader read_section(CByteReader& payload, uint8_t table_id, Ostra::CLogGate& log) {
    payload.Skip(payload.ReadU8());
    CByteReader peek = payload;
    const uint8_t id = peek.ReadU8();
    const size_t len = peek.ReadU16() & TS_SECTION_LEN_MASK;
    if (peek.Ok() && (len > peek.Remaining() || len < CRC_LEN) && log.Pass()) {
        logWarn("%s:%d, invalid section length.\n", __FILE__, __LINE__);
    }
    const bool good = peek.Ok() && id == table_id && len >= CRC_LEN;
    return payload.SubReader(good ? SECTION_LEN_END + len - CRC_LEN : SIZE_MAX);
}

// ISO 13818-1 2.4.4.3. Only the first program is taken.
void read_pat(TsProgramTable& table, CByteReader& payload, Ostra::CLogGate& log) {
    CByteReader section = read_section(payload, PAT_TABLE, log);
    if (!section.Skip(SECTION_HEAD_LEN)) {
        return;
    }
    table.program_count = static_cast<int32_t>(std::min<size_t>(section.Remaining() / PAT_ENTRY_LEN, MAX_PROGRAMS));
    bool is_network = true;  // so far there are none but number 0, which is the network's table and no program
    for (bool is_first = true; is_network && section.Remaining() >= PAT_ENTRY_LEN; is_first = false) {
        is_network = section.ReadU16() == 0;
        const int pid = section.ReadU16() & TS_PID_MASK;
        table.pmt_pid = is_first || !is_network ? pid : table.pmt_pid;
    }
}

// ISO 13818-1 2.4.4.8.
void read_pmt(TsProgramTable& table, CByteReader& payload, Ostra::CLogGate& log) {
    CByteReader section = read_section(payload, PMT_TABLE, log);
    section.Skip(SECTION_HEAD_LEN);
    const int pcr_pid = section.ReadU16() & TS_PID_MASK;
    if (!section.Skip(DESCRIPTORS_LEN)) {
        return;
    }
    table.pcr_pid = pcr_pid;
    int count = 0;
    while (count < TS_MAX_TRACKS && section.Remaining() >= PMT_ENTRY_LEN) {
        TsTrack& track = table.tracks[count++];
        track.kind = stream_kind_of_type(section.ReadU8());
        track.pid = section.ReadU16() & TS_PID_MASK;
        section.Skip(section.ReadU16() & TS_SECTION_LEN_MASK);
        if (!section.Ok()) {
            break;
        }
    }
    table.track_count = count;
}

// Takes a packet of the tables; false if it is none.
bool read_table(TsDemuxState& state, CByteReader& payload) {
    const bool is_pat = state.packet.pid == PAT_PID;
    if (!is_pat && state.packet.pid != state.table.pmt_pid) {
        return false;
    }
    if (state.packet.unit_start && payload.Remaining() > 0) {
        (is_pat ? read_pat : read_pmt)(state.table, payload, state.logs[TS_FAULT_SECTION]);
    }
    return true;
}

int find_track(const TsProgramTable& table, int pid) {
    for (int track = 0; track < table.track_count; ++track) {
        if (table.tracks[track].pid == pid) {
            return track;
        }
    }
    return -1;
}

// By the shorter way: on, over the wrap or not, or back; in front of its beginning a clock begins anew.
void read_clock(TsDemuxState& state) {
    const uint64_t passed = (state.packet.pcr_base - state.pcr_ticks) & CLOCK_MASK;
    const uint64_t back = CLOCK_MASK + 1 - passed;
    if (passed <= CLOCK_MASK / 2) {
        state.pcr_ticks += passed;
    } else {
        state.pcr_ticks = back <= state.pcr_ticks ? state.pcr_ticks - back : state.packet.pcr_base;
    }
    state.pcr_ms = state.pcr_ticks / TICKS_PER_MS;
}

int read_media(TsDemuxState& state, CByteReader& payload) {
    if (state.packet.unit_start && payload.ReadU24() != START_CODE3) {
        if (state.logs[TS_FAULT_PES].Pass()) {
            logError("%s:%d, invalid pes header.\n", __FILE__, __LINE__);
        }
        return TS_DEMUX_FAILED;
    }
    state.is_media = true;
    return TS_DEMUX_OK;
}

}  // namespace

bool ts_parse_packet(const unsigned char packet[TS_PACK_LEN], TsPacketInfo& info) {
    info = TsPacketInfo();
    CByteReader reader(packet, TS_PACK_LEN);
    const uint32_t head = reader.ReadU32();
    if (head >> 24 != TS_SYNC_BYTE) {
        return false;
    }
    const uint32_t flags = head >> 8;
    info.unit_start = (flags & TS_UNIT_START) != 0;
    info.pid = static_cast<int>(flags & TS_PID_MASK);
    const uint32_t control = head;  // its last byte
    if ((control & TS_HAS_ADAPTATION) != 0) {
        CByteReader field = reader.SubReader(reader.ReadU8());
        if (!reader.Ok()) {
            info.bad_adaptation = true;
            return true;
        }
        read_adaptation(field, info);
    }
    if ((control & TS_HAS_PAYLOAD) != 0) {
        info.payload_offset = static_cast<int>(reader.Offset());
    }
    return true;
}

int ts_demux(TsDemuxState& state, const unsigned char packet[TS_PACK_LEN]) {
    state.is_media = false;
    if (!ts_parse_packet(packet, state.packet)) {
        return TS_DEMUX_FAILED;
    }
    if (state.packet.bad_adaptation && state.logs[TS_FAULT_ADAPTATION].Pass()) {
        logWarn("%s:%d, invalid adaptation length.\n", __FILE__, __LINE__);
    }
    CByteReader payload(packet, TS_PACK_LEN);
    payload.Skip(static_cast<size_t>(state.packet.payload_offset));
    if (read_table(state, payload)) {
        return TS_DEMUX_OK;
    }
    const int track = find_track(state.table, state.packet.pid);
    if (state.packet.has_pcr && (track >= 0 || state.packet.pid == state.table.pcr_pid)) {
        read_clock(state);
    }
    if (track < 0) {
        return TS_DEMUX_UNKNOWN_PID;
    }
    state.program = 0;
    state.track = track;
    return read_media(state, payload);
}

}  // namespace Vidora
}  // namespace Kavio
