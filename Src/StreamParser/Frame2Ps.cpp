#include "StreamParser/Frame2Ps.h"

#include <algorithm>
#include <new>

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

CFrame2Ps::CFrame2Ps() : m_buffer(new (std::nothrow) unsigned char[STREAM_BUFFER_LEN]) {
    if (m_buffer == nullptr) {
        logError("CFrame2Ps::alloc_ps_buffer fail!!!\n");
    } else {
        m_capacity = STREAM_BUFFER_LEN;
    }
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
    m_total = 0;
    m_unit_count = 0;
    m_unit_index = 0;
    m_offset = 0;
    if (data == nullptr || len == 0) {
        return -1;
    }
    print_input_frame(enc_type, pts, len);
    const int track = mux_track_of_enc_type(enc_type);
    CByteWriter writer(m_buffer.get(), m_capacity);
    if (m_buffer == nullptr || !write_frame(writer, data, len, track, ts_clock_of_ms(pts))) {
        m_total = 0;
        m_unit_count = 0;
        logError("CFrame2Ps::PutFrame PsStream fail\n");
        return -1;
    }
    return 0;
}

// False as soon as a unit doesn't fit.
bool CFrame2Ps::write_frame(CByteWriter& writer, const unsigned char* data, uint32_t len, int track, uint64_t clock) {
    write_pack_header(writer, clock);
    if (!end_unit(writer)) {
        return false;
    }
    write_system_header(writer);
    if (!end_unit(writer)) {
        return false;
    }
    write_map(writer);
    if (!end_unit(writer)) {
        return false;
    }
    // Each part repeats the time stamps of its frame.
    const uint32_t part = static_cast<uint32_t>(std::clamp<int64_t>(m_max_pes, MIN_PES, MAX_PES));
    const uint8_t stream_id = pes_stream_id(m_track_kinds[track], track);
    CByteReader frame(data, len);
    while (frame.Remaining() > 0) {
        const uint32_t size = static_cast<uint32_t>(std::min<size_t>(frame.Remaining(), part));
        pes_write_header(writer, stream_id, size, clock);
        writer.WriteBytes(frame.ReadBytes(size), size);
        if (!end_unit(writer)) {
            return false;
        }
    }
    return true;
}

// Records the size of what was written since the last unit.
bool CFrame2Ps::end_unit(CByteWriter& writer) {
    if (!writer.Ok() || m_unit_count >= MAX_UNITS) {
        return false;
    }
    m_unit_sizes[m_unit_count++] = static_cast<uint32_t>(writer.Offset()) - m_total;
    m_total = static_cast<uint32_t>(writer.Offset());
    return true;
}

// ISO 13818-1 2.5.3.3: the system clock reference is split into 3, 15 and 15 bits before marker bits, then nine bits of
// extension.
void CFrame2Ps::write_pack_header(CByteWriter& writer, uint64_t clock) {
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
void CFrame2Ps::write_system_header(CByteWriter& writer) {
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
void CFrame2Ps::write_map(CByteWriter& writer) {
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

int CFrame2Ps::GetPacketSize() {
    return m_unit_index < m_unit_count ? static_cast<int>(m_unit_sizes[m_unit_index]) : 0;
}

int CFrame2Ps::GetPacket(unsigned char* buffer, unsigned int capacity) {
    return mux_copy_unit(m_buffer.get(), m_total, m_offset, GetPacketSize(), buffer, capacity, "PS");
}

int CFrame2Ps::NextPacket() {
    if (m_unit_index >= m_unit_count) {
        return -1;
    }
    m_offset += m_unit_sizes[m_unit_index++];
    return m_unit_index < m_unit_count ? 0 : -1;
}

int CFrame2Ps::GetTotalSize() {
    return static_cast<int>(m_total - m_offset);
}

}  // namespace Vidora
}  // namespace Kavio
