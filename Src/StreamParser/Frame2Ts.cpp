#include "StreamParser/Frame2Ts.h"

#include <algorithm>

#include "StreamParser/Crc32.h"
#include "StreamParser/MuxUnit.h"
#include "StreamParser/PesHeader.h"
#include "StreamParser/PrintLevel.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint16_t RESERVED_AND_PID = 0xE000;
constexpr uint16_t NO_DESCRIPTORS = 0xF000;  // reserved bits, and a length of 0
constexpr int DEFAULT_PACKETS = 7;
constexpr uint32_t TABLE_PACKETS = 2;
constexpr uint32_t TABLE_INTERVAL = 10;  // frames from one PAT and PMT to the next
constexpr int PAT_PID = 0;
constexpr int PMT_PID_BASE = 0x1000;  // plus the program number, which counts from 1
constexpr int MEDIA_PID_BASE = 0x100;
constexpr uint16_t TRANSPORT_STREAM_ID = 16;
constexpr int FIRST_PROGRAM = 1;
constexpr int MAX_SECTION = 64;
constexpr int MAX_VERSION = 31;

constexpr uint32_t FIXED_LEN = 6;              // packet header, adaptation length and flags
constexpr uint32_t MAX_PAYLOAD = 182;          // every packet has an adaptation field of two bytes or more
constexpr uint32_t FIRST_PAYLOAD = 176;        // beside the clock reference
constexpr uint16_t LEAST_ADAPTATION = 0x0100;  // length 1, no flags

struct PacketHead {
    int pid = 0;
    bool unit_start = true;
    int continuity = 0;
    uint32_t payload_len = 0;
    bool has_pcr = false;
    uint64_t clock = 0;
};

// Writes all of a TS packet but its payload, which ends with the packet's last byte:
//     0x47, flags and PID (2), 0x3c, adaptation length, adaptation flags, [clock reference (6)], 0xFF up to the payload
void write_packet_head(CByteWriter& writer, const PacketHead& head) {
    CByteWriter fixed(writer.Reserve(FIXED_LEN), FIXED_LEN);  // of constant size: checked once
    fixed.WriteU8(TS_SYNC_BYTE);
    fixed.WriteU16(static_cast<uint16_t>((head.unit_start ? TS_UNIT_START : 0) | head.pid));
    fixed.WriteU8(static_cast<uint8_t>(TS_HAS_ADAPTATION | TS_HAS_PAYLOAD | (head.continuity & TS_CONTINUITY_MASK)));
    fixed.WriteU8(static_cast<uint8_t>(183 - head.payload_len));
    fixed.WriteU8(head.has_pcr ? TS_HAS_PCR : 0);
    uint32_t stuffing = MAX_PAYLOAD - head.payload_len;
    if (head.has_pcr) {
        // 33 bits of base, six reserved bits of 1, nine bits of extension (ISO 13818-1 2.4.3.4).
        const uint64_t reference = head.clock << 15 | 0x7E00;
        writer.WriteU16(static_cast<uint16_t>(reference >> 32));
        writer.WriteU32(static_cast<uint32_t>(reference));
        stuffing -= 6;
    }
    writer.Fill(0xFF, stuffing);
}

// Writes a packet without a clock reference that the next bytes of the frame fill, MAX_PAYLOAD of them.
inline void write_full_packet(CByteWriter& writer, const PacketHead& head, CByteReader& frame) {
    CByteWriter packet(writer.Reserve(TS_PACK_LEN), TS_PACK_LEN);  // of constant size: checked once
    packet.WriteU32(uint32_t{TS_SYNC_BYTE} << 24 | static_cast<uint32_t>(head.pid) << 8 | TS_HAS_ADAPTATION |
                    TS_HAS_PAYLOAD | (static_cast<uint32_t>(head.continuity) & TS_CONTINUITY_MASK));
    packet.WriteU16(LEAST_ADAPTATION);
    packet.WriteBytes(frame.ReadBytes(MAX_PAYLOAD), MAX_PAYLOAD);
}

// A table in one packet: the section gets its CRC and follows a pointer field of 0.
void write_section(CByteWriter& writer, int pid, int continuity, CByteWriter& section) {
    section.WriteU32(mpeg_crc32(section.Data(), section.Offset()));
    PacketHead head;
    head.pid = pid;
    head.continuity = continuity;
    head.payload_len = static_cast<uint32_t>(section.Offset()) + 1;
    write_packet_head(writer, head);
    writer.WriteU8(0);
    writer.WriteBytes(section.Data(), section.Offset());
}

