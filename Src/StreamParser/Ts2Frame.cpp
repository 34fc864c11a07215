#include "StreamParser/Ts2Frame.h"

#include <algorithm>
#include <new>

#include "StreamParser/Mpeg2Parser.h"
#include "StreamParser/StartCodeScan.h"
#include "Vidora/H264Parser.h"
#include "Vidora/Mpeg4Parser.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr int SDT_PID = 17;            // service descriptions: no media even if a program map names it
constexpr uint32_t PES_FIXED_LEN = 9;  // up to the header length, inclusive
constexpr uint32_t MIN_H264_KEY = 65;  // a shorter frame isn't searched for a parameter set
constexpr int APPEND_OVERFLOW = -2;

// Where the elementary stream begins in the first bytes of a PES packet: at the first start code of a NAL unit of type
// 1 to 8, with the zero byte of a four-byte one. What stands in front, such as an access unit delimiter, is dropped.
size_t h264_begin(const unsigned char* data, size_t len) {
    StartCodeScan scan(data, len);
    while (scan.Next()) {
        const int type = h264_nal_type(scan.Value());
        if (type >= H264_NAL_SLICE && type <= H264_NAL_PPS) {
            return scan.Before() == 0 ? scan.Offset() - 1 : scan.Offset();
        }
    }
    return 0;
}

// The NAL unit type of the first slice behind a four-byte start code, 0 without one. Three-byte codes don't count here,
// as they never have, so a key frame that has no other is called a P frame.
int first_slice(const unsigned char* data, size_t len) {
    CByteReader frame(data, len);
    for (size_t at = find_start_code4(data, len); at != NO_START_CODE; at = find_start_code4(data, len, at + 4)) {
        const int type = h264_nal_type(frame.PeekU8(at + 4));
        if (type == H264_NAL_SLICE || type == H264_NAL_IDR) {
            return type;
        }
    }
    return 0;
}

}  // namespace

int Ts2Frame::PutPacket(const unsigned char* packet, int len, bool last) {
    if (!alloc_buffer()) {
        return FRAME_FAILED;
    }
    if (!OSTRA_ASSERT(len == TS_PACK_LEN) || packet == nullptr) {
        return FRAME_FAILED;
    }
    const int ret = ts_demux(m_demux, packet);
    if (ret == TS_DEMUX_FAILED) {
        logError("%s:%d _ts_stream.demux ret:%d \n", __FILE__, __LINE__, ret);
        return FRAME_FAILED;
    }
    if (ret == TS_DEMUX_UNKNOWN_PID || !m_demux.is_media || m_demux.program != 0 || m_demux.track != 0) {
        return FRAME_MORE;
    }
    if (!last && m_demux.new_frame && m_frame_len > 0) {
        return finish_frame(FRAME_COMPLETE_NEXT);
    }
    m_frame_pts = m_demux.pcr_ms;
    const int appended = append_payload(packet);
    if (appended < 0) {
        logError("%s:%d _ts_stream.dec ret:%d \n", __FILE__, __LINE__, appended);
        return FRAME_FAILED;
    }
    return last ? finish_frame(FRAME_COMPLETE) : FRAME_MORE;
}

bool Ts2Frame::alloc_buffer() {
    if (m_frame_buf == nullptr) {
        m_frame_buf.reset(new (std::nothrow) unsigned char[STREAM_BUFFER_LEN]);
        if (m_frame_buf == nullptr) {
            logError("%s:%d new failed \n", __FILE__, __LINE__);
            return false;
        }
        m_frame_capacity = STREAM_BUFFER_LEN;
    }
    return true;
}

int Ts2Frame::append_payload(const unsigned char* packet) {
    if (m_demux.packet.pid == SDT_PID) {
        return 0;
    }
    CByteReader payload(packet, TS_PACK_LEN);
    payload.Skip(static_cast<size_t>(m_demux.packet.payload_offset));
    payload.Skip(skip_pes_header(payload.Rest(), static_cast<uint32_t>(payload.Remaining())));
    if (payload.Remaining() > m_frame_capacity - m_frame_len) {
        return APPEND_OVERFLOW;
    }
    CByteWriter frame(m_frame_buf.get(), m_frame_capacity);
    frame.Reserve(m_frame_len);
    frame.WriteBytes(payload.Rest(), payload.Remaining());
    m_frame_len = static_cast<uint32_t>(frame.Offset());
    ++m_frame_packets;
    return 0;
}

