#include "StreamParser/Frame2Rtp.h"

#include <algorithm>
#include <climits>

#include "StreamParser/JpegTables.h"
#include "StreamParser/PrintLevel.h"
#include "StreamParser/RtpHeader.h"
#include "Tramel/Interleave.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

// In the first word of an RTP header.
constexpr uint8_t RTP_VERSION_2 = 0x80;
constexpr uint32_t RTP_EXTENSION_BIT = 0x10000000;
constexpr uint32_t RTP_MARKER = 0x00800000;

// A JPEG picture's extension carries one word more: an SOI marker and the head of what a reader of the replay
// extension expects behind it.
constexpr unsigned int JPEG_EXTRA_EXTENSION = 4;
constexpr uint16_t JPEG_EXTENSION_WORDS = 4;

constexpr int64_t MS_PER_SEC = 1000;

// Every byte of a frame must be countable, headers included, in the int that the interface returns.
constexpr unsigned int MAX_FRAME_LEN = INT_MAX / 2;

constexpr uint32_t word_of(uint8_t first, uint8_t second, uint16_t rest) {
    return uint32_t{first} << 24 | uint32_t{second} << 16 | rest;
}

}  // namespace

int CFrame2Rtp::PutFrame(const unsigned char* data, unsigned int len, int enc_type, uint64_t pts, uint8_t extra) {
    print_input_frame(enc_type, pts, len);
    m_index = 0;
    m_count = cut(data, len, enc_type, extra);
    if (m_count < 1) {
        m_count = 0;
        logError("CFrame2Rtp::PutFrame error (enc type = %d)\n", enc_type);
        return -1;
    }
    m_enc_type = enc_type;
    if (m_first_pts == 0) {
        m_first_pts = pts;
    }
    m_pts_delta = pts - m_first_pts;
    return 0;
}

int CFrame2Rtp::cut(const unsigned char* data, uint32_t len, int enc_type, uint8_t extra) {
    if (len > MAX_FRAME_LEN || (data == nullptr && enc_type != ENC_TYPE_JPEG)) {  // the JPEG rule has its own word
        return -1;
    }
    switch (enc_type) {
        case ENC_TYPE_H264:
            return m_nal_units ? rtp_cut_nal_units(data, len, m_nodes) : rtp_cut_h264(data, len, m_nodes);
        case ENC_TYPE_MPEG4:  // no payload header (RFC 6416 5.1), so it can be cut anywhere
        case ENC_TYPE_AUDIO:
            return rtp_cut_plain(data, len, m_nodes);
        case ENC_TYPE_JPEG:
            return rtp_cut_jpeg(data, len, m_quant_header, m_nodes);
        case ENC_TYPE_MPEG_AUDIO:
            return rtp_cut_mpeg_audio(data, len, m_audio_headers, m_nodes);
        case ENC_TYPE_ASSIST:
            m_assist_header[0] = extra;
            return rtp_cut_assist_frame(data, len, m_assist_header, m_nodes);
        default:
            logError("CFrame2Rtp::PutFrame enc_type[%d] unknown!\n", enc_type);
            return -1;
    }
}

int CFrame2Rtp::GetPacketCount() {
    return m_count;
}

int CFrame2Rtp::GetPacketSize() {
    return current() == nullptr ? 0 : RTP_HEADER_LEN + static_cast<int>(current()->Size());
}

// What the headers of a frame's packets share.
//
//  |      '$'      |    channel    |            length             |     RFC 2326 10.12
//  |V=2|P|X|  CC   |M|     PT      |       sequence number         |
//  |                           timestamp                           |
//  |                             SSRC                              |     RFC 3550 5.1
struct CFrame2Rtp::FrameHead {
    uint32_t framing;     // bytes of each packet's interleave header, 0 without
    uint32_t interleave;  // that header without its length
    uint32_t first_word;  // version and payload type
    unsigned char time_and_source[8];
    int marked;          // index of the packet with the marker, -1 for none
    uint32_t extension;  // bytes of the first packet's header extension
    bool printed;
};

inline CFrame2Rtp::FrameHead CFrame2Rtp::frame_head(const uint8_t* interleave) const {
    FrameHead head = {};
    if (interleave != nullptr) {
        head.framing = Tramel::INTERLEAVE_HEADER_SIZE;
        head.interleave = word_of(interleave[0], interleave[1], 0);
    }
    head.first_word = word_of(RTP_VERSION_2, m_payload_type & RTP_PAYLOAD_TYPE_MASK, 0);
    CByteWriter(head.time_and_source, sizeof(head.time_and_source)).WriteU64(uint64_t{timestamp()} << 32 | m_ssrc);
    head.marked = m_marker ? m_count - 1 : -1;
    head.extension = GetExtensionSize();
    head.printed = IsPrinted(PRINT_OUTPUT);
    return head;
}

// Writes one packet, behind its interleave header if there is to be one. One check for all of it. Inline throughout, so
// that the writer, which is a variable of the caller's, lives in registers.
[[gnu::always_inline]] inline void CFrame2Rtp::write_packet(CByteWriter& writer, const FrameHead& head, int index,
                                                            uint16_t sequence) const {
    const RtpPacketNode& node = m_nodes.begin()[index];
    const uint32_t extension = index == 0 ? head.extension : 0;
    const uint32_t len = RTP_HEADER_LEN + extension + node.Size();
    unsigned char* place = writer.Reserve(head.framing + len);
    if (place == nullptr) {
        return;
    }
    const bool marker = index == head.marked;
    const uint32_t flags = (marker ? RTP_MARKER : 0) | (extension > 0 ? RTP_EXTENSION_BIT : 0);
    const uint32_t first_word = head.first_word | flags | sequence;
    if (head.framing > 0) {
        CByteWriter(place, 8).WriteU64(uint64_t{head.interleave | (len & 0xFFFF)} << 32 | first_word);
        place += Tramel::INTERLEAVE_HEADER_SIZE;
    } else {
        CByteWriter(place, 4).WriteU32(first_word);
    }
    std::memcpy(place + 4, head.time_and_source, 8);
    if (m_bytes_per_tick > 0) {
        CByteWriter(place + 4, 4).WriteU32(packet_timestamp(node));
    }
    place += RTP_HEADER_LEN;
    if (extension > 0) {
        write_extension(CByteWriter(place, extension));
        place += extension;
    }
    node.Store(place);
    if (head.printed) {
        print_packet(marker, sequence, len);
    }
}

