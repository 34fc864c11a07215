#include "StreamParser/Ts2Frame.h"

#include <algorithm>
#include <utility>

#include "StreamParser/Mpeg2Parser.h"
#include "StreamParser/StartCodeScan.h"
#include "Vidora/H264Parser.h"
#include "Vidora/Mpeg4Parser.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/StartCode.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr int SDT_PID = 17;            // service descriptions: no media even if a program map names it
constexpr uint32_t PES_FIXED_LEN = 9;  // up to the header length, inclusive
constexpr uint32_t PES_START_LEN = 6;  // up to the packet length, inclusive
constexpr uint32_t MIN_H264_KEY = 65;  // a shorter frame isn't searched for a parameter set
constexpr size_t CODE_PREFIX_LEN = 3;  // of a start code, without the byte behind it
constexpr int APPEND_OVERFLOW = -2;
// What of a packet's first four bytes tells that nothing but payload of a known track follows: sync byte, no unit
// start, PID, payload.
constexpr uint32_t PLAIN_MASK = 0xFF000000 | static_cast<uint32_t>(TS_UNIT_START | TS_PID_MASK) << 8 | TS_HAS_PAYLOAD;
constexpr uint32_t NO_PLAIN_HEAD = 0;

// Where the elementary stream begins in the first bytes of a PES packet: at the first start code of a NAL unit of type
// 1 to 8, with the zero byte of a four-byte one. What precedes, such as an access unit delimiter, is dropped.
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

// The start code values that open a picture, or a part of one.
struct PictureRow {
    int kind;
    uint8_t first, last;  // start code values; NAL unit types in H.264
    uint8_t mask;         // what of the byte behind the start code counts
};

constexpr PictureRow PICTURES[] = {
    {STREAM_KIND_H264, H264_NAL_SLICE, H264_NAL_IDR, 0x1F},
    {STREAM_KIND_MPEG4, MPEG4_VOP, MPEG4_VOP, 0xFF},
    {STREAM_KIND_MPEG2, MPEG2_PICTURE, MPEG2_PICTURE, 0xFF},
};

const PictureRow* find_row(int kind) {
    for (const PictureRow& row : PICTURES) {
        if (row.kind == kind) {
            return &row;
        }
    }
    return nullptr;
}

// Is the slice behind a NAL unit header the first one of its picture? first_mb_in_slice is an Exp-Golomb code: 0 is the
// bit 1.
bool is_first_slice(uint8_t behind_header) {
    return (behind_header & 0x80) != 0;
}

// Would a frame of `len` bytes leave more than a quarter of its memory empty?
bool is_wasted(uint32_t len, uint32_t capacity) {
    return capacity - len > capacity / 4;
}

}  // namespace

int Ts2Frame::PutPacket(const unsigned char* packet, int len, bool last) {
    if (!OSTRA_ASSERT(len == TS_PACK_LEN) || packet == nullptr) {
        return FRAME_FAILED;
    }
    if (!last && append_plain(packet)) {
        return FRAME_MORE;
    }
    m_plain_head = NO_PLAIN_HEAD;
    const int ret = ts_demux(m_demux, packet);
    if (ret == TS_DEMUX_FAILED) {
        if (m_demux_log.Pass()) {
            logError("%s:%d _ts_stream.demux ret:%d \n", __FILE__, __LINE__, ret);
        }
        return FRAME_FAILED;
    }
    if (ret == TS_DEMUX_UNKNOWN_PID || !m_demux.is_media || m_demux.program != 0 || m_demux.track != 0 ||
        m_demux.packet.pid == SDT_PID) {
        return FRAME_MORE;
    }
    return put_media(packet, last);
}

