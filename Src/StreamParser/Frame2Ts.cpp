#include "StreamParser/Frame2Ts.h"

#include <algorithm>
#include <new>

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
constexpr uint32_t TABLE_INTERVAL = 10;  // frames from one PAT and PMT to the next
constexpr int PAT_PID = 0;
constexpr int PMT_PID_BASE = 0x1000;  // plus the program number, which counts from 1
constexpr int MEDIA_PID_BASE = 0x100;
constexpr uint16_t TRANSPORT_STREAM_ID = 16;
constexpr int FIRST_PROGRAM = 1;
constexpr int MAX_SECTION = 64;

constexpr uint32_t TABLES_LEN = 2 * TS_PACK_LEN;
constexpr uint32_t FIXED_LEN = 6;        // packet header, adaptation length and flags
constexpr uint32_t MAX_PAYLOAD = 182;    // every packet has an adaptation field of two bytes or more
constexpr uint32_t FIRST_PAYLOAD = 176;  // beside the clock reference

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

// A table in one packet: the section gets its CRC and follows a pointer field of 0. Tables keep the continuity
// counter 0 in each repetition, as they always have; receivers take them for duplicates.
void write_section(CByteWriter& writer, int pid, CByteWriter& section) {
    section.WriteU32(mpeg_crc32(section.Data(), section.Offset()));
    PacketHead head;
    head.pid = pid;
    head.payload_len = static_cast<uint32_t>(section.Offset()) + 1;
    write_packet_head(writer, head);
    writer.WriteU8(0);
    writer.WriteBytes(section.Data(), section.Offset());
}

// What PAT and PMT have in common in front of their entries.
void write_section_head(CByteWriter& section, uint8_t table_id, int section_len, int id) {
    section.WriteU8(table_id);
    section.WriteU16(static_cast<uint16_t>(0xB000 | section_len));  // syntax 1, zero bit, reserved bits
    section.WriteU16(static_cast<uint16_t>(id));
    section.WriteU8(0xC1);  // version 0, current
    section.WriteU16(0);    // section 0 of 0
}

// TS packets that a frame of `len` bytes takes.
uint64_t media_packets(uint32_t len) {
    const uint64_t total = uint64_t{len} + PES_HEADER_LEN;
    return total <= FIRST_PAYLOAD ? 1 : 1 + (total - FIRST_PAYLOAD + MAX_PAYLOAD - 1) / MAX_PAYLOAD;
}

}  // namespace

CFrame2Ts::CFrame2Ts() : m_buffer(new (std::nothrow) unsigned char[STREAM_BUFFER_LEN]) {
    if (m_buffer == nullptr) {
        logError("CFrame2Ts::alloc_ts_buffer fail!!!\n");
    } else {
        m_capacity = STREAM_BUFFER_LEN;
    }
    m_table.program_count = 1;
    m_table.track_count = TS_MAX_TRACKS;
    m_table.pmt_pid = PMT_PID_BASE + FIRST_PROGRAM;
    for (int track = 0; track < TS_MAX_TRACKS; ++track) {
        m_table.tracks[track].pid = MEDIA_PID_BASE + track;
    }
    SetTsInfo(STREAM_KIND_MPEG4, STREAM_KIND_AUDIO, DEFAULT_PACKETS);
}

void CFrame2Ts::SetTsInfo(int video_kind, int audio_kind, int packets_per_output) {
    m_table.tracks[0].kind = video_kind;
    m_table.tracks[1].kind = audio_kind;
    const int max_packets = static_cast<int>(STREAM_BUFFER_LEN / TS_PACK_LEN);
    m_packets_per_output = packets_per_output < 1 ? DEFAULT_PACKETS : std::min(packets_per_output, max_packets);
}

int CFrame2Ts::PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t /*extra*/) {
    m_total = 0;
    m_offset = 0;
    if (data == nullptr || len == 0) {
        return -1;
    }
    print_input_frame(enc_type, pts, len);
    const int track = mux_track_of_enc_type(enc_type);
    if (!write_frame(data, len, track, ts_clock_of_ms(pts))) {
        logError("CFrame2Ts::PutFrame TsStream fail\n");
        return -1;
    }
    return 0;
}