void CFrame2Rtp::print_packet(bool marker, uint16_t sequence, uint32_t len) const {
    R3Printf("Output RTP: ssrc[%08x] pt[%d] m[%d] seq[%04x] ts[%08x] len = %d\n", m_ssrc,
             m_payload_type & RTP_PAYLOAD_TYPE_MASK, marker ? 1 : 0, sequence, timestamp(), static_cast<int>(len));
}

// Of the packet's first byte (RFC 3551 4.1).
uint32_t CFrame2Rtp::packet_timestamp(const RtpPacketNode& node) const {
    return timestamp() + static_cast<uint32_t>(node.body - m_nodes.begin()->body) / m_bytes_per_tick;
}

// RFC 3550 5.3.1, as it was given; of a JPEG picture with a word more.
void CFrame2Rtp::write_extension(CByteWriter writer) const {
    writer.WriteBytes(m_extension, sizeof(m_extension));
    if (writer.Remaining() > 0) {
        writer.PatchU16(2, JPEG_EXTENSION_WORDS);
        writer.WriteU16(JPEG_MARKER | JPEG_SOI);
        writer.WriteU16(0x0002);
    }
}

int CFrame2Rtp::GetPacket(unsigned char* buffer, unsigned int capacity) {
    const RtpPacketNode* node = current();
    if (buffer == nullptr || node == nullptr || capacity < RTP_HEADER_LEN + GetExtensionSize() + node->Size()) {
        return 0;
    }
    CByteWriter writer(buffer, capacity);
    write_packet(writer, frame_head(nullptr), m_index, m_sequence);
    ++m_sequence;
    return static_cast<int>(writer.Offset());
}

// All that a loop of GetPacket and NextPacket does, with everything that the packets share taken out of the loop.
bool CFrame2Rtp::GetFrame(CByteWriter& out, const uint8_t* interleave) {
    const FrameHead head = frame_head(interleave);
    CByteWriter writer = out;
    uint16_t sequence = m_sequence;
    for (int index = m_index; index < m_count; ++index, ++sequence) {
        write_packet(writer, head, index, sequence);
    }
    m_index = m_count;
    m_sequence = sequence;
    out = writer;
    return writer.Ok();
}

unsigned int CFrame2Rtp::GetExtensionSize() const {
    if ((m_flags & RTP_FLAG_EXTENSION) == 0 || m_count == 0 || m_index != 0) {
        return 0;
    }
    return m_enc_type == ENC_TYPE_JPEG ? RTP_EXTENSION_LEN + JPEG_EXTRA_EXTENSION : RTP_EXTENSION_LEN;
}

uint32_t CFrame2Rtp::timestamp() const {
    // By whole seconds and the rest, which no distance overflows; a frame in front of the first one counts back.
    const auto distance_ms = static_cast<int64_t>(m_pts_delta);
    const int64_t rest_ms = (distance_ms % MS_PER_SEC + MS_PER_SEC) % MS_PER_SEC;
    const int64_t seconds = (distance_ms - rest_ms) / MS_PER_SEC;
    const auto rest_ticks = static_cast<uint32_t>(rest_ms * m_clock_rate / MS_PER_SEC);
    return m_timestamp + static_cast<uint32_t>(seconds) * m_clock_rate + rest_ticks;  // wraps, as it is to
}

int CFrame2Rtp::NextPacket() {
    m_index = std::min(m_index + 1, m_count);
    return m_index < m_count ? 0 : -1;
}

int CFrame2Rtp::GetTotalSize() {
    int total = 0;
    for (const RtpPacketNode* node = m_nodes.begin() + m_index; node != m_nodes.begin() + m_count; ++node) {
        total += RTP_HEADER_LEN + static_cast<int>(node->Size());
    }
    return total;
}

void CFrame2Rtp::SetRtpInfo(uint32_t ssrc, uint8_t payload_type, uint16_t sequence, uint32_t timestamp,
                            uint32_t clock_rate) {
    m_ssrc = ssrc;
    m_payload_type = payload_type;
    m_sequence = sequence;
    m_timestamp = timestamp;
    m_clock_rate = clock_rate;
    m_first_pts = 0;
    // GetRtpInfo returns `timestamp` from now on: owners read the state and set it again, several times in a row at a
    // pause or a change of format, and the time line must not move on by that.
    m_pts_delta = 0;
}

void CFrame2Rtp::GetRtpInfo(RtpEncParam& param) const {
    param.ssrc = m_ssrc;
    param.payload_type = m_payload_type;
    param.sequence = m_sequence;
    param.timestamp = timestamp();
    param.clock_rate = m_clock_rate;
}

void CFrame2Rtp::SetRtpFlags(uint32_t flags, const uint8_t extension[RTP_EXTENSION_LEN]) {
    m_flags |= flags;
    if ((m_flags & RTP_FLAG_EXTENSION) != 0) {
        std::copy(extension, extension + RTP_EXTENSION_LEN, m_extension);
    }
}

}  // namespace Vidora
}  // namespace Kavio