// Most packets bring nothing but more of a frame whose picture is known, and follow another packet of its track.
// Appends such a one; false, with no change, for any other.
inline bool Ts2Frame::append_plain(const unsigned char* packet) {
    CByteReader payload(packet, TS_PACK_LEN);
    const uint32_t head = payload.ReadU32();
    if ((head & PLAIN_MASK) != m_plain_head) {
        return false;
    }
    if ((head & TS_HAS_ADAPTATION) != 0) {
        const CByteReader field = payload.SubReader(payload.ReadU8());
        if (!payload.Ok() || (field.PeekU8() & TS_HAS_PCR) != 0) {
            return false;
        }
    }
    if (payload.Remaining() > m_capacity - m_frame_len) {
        return false;
    }
    m_frame_pts = m_demux.pcr_ms;
    append(payload);
    return true;
}

int Ts2Frame::put_media(const unsigned char* packet, bool last) {
    CByteReader payload(packet, TS_PACK_LEN);
    payload.Skip(static_cast<size_t>(m_demux.packet.payload_offset));
    if (m_demux.packet.unit_start && !begin_pes(opens_picture(payload))) {
        return finish_frame(FRAME_COMPLETE_NEXT);
    }
    if (!m_in_frame) {
        return FRAME_MORE;
    }
    m_frame_pts = m_demux.pcr_ms;
    const int appended = append_payload(payload.Rest(), static_cast<uint32_t>(payload.Remaining()));
    if (appended < 0) {
        if (m_dec_log.Pass()) {
            logError("%s:%d _ts_stream.dec ret:%d \n", __FILE__, __LINE__, appended);
        }
        return FRAME_FAILED;
    }
    if (m_pes_skip == 0 && m_picture != NO_START_CODE) {
        m_plain_head = uint32_t{TS_SYNC_BYTE} << 24 | static_cast<uint32_t>(m_demux.packet.pid) << 8 | TS_HAS_PAYLOAD;
    }
    if (last && is_rest()) {
        Clear();
        return FRAME_MORE;
    }
    return last ? finish_frame(FRAME_COMPLETE) : FRAME_MORE;
}

// A PES packet begins, and with it a picture if it `opens` one. False if the frame in work is complete without it.
bool Ts2Frame::begin_pes(bool opens) {
    if (m_picture != NO_START_CODE && opens) {
        if (!is_rest()) {
            return false;
        }
        begin_frame();
    }
    m_in_frame = m_in_frame || opens || !m_joined;
    return true;
}

// Does the PES packet that begins in `payload` begin a picture, as far as this packet shows it? One that doesn't begin
// with a start code goes on with what the last one began, and so does one with a later slice.
bool Ts2Frame::opens_picture(CByteReader payload) const {
    payload.Skip(PES_FIXED_LEN - 1);
    payload.Skip(payload.ReadU8());
    int zeros = 0;
    while (payload.Remaining() > 0 && payload.PeekU8() == 0 && payload.Skip(1)) {
        ++zeros;
    }
    if (!payload.Ok() || payload.Remaining() < 3) {
        return true;  // too little to decide: the header may go on in the next packet
    }
    return zeros >= 2 && payload.ReadU8() == 1 && opens_picture_by_code(payload);
}

// The same by what is behind a start code's 00 00 01.
bool Ts2Frame::opens_picture_by_code(CByteReader& payload) const {
    const uint8_t code = payload.ReadU8();
    const int type = h264_nal_type(code);
    switch (track_kind()) {
        case STREAM_KIND_H264:
            return (type != H264_NAL_SLICE && type != H264_NAL_IDR) || is_first_slice(payload.ReadU8());
        case STREAM_KIND_MPEG2:
            return code < MPEG2_SLICE_FIRST || code > MPEG2_SLICE_LAST;
        default:
            return true;
    }
}

// Is the frame in work the rest of one whose first slices came before the first packet?
bool Ts2Frame::is_rest() const {
    CByteReader frame(m_data, m_frame_len);
    return m_joined && track_kind() == STREAM_KIND_H264 && m_picture != NO_START_CODE && frame.Skip(m_picture + 4) &&
           frame.Remaining() > 0 && !is_first_slice(frame.PeekU8());
}