// What PAT and PMT have in common in front of their entries.
void write_section_head(CByteWriter& section, uint8_t table_id, int section_len, int id, int version) {
    section.WriteU8(table_id);
    section.WriteU16(static_cast<uint16_t>(0xB000 | section_len));  // syntax 1, zero bit, reserved bits
    section.WriteU16(static_cast<uint16_t>(id));
    section.WriteU8(static_cast<uint8_t>(0xC1 | version << 1));  // current
    section.WriteU16(0);                                         // section 0 of 0
}

// TS packets that a frame of `len` bytes takes.
uint64_t media_packets(uint32_t len) {
    const uint64_t total = uint64_t{len} + PES_HEADER_LEN;
    return total <= FIRST_PAYLOAD ? 1 : 1 + (total - FIRST_PAYLOAD + MAX_PAYLOAD - 1) / MAX_PAYLOAD;
}

}  // namespace

CFrame2Ts::CFrame2Ts() {
    m_table.program_count = 1;
    m_table.track_count = TS_MAX_TRACKS;
    m_table.pmt_pid = PMT_PID_BASE + FIRST_PROGRAM;
    for (int track = 0; track < TS_MAX_TRACKS; ++track) {
        m_table.tracks[track].pid = MEDIA_PID_BASE + track;
    }
    SetTsInfo(STREAM_KIND_MPEG4, STREAM_KIND_AUDIO, DEFAULT_PACKETS);
}

void CFrame2Ts::SetTsInfo(int video_kind, int audio_kind, int packets_per_output) {
    const TsProgramTable before = m_table;
    m_table.tracks[0].kind = video_kind;
    m_table.tracks[1].kind = audio_kind;
    const int max_packets = static_cast<int>(STREAM_BUFFER_LEN / TS_PACK_LEN);
    m_packets_per_output = packets_per_output < 1 ? DEFAULT_PACKETS : std::min(packets_per_output, max_packets);
    change_tables(before);
}

void CFrame2Ts::SetVideoOnly(bool on) {
    const TsProgramTable before = m_table;
    m_table.track_count = on ? 1 : TS_MAX_TRACKS;
    change_tables(before);
}

// Behind a change of what the PMT says: the next frame brings the new one.
void CFrame2Ts::change_tables(const TsProgramTable& before) {
    const bool changed = before.track_count != m_table.track_count || before.tracks[0].kind != m_table.tracks[0].kind ||
                         before.tracks[1].kind != m_table.tracks[1].kind;
    if (m_counts_tables && changed && m_frame_count > 0) {
        m_version = (m_version + 1) & MAX_VERSION;
        m_frame_count = 0;
    }
}

int CFrame2Ts::PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t /*extra*/) {
    m_total = 0;
    m_offset = 0;
    if (data == nullptr || len == 0) {
        return -1;
    }
    print_input_frame(enc_type, pts, len);
    if (!write_head(data, len, mux_track_of_enc_type(enc_type), pts)) {
        logError("CFrame2Ts::PutFrame TsStream fail\n");
        return -1;
    }
    return 0;
}

// Nothing changes unless there is room for the whole frame: so one that is too big costs neither tables nor a step in
// the continuity counters.
bool CFrame2Ts::write_head(const unsigned char* data, uint32_t len, int track, uint64_t pts_ms) {
    const bool with_tables = m_frame_count % TABLE_INTERVAL == 0;
    const uint64_t packets = media_packets(len);
    const uint64_t total = ((with_tables ? TABLE_PACKETS : 0) + packets) * TS_PACK_LEN;
    if (total > STREAM_BUFFER_LEN) {
        return false;
    }
    ++m_frame_count;
    if (m_table.pcr_track == -1) {
        m_table.pcr_track = track;
    }
    CByteWriter writer(m_head, sizeof(m_head));
    if (with_tables) {
        write_pat(writer);
        write_pmt(writer);
        m_table_continuity = m_counts_tables ? (m_table_continuity + 1) & TS_CONTINUITY_MASK : 0;
    }
    CByteReader frame(data, len);
    frame.Skip(write_first(writer, data, len, track, pts_ms));
    m_head_len = static_cast<uint32_t>(writer.Offset());
    m_rest = frame.Rest();
    m_rest_len = static_cast<uint32_t>(frame.Remaining());
    TsTrack& out = m_table.tracks[track];
    m_pid = out.pid;
    m_continuity = out.continuity + 1;
    out.continuity = static_cast<int>((static_cast<uint64_t>(out.continuity) + packets) & TS_CONTINUITY_MASK);
    m_total = writer.Ok() ? static_cast<uint32_t>(total) : 0;
    return m_total > 0;
}

// ISO 13818-1 2.4.4.3.
void CFrame2Ts::write_pat(CByteWriter& writer) const {
    unsigned char bytes[MAX_SECTION];
    CByteWriter section(bytes, sizeof(bytes));
    write_section_head(section, 0, 4 * m_table.program_count + 9, TRANSPORT_STREAM_ID, 0);
    section.WriteU16(FIRST_PROGRAM);
    section.WriteU16(static_cast<uint16_t>(RESERVED_AND_PID | m_table.pmt_pid));
    write_section(writer, PAT_PID, m_table_continuity, section);
}