// How many bytes at the front of a payload aren't elementary stream: the PES header, which may go on in the next
// packet, and behind it what an H.264 frame doesn't begin with.
uint32_t Ts2Frame::skip_pes_header(const unsigned char* payload, uint32_t len) {
    CByteReader reader(payload, len);
    if (m_demux.packet.unit_start && reader.ReadU24() == 0x000001 && (reader.PeekU8() & 0x80) != 0) {
        m_pes_skip = PES_FIXED_LEN + reader.PeekU8(PES_FIXED_LEN - 4);
    }
    if (m_pes_skip == 0) {
        return 0;
    }
    const uint32_t skipped = std::min(m_pes_skip, len);
    m_pes_skip -= skipped;
    if (m_pes_skip > 0 || m_demux.table.tracks[0].kind != STREAM_KIND_H264) {
        return skipped;
    }
    reader.Seek(skipped);
    return skipped + static_cast<uint32_t>(h264_begin(reader.Rest(), reader.Remaining()));
}

int Ts2Frame::finish_frame(int result) {
    const int ret = decode_frame();
    if (ret < 0) {
        logError("%s:%d _ts_stream.dec ret:%d \n", __FILE__, __LINE__, ret);
        return FRAME_FAILED;
    }
    return result;
}

// Finds out type and size of the whole frame.
int Ts2Frame::decode_frame() {
    m_kind = m_demux.table.tracks[0].kind;
    switch (m_kind) {
        case STREAM_KIND_H264:
            decode_h264();
            return 0;
        case STREAM_KIND_MPEG4:
            decode_mpeg4();
            return 0;
        case STREAM_KIND_MPEG2:
            decode_mpeg2();
            return 0;
        default:
            logError("%s:%d, unsupported encode type, %d.\n", __FILE__, __LINE__, m_kind);
            return -1;
    }
}

void Ts2Frame::decode_h264() {
    m_frame_type = first_slice(m_frame_buf.get(), m_frame_len) == H264_NAL_IDR ? FRAME_TYPE_I : FRAME_TYPE_P;
    if (m_frame_type != FRAME_TYPE_I || m_frame_len < MIN_H264_KEY) {
        return;
    }
    CByteReader frame(m_frame_buf.get(), m_frame_len);
    StartCodeScan scan(frame.Rest(), m_frame_len);
    while (scan.Next()) {
        if (h264_nal_type(scan.Value()) != H264_NAL_SPS) {
            continue;
        }
        frame.Seek(scan.Offset() + 3);
        const unsigned char* nal = frame.Rest();
        const size_t nal_len = std::min(frame.Remaining(), find_start_code3(nal, frame.Remaining()));
        H264Sps sps;
        if (h264_parse_sps(nal, nal_len, sps)) {
            set_size(sps.width, sps.height);
            m_interlace = sps.frame_mbs_only ? 0 : 1;
        }
        return;
    }
}

void Ts2Frame::decode_mpeg4() {
    m_frame_type = FRAME_TYPE_P;
    StartCodeScan scan(m_frame_buf.get(), m_frame_len);
    CByteReader frame(m_frame_buf.get(), m_frame_len);
    // vop_coding_type, the two bits behind the start code: 0 is an I picture (ISO 14496-2 6.2.5).
    if (scan.NextOf(MPEG4_VOP, MPEG4_VOP) && scan.Offset() + 4 < m_frame_len && frame.PeekU8(scan.Offset() + 4) <= 63) {
        m_frame_type = FRAME_TYPE_I;
        Mpeg4Vol vol;
        if (mpeg4_parse_vol(m_frame_buf.get(), m_frame_len, vol)) {
            set_size(vol.width, vol.height);
        }
    }
}

void Ts2Frame::decode_mpeg2() {
    static const int LETTERS[] = {FRAME_TYPE_P, FRAME_TYPE_I, FRAME_TYPE_P, FRAME_TYPE_B};
    const int type = mpeg2_picture_type(m_frame_buf.get(), m_frame_len);
    m_frame_type = type >= 0 && type <= 3 ? LETTERS[type] : FRAME_TYPE_P;
    Mpeg2Sequence sequence;
    if (mpeg2_parse_sequence(m_frame_buf.get(), m_frame_len, sequence)) {
        set_size(sequence.width, sequence.height);
    }
}

void Ts2Frame::set_size(uint32_t width, uint32_t height) {
    if (width >= 1 && height >= 1) {
        m_width = static_cast<uint16_t>(width);
        m_height = static_cast<uint16_t>(height);
    }
}

uint32_t Ts2Frame::GetFrame(unsigned char* buffer, uint32_t capacity) const {
    CByteReader frame(m_frame_buf.get(), m_frame_len);
    return buffer != nullptr && m_frame_len <= capacity && frame.Read(buffer, m_frame_len) ? m_frame_len : 0;
}

void Ts2Frame::Clear() {
    m_frame_len = 0;
    m_frame_packets = 0;
    m_pes_skip = 0;
}

}  // namespace Vidora
}  // namespace Kavio