// Makes room for a PES packet that brings `told` bytes, 0 if it doesn't tell. What can't be had now is asked for again
// by what comes.
void Ts2Frame::expect(uint32_t told) {
    if (m_frame_len > 0) {
        reserve(told);
    } else if (told > 0 ? told > m_capacity || is_wasted(told, m_capacity) : m_capacity < m_largest) {
        resize(told > 0 ? told : m_largest);
    }
}

// Makes room for `len` bytes behind those of the frame.
bool Ts2Frame::reserve(uint32_t len) {
    if (len <= m_capacity - m_frame_len) {
        return true;
    }
    if (len > MAX_FRAME_LEN - m_frame_len) {
        return false;
    }
    return resize(std::min(std::max(m_frame_len + len, 2 * m_capacity), MAX_FRAME_LEN));
}

// Moves the frame to memory of `capacity` bytes, which takes it.
bool Ts2Frame::resize(uint32_t capacity) {
    Flumen::CMediaFrame other(capacity);
    if (!other.valid()) {
        logError("%s:%d new failed \n", __FILE__, __LINE__);
        return false;
    }
    GetFrame(other.getBuffer(), capacity);
    hold(std::move(other));
    return true;
}

void Ts2Frame::hold(Flumen::CMediaFrame&& buffer) {
    m_buffer = std::move(buffer);
    m_data = m_buffer.getBuffer();
    m_capacity = m_buffer.capacity();
}

int Ts2Frame::append_payload(const unsigned char* payload, uint32_t len) {
    CByteReader reader(payload, len);
    if (m_demux.packet.unit_start || m_pes_skip > 0) {
        reader.Skip(skip_pes_header(payload, len));
    }
    if (!reserve(static_cast<uint32_t>(reader.Remaining()))) {
        return APPEND_OVERFLOW;
    }
    const uint32_t before = m_frame_len;
    append(reader);
    if (m_picture == NO_START_CODE) {
        find_picture(before);
    }
    return 0;
}

// Puts the rest of `bytes` behind the frame, where there is room for it.
inline void Ts2Frame::append(const CByteReader& bytes) {
    CByteWriter frame(m_data, m_capacity);
    frame.Reserve(m_frame_len);
    frame.WriteBytes(bytes.Rest(), bytes.Remaining());
    m_frame_len = static_cast<uint32_t>(frame.Offset());
}

// Looks for the first picture of the frame in the bytes from `from` on, and in a start code that began before them.
void Ts2Frame::find_picture(uint32_t from) {
    const PictureRow* row = find_row(track_kind());
    if (row == nullptr) {
        return;
    }
    const size_t begin = from > CODE_PREFIX_LEN ? from - CODE_PREFIX_LEN : 0;
    CByteReader frame(m_data, m_frame_len);
    frame.Seek(begin);
    StartCodeScan scan(frame.Rest(), frame.Remaining());
    while (scan.Next()) {
        const int value = scan.Value() & row->mask;
        if (value >= row->first && value <= row->last) {
            m_picture = begin + scan.Offset();
            return;
        }
    }
}

// How many bytes at the front of a payload aren't elementary stream: the PES header, which may go on in the next
// packet, and behind it what an H.264 frame doesn't begin with.
uint32_t Ts2Frame::skip_pes_header(const unsigned char* payload, uint32_t len) {
    CByteReader reader(payload, len);
    if (m_demux.packet.unit_start && reader.ReadU24() == START_CODE3 && (reader.PeekU8() & 0x80) != 0) {
        reader.Skip(1);
        const uint32_t told = reader.ReadU16();  // bytes behind it
        m_pes_skip = PES_FIXED_LEN + reader.PeekU8(PES_FIXED_LEN - PES_START_LEN - 1);
        expect(std::max(PES_START_LEN + told, m_pes_skip) - m_pes_skip);
    }
    if (m_pes_skip == 0) {
        return 0;
    }
    const uint32_t skipped = std::min(m_pes_skip, len);
    m_pes_skip -= skipped;
    // A PES packet in the middle of a frame may go on inside a slice.
    if (m_pes_skip > 0 || m_frame_len > 0 || track_kind() != STREAM_KIND_H264) {
        return skipped;
    }
    reader.Seek(skipped);
    return skipped + static_cast<uint32_t>(h264_begin(reader.Rest(), reader.Remaining()));
}

