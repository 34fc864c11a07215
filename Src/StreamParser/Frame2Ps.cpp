#include "StreamParser/Frame2Ps.h"

#include <algorithm>

#include "StreamParser/MuxUnit.h"
#include "StreamParser/PesHeader.h"
#include "StreamParser/PrintLevel.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint32_t START_PACK = 0x000001BA;
constexpr uint32_t START_SYSTEM = 0x000001BB;
constexpr uint32_t START_MAP = 0x000001BC;
constexpr uint32_t MUX_RATE_MASK = 0x3FFFFF;  // 22 bits
constexpr int MUX_RATE_UNIT = 50;             // bytes a second
constexpr uint16_t SYSTEM_HEADER_LEN = 12;    // behind its length field

}  // namespace

CFrame2Ps::CFrame2Ps() {
    m_track_kinds[0] = STREAM_KIND_MPEG4;
    m_track_kinds[1] = STREAM_KIND_AUDIO;
}

void CFrame2Ps::SetPsInfo(int video_kind, int audio_kind, int max_pes, int bit_rate) {
    m_track_kinds[0] = video_kind;
    m_track_kinds[1] = audio_kind;
    m_max_pes = max_pes;
    m_mux_rate = static_cast<uint32_t>(std::max(bit_rate, 0) / 8 / MUX_RATE_UNIT + 1) & MUX_RATE_MASK;
}

int CFrame2Ps::PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t /*extra*/) {
    m_unit_count = 0;
    m_unit_index = 0;
    m_left = 0;
    if (data == nullptr || len == 0) {
        return -1;
    }
    print_input_frame(enc_type, pts, len);
    const int track = mux_track_of_enc_type(enc_type);
    m_frame = data;
    m_frame_len = len;
    m_stream_id = pes_stream_id(m_track_kinds[track], track);
    m_clock = ts_clock_of_ms(pts);
    m_part = static_cast<uint32_t>(std::clamp<int64_t>(m_max_pes, MIN_PES, MAX_PES));
    const uint64_t parts = (uint64_t{len} + m_part - 1) / m_part;
    const uint64_t total = HEAD_LEN + len + parts * PES_HEADER_LEN;
    if (total > STREAM_BUFFER_LEN || !write_head(m_clock)) {
        logError("CFrame2Ps::PutFrame PsStream fail\n");
        return -1;
    }
    m_unit_count = HEAD_UNITS + static_cast<uint32_t>(parts);
    m_left = static_cast<uint32_t>(total);
    return 0;
}

bool CFrame2Ps::write_head(uint64_t clock) {
    CByteWriter writer(m_head, sizeof(m_head));
    write_pack_header(writer, clock);
    write_system_header(writer);
    write_map(writer);
    return writer.Ok() && writer.Remaining() == 0;
}

// ISO 13818-1 2.5.3.3: the system clock reference is split into 3, 15 and 15 bits before marker bits, then nine bits of
// extension.
void CFrame2Ps::write_pack_header(CByteWriter& writer, uint64_t clock) const {
    writer.WriteU32(START_PACK);
    const uint64_t reference = uint64_t{1} << 46 | (clock >> 30 & 0x7) << 43 | uint64_t{1} << 42 |
                               (clock >> 15 & 0x7FFF) << 27 | uint64_t{1} << 26 | (clock & 0x7FFF) << 11 |
                               uint64_t{1} << 10 | 1;
    writer.WriteU16(static_cast<uint16_t>(reference >> 32));
    writer.WriteU32(static_cast<uint32_t>(reference));
    writer.WriteU24(m_mux_rate << 2 | 0x3);
    writer.WriteU8(0xF8);  // no stuffing
}