// ISO 13818-1 2.4.4.8.
void CFrame2Ts::write_pmt(CByteWriter& writer) const {
    unsigned char bytes[MAX_SECTION];
    CByteWriter section(bytes, sizeof(bytes));
    const bool valid_pcr = m_table.pcr_track >= 0 && m_table.pcr_track < m_table.track_count;
    write_section_head(section, 2, 5 * m_table.track_count + 13, FIRST_PROGRAM, m_version);
    section.WriteU16(static_cast<uint16_t>(RESERVED_AND_PID | m_table.tracks[valid_pcr ? m_table.pcr_track : 0].pid));
    section.WriteU16(NO_DESCRIPTORS);  // of the program
    for (int track = 0; track < m_table.track_count; ++track) {
        section.WriteU8(stream_type_of_kind(m_table.tracks[track].kind));
        section.WriteU16(static_cast<uint16_t>(RESERVED_AND_PID | m_table.tracks[track].pid));
        section.WriteU16(NO_DESCRIPTORS);  // of the stream
    }
    write_section(writer, m_table.pmt_pid, m_table_continuity, section);
}

// The first packet of the frame's one PES packet: the clock reference, the PES header and the frame's first bytes,
// whose number it returns.
uint32_t CFrame2Ts::write_first(CByteWriter& writer, const unsigned char* data, uint32_t len, int track,
                                uint64_t pts_ms) {
    const TsTrack& out = m_table.tracks[track];
    PacketHead head;
    head.pid = out.pid;
    head.has_pcr = true;
    head.clock = ts_clock_of_ms(m_clocks[track].Take(pts_ms));
    head.payload_len = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{len} + PES_HEADER_LEN, FIRST_PAYLOAD));
    head.continuity = out.continuity;
    write_packet_head(writer, head);
    pes_write_header(writer, pes_stream_id(out.kind, track), len, ts_clock_of_ms(pts_ms));
    const uint32_t first = head.payload_len - PES_HEADER_LEN;
    writer.WriteBytes(data, first);
    return first;
}

// Fills `writer` with the packets from m_offset on: what is left of the head, then full packets, and the rest of the
// frame in a last one that is stuffed.
void CFrame2Ts::write_unit(CByteWriter& writer) const {
    CByteReader written(m_head, m_head_len);
    written.Skip(std::min(m_offset, m_head_len));
    const size_t from_head = std::min(written.Remaining(), writer.Remaining());
    writer.WriteBytes(written.ReadBytes(from_head), from_head);

    const uint32_t behind_head = m_offset > m_head_len ? m_offset - m_head_len : 0;
    const uint32_t index = behind_head / TS_PACK_LEN;
    CByteReader frame(m_rest, m_rest_len);
    frame.Skip(size_t{index} * MAX_PAYLOAD);
    PacketHead head;
    head.pid = m_pid;
    head.unit_start = false;
    head.continuity = m_continuity + static_cast<int>(index);
    for (; writer.Remaining() >= TS_PACK_LEN && frame.Remaining() >= MAX_PAYLOAD; ++head.continuity) {
        write_full_packet(writer, head, frame);
    }
    if (writer.Remaining() > 0) {
        head.payload_len = static_cast<uint32_t>(frame.Remaining());
        write_packet_head(writer, head);
        writer.WriteBytes(frame.ReadBytes(head.payload_len), head.payload_len);
    }
}

int CFrame2Ts::GetPacketCount() {
    const uint32_t unit = static_cast<uint32_t>(m_packets_per_output * TS_PACK_LEN);
    return static_cast<int>((m_total + unit - 1) / unit);
}

int CFrame2Ts::GetPacketSize() {
    const uint32_t unit = static_cast<uint32_t>(m_packets_per_output * TS_PACK_LEN);
    return static_cast<int>(std::min(unit, m_total - m_offset));
}

int CFrame2Ts::GetPacket(unsigned char* buffer, unsigned int capacity) {
    const int size = GetPacketSize();
    if (buffer == nullptr || static_cast<unsigned int>(size) > capacity) {
        return 0;
    }
    CByteWriter writer(buffer, static_cast<size_t>(size));
    write_unit(writer);
    mux_print_unit("TS", size);
    return writer.Ok() ? size : 0;
}

int CFrame2Ts::NextPacket() {
    m_offset += static_cast<uint32_t>(GetPacketSize());
    return m_offset < m_total ? 0 : -1;
}

int CFrame2Ts::GetTotalSize() {
    return static_cast<int>(m_total - m_offset);
}

}  // namespace Vidora
}  // namespace Kavio