int Ts2Frame::finish_frame(int result) {
    const int ret = decode_frame();
    if (ret < 0) {
        if (m_dec_log.Pass()) {
            logError("%s:%d _ts_stream.dec ret:%d \n", __FILE__, __LINE__, ret);
        }
        return FRAME_FAILED;
    }
    m_complete = true;
    return result;
}

// Finds out type and size of the whole frame.
int Ts2Frame::decode_frame() {
    m_kind = track_kind();
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
            if (m_kind_log.Pass()) {
                logError("%s:%d, unsupported encode type, %d.\n", __FILE__, __LINE__, m_kind);
            }
            return -1;
    }
}

void Ts2Frame::decode_h264() {
    CByteReader picture(m_data, m_frame_len);
    const bool found = m_picture != NO_START_CODE && picture.Skip(m_picture + 3);
    const bool key = found && h264_nal_type(picture.PeekU8()) == H264_NAL_IDR;
    m_frame_type = key ? FRAME_TYPE_I : FRAME_TYPE_P;
    if (!key || m_frame_len < MIN_H264_KEY) {
        return;
    }
    CByteReader frame(m_data, m_frame_len);
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
    StartCodeScan scan(m_data, m_frame_len);
    CByteReader frame(m_data, m_frame_len);
    // vop_coding_type, the two bits behind the start code: 0 is an I picture (ISO 14496-2 6.2.5).
    if (scan.NextOf(MPEG4_VOP, MPEG4_VOP) && scan.Offset() + 4 < m_frame_len && frame.PeekU8(scan.Offset() + 4) <= 63) {
        m_frame_type = FRAME_TYPE_I;
        Mpeg4Vol vol;
        if (mpeg4_parse_vol(m_data, m_frame_len, vol)) {
            set_size(vol.width, vol.height);
        }
    }
}

void Ts2Frame::decode_mpeg2() {
    static const int LETTERS[] = {FRAME_TYPE_P, FRAME_TYPE_I, FRAME_TYPE_P, FRAME_TYPE_B};
    const int type = mpeg2_picture_type(m_data, m_frame_len);
    m_frame_type = type >= 0 && type <= 3 ? LETTERS[type] : FRAME_TYPE_P;
    Mpeg2Sequence sequence;
    if (mpeg2_parse_sequence(m_data, m_frame_len, sequence)) {
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
    CByteReader frame(m_data, m_frame_len);
    return buffer != nullptr && m_frame_len <= capacity && frame.Read(buffer, m_frame_len) ? m_frame_len : 0;
}

Flumen::CMediaFrame Ts2Frame::TakeFrame() {
    Flumen::CMediaFrame frame;
    if (m_frame_len > 0 && !is_wasted(m_frame_len, m_capacity)) {
        frame = std::move(m_buffer);
        hold(Flumen::CMediaFrame());
        frame.resize(m_frame_len);
    } else {
        frame = Flumen::CMediaFrame(m_frame_len);
        GetFrame(frame.getBuffer(), m_frame_len);
    }
    m_largest = std::min(std::max(m_largest, m_frame_len + m_frame_len / 8), MAX_FRAME_LEN);
    m_frame_len = 0;
    return frame;
}

void Ts2Frame::Clear() {
    begin_frame();
    // Behind a frame that was told the next one follows without a gap.
    m_joined = !m_complete;
    m_complete = false;
    m_in_frame = false;
}

void Ts2Frame::begin_frame() {
    m_frame_len = 0;
    m_pes_skip = 0;
    m_picture = NO_START_CODE;
    m_plain_head = NO_PLAIN_HEAD;
}

}  // namespace Vidora
}  // namespace Kavio