// ISO 13818-1 2.5.3.5.
void CFrame2Ps::write_system_header(CByteWriter& writer) const {
    uint8_t video = 0;
    uint8_t audio = 0;
    for (const int32_t kind : m_track_kinds) {
        ++(is_video_kind(kind) ? video : audio);
    }
    writer.WriteU32(START_SYSTEM);
    writer.WriteU16(SYSTEM_HEADER_LEN);
    writer.WriteU24(0x800001 | m_mux_rate << 1);  // rate bound between marker bits
    writer.WriteU8(static_cast<uint8_t>(audio << 2));
    writer.WriteU8(static_cast<uint8_t>(0xE0 | video));
    writer.WriteU8(0xFF);
    writer.WriteU24(0xB8C040);  // all audio: buffer of 64 times 128 bytes
    writer.WriteU24(0xB9E200);  // all video: buffer of 512 times 1024 bytes
}

// ISO 13818-1 2.5.4.1, but for two things that readers of this stream have got used to: the length leaves the four
// bytes of the CRC out, and the CRC is 0.
void CFrame2Ps::write_map(CByteWriter& writer) const {
    constexpr uint16_t entries_len = 4 * TS_MAX_TRACKS;
    writer.WriteU32(START_MAP);
    writer.WriteU16(entries_len + 6);
    writer.WriteU8(0xE0);  // current
    writer.WriteU8(0xFF);
    writer.WriteU16(0);  // no program stream descriptors
    writer.WriteU16(entries_len);
    for (int track = 0; track < TS_MAX_TRACKS; ++track) {
        writer.WriteU8(stream_type_of_kind(m_track_kinds[track]));
        writer.WriteU8(pes_stream_id(m_track_kinds[track], track));
        writer.WriteU16(0);  // no stream descriptors
    }
    writer.WriteU32(0);
}

int CFrame2Ps::GetPacketCount() {
    return static_cast<int>(m_unit_count);
}

// Bytes of the frame in the PES packet of this unit.
uint32_t CFrame2Ps::part_len(uint32_t unit) const {
    return std::min(m_part, m_frame_len - part_begin(unit));
}

int CFrame2Ps::GetPacketSize() {
    if (m_unit_index >= m_unit_count) {
        return 0;
    }
    return static_cast<int>(m_unit_index < HEAD_UNITS ? HEAD_SIZES[m_unit_index]
                                                      : PES_HEADER_LEN + part_len(m_unit_index));
}

int CFrame2Ps::GetPacket(unsigned char* buffer, unsigned int capacity) {
    const int size = GetPacketSize();
    if (buffer == nullptr || static_cast<unsigned int>(size) > capacity) {
        return 0;
    }
    CByteWriter writer(buffer, static_cast<size_t>(size));
    write_unit(writer);
    mux_print_unit("PS", size);
    return writer.Ok() ? size : 0;
}

// Fills `writer` with the unit in turn. Each part of a frame repeats the frame's time stamps.
void CFrame2Ps::write_unit(CByteWriter& writer) const {
    if (m_unit_index < HEAD_UNITS) {
        CByteReader head(m_head, sizeof(m_head));
        for (uint32_t before = 0; before < m_unit_index; ++before) {
            head.Skip(HEAD_SIZES[before]);
        }
        writer.WriteBytes(head.ReadBytes(writer.Remaining()), writer.Remaining());
    } else if (m_unit_index < m_unit_count) {
        CByteReader frame(m_frame, m_frame_len);
        frame.Skip(part_begin(m_unit_index));
        const uint32_t len = part_len(m_unit_index);
        pes_write_header(writer, m_stream_id, len, m_clock);
        writer.WriteBytes(frame.ReadBytes(len), len);
    }
}

int CFrame2Ps::NextPacket() {
    m_left -= static_cast<uint32_t>(GetPacketSize());
    m_unit_index = std::min(m_unit_index + 1, m_unit_count);
    return m_unit_index < m_unit_count ? 0 : -1;
}

int CFrame2Ps::GetTotalSize() {
    return static_cast<int>(m_left);
}

}  // namespace Vidora
}  // namespace Kavio