// Nothing changes unless there is room for the whole frame: so one that is too big costs neither tables nor a step in
// the continuity counters.
bool CFrame2Ts::write_frame(const unsigned char* data, uint32_t len, int track, uint64_t clock) {
    const bool with_tables = m_frame_count % TABLE_INTERVAL == 0;
    if ((with_tables ? TABLES_LEN : 0) + media_packets(len) * TS_PACK_LEN > m_capacity) {
        return false;
    }
    ++m_frame_count;
    if (m_table.pcr_track == -1) {
        m_table.pcr_track = track;
    }
    CByteWriter writer(m_buffer.get(), m_capacity);
    if (with_tables) {
        write_pat(writer);
        write_pmt(writer);
    }
    write_media(writer, data, len, track, clock);
    m_total = writer.Ok() ? static_cast<uint32_t>(writer.Offset()) : 0;
    return m_total > 0;
}

// ISO 13818-1 2.4.4.3.
void CFrame2Ts::write_pat(CByteWriter& writer) const {
    unsigned char bytes[MAX_SECTION];
    CByteWriter section(bytes, sizeof(bytes));
    write_section_head(section, 0, 4 * m_table.program_count + 9, TRANSPORT_STREAM_ID);
    section.WriteU16(FIRST_PROGRAM);
    section.WriteU16(static_cast<uint16_t>(RESERVED_AND_PID | m_table.pmt_pid));
    write_section(writer, PAT_PID, section);
}

// ISO 13818-1 2.4.4.8.
void CFrame2Ts::write_pmt(CByteWriter& writer) const {
    unsigned char bytes[MAX_SECTION];
    CByteWriter section(bytes, sizeof(bytes));
    const bool valid_pcr = m_table.pcr_track >= 0 && m_table.pcr_track < m_table.track_count;
    write_section_head(section, 2, 5 * m_table.track_count + 13, FIRST_PROGRAM);
    section.WriteU16(static_cast<uint16_t>(RESERVED_AND_PID | m_table.tracks[valid_pcr ? m_table.pcr_track : 0].pid));
    section.WriteU16(NO_DESCRIPTORS);  // of the program
    for (int track = 0; track < m_table.track_count; ++track) {
        section.WriteU8(stream_type_of_kind(m_table.tracks[track].kind));
        section.WriteU16(static_cast<uint16_t>(RESERVED_AND_PID | m_table.tracks[track].pid));
        section.WriteU16(NO_DESCRIPTORS);  // of the stream
    }
    write_section(writer, m_table.pmt_pid, section);
}

// One PES packet: its header and the frame's first bytes beside the clock reference, then full packets, and the rest in
// a last one that is stuffed.
void CFrame2Ts::write_media(CByteWriter& writer, const unsigned char* data, uint32_t len, int track, uint64_t clock) {
    TsTrack& out = m_table.tracks[track];
    CByteReader frame(data, len);
    PacketHead head;
    head.pid = out.pid;
    head.has_pcr = true;
    head.clock = clock;
    head.payload_len = static_cast<uint32_t>(std::min<uint64_t>(uint64_t{len} + PES_HEADER_LEN, FIRST_PAYLOAD));
    head.continuity = out.continuity++;
    write_packet_head(writer, head);
    pes_write_header(writer, pes_stream_id(out.kind, track), len, clock);
    const uint32_t first = head.payload_len - PES_HEADER_LEN;
    writer.WriteBytes(frame.ReadBytes(first), first);

    head.has_pcr = false;
    head.unit_start = false;
    while (frame.Remaining() > 0) {
        head.payload_len = static_cast<uint32_t>(std::min<size_t>(frame.Remaining(), MAX_PAYLOAD));
        head.continuity = out.continuity++;
        write_packet_head(writer, head);
        writer.WriteBytes(frame.ReadBytes(head.payload_len), head.payload_len);
    }
    out.continuity &= TS_CONTINUITY_MASK;
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
    return mux_copy_unit(m_buffer.get(), m_total, m_offset, GetPacketSize(), buffer, capacity, "TS");
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
