#include "StreamParser/Rtp2Frame.h"

#include <new>

#include "StreamParser/PrintLevel.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr int VIDEO_TICKS_PER_MS = 90;
constexpr uint32_t MPEG_AUDIO_HEADER_LEN = 4;  // RFC 2250 3.5
constexpr uint32_t ASSIST_HEADER_LEN = 8;

}  // namespace

int CRtp2Frame::Init(int enc_type, uint8_t payload_type, uint32_t clock_rate) {
    m_enc_type = enc_type;
    m_payload_type = payload_type;
    m_clock_rate = clock_rate != 0 ? clock_rate : m_clock_rate;
    if (enc_type != ENC_TYPE_MPEG2TS) {
        m_ts2frame.reset();
    } else if (m_ts2frame == nullptr) {
        m_ts2frame.reset(new (std::nothrow) Ts2Frame);
        return m_ts2frame != nullptr ? 0 : -1;
    }
    return 0;
}

int CRtp2Frame::SetMpeg4Config(const unsigned char* data, int len) {
    if (data == nullptr || len < 1 || len >= static_cast<int>(CONFIG_SIZE)) {
        return -1;
    }
    CByteWriter config(m_config, CONFIG_SIZE);
    config.WriteBytes(data, static_cast<size_t>(len));
    m_config_len = static_cast<uint32_t>(config.Offset());
    return 0;
}

int CRtp2Frame::SetH264Config(const unsigned char* sps, int sps_len, const unsigned char* pps, int pps_len) {
    if (sps == nullptr || pps == nullptr || sps_len < 1 || pps_len < 1) {
        return -1;
    }
    return set_h264_config({sps, static_cast<uint32_t>(sps_len)}, {pps, static_cast<uint32_t>(pps_len)});
}

int CRtp2Frame::PutPacket(const unsigned char* buffer, int len) {
    CByteReader packet(buffer, len > 0 ? static_cast<size_t>(len) : 0);
    if (packet.PeekU8() == '$' && packet.Remaining() > RTP_TCP_HEADER_LEN) {
        packet.Skip(RTP_TCP_HEADER_LEN);
    }
    RtpHeader header;
    if (packet.Remaining() <= RTP_HEADER_LEN || !rtp_parse_header(packet.Rest(), packet.Remaining(), header)) {
        return refuse_packet(packet);
    }
    if (header.payload_type != m_payload_type) {
        return put_foreign(header.sequence);
    }
    if (header.timestamp != m_last_ts) {
        m_damaged = false;
    }
    if (IsPrinted(PRINT_INPUT)) {
        R3Printf("Input RTP: ssrc[%08x] pt[%d] m[%d] seq[%04x] ts[%08x] len = %d\n", header.ssrc, header.payload_type,
                 header.marker ? 1 : 0, header.sequence, header.timestamp, static_cast<int>(packet.Remaining()));
    }
    watch_sequence(header);
    if (m_packets == 0) {
        m_last_ts = header.timestamp;
    }
    probe_shared_sequence(header.sequence);
    if (m_nodes.Count() > 0 && header.timestamp != m_last_ts) {
        // The frame ended without a marker, whatever it holds.
        return make_frame() < 0 ? FRAME_FAILED : FRAME_COMPLETE_NEXT;
    }
    if (!store_packet(header)) {
        return refuse_packet(packet);
    }
    advance_time(header.timestamp);
    m_last_ts = header.timestamp;
    m_last_ssrc = header.ssrc;
    m_last_seq = header.sequence;
    ++m_packets;
    if (m_damaged && m_drop_damaged) {
        Clear();  // and so with all that follow with this time stamp
        return FRAME_MORE;
    }
    if (!header.marker) {
        return FRAME_MORE;
    }
    const int ret = make_frame();
    return ret < 0 ? FRAME_FAILED : ret == FRAME_COMPLETE ? FRAME_COMPLETE : FRAME_MORE;
}

int CRtp2Frame::refuse_packet(const CByteReader& packet) const {
    logError("CRtp2Frame::PutPacket input invalid. buf[%p] len[%d]\n", static_cast<const void*>(packet.Rest()),
             static_cast<int>(packet.Remaining()));
    return FRAME_FAILED;
}

// A packet of another payload type: of a sender, perhaps, that interleaves its tracks in one session and counts the
// packets of all of them with one sequence. If so it takes part in the search for gaps, but for one that follows the
// own number 0: that stands for "none yet", so this packet isn't counted and the next own one looks like a gap.
int CRtp2Frame::put_foreign(uint16_t sequence) {
    if (m_last_seq != 0 && m_shared_seq) {
        if (static_cast<uint16_t>(sequence - m_last_seq) != 1) {
            m_damaged = true;
        }
        m_last_seq = sequence;
    } else if (!m_probed) {
        m_probe_armed = true;
        m_probe_seq = sequence;
    }
    return FRAME_MORE;
}

// Tells SSRC changes and gaps, and marks the frame that suffers from them.
void CRtp2Frame::watch_sequence(const RtpHeader& header) {
    if (header.ssrc != m_last_ssrc) {
        // The first packet of a session comes here too, which is nothing to warn of.
        const auto log = m_packets == 0 ? logInfo : logWarn;
        log(">>> RTP SSRC CHANGES from [%08x] to [%08x]\n", m_last_ssrc, header.ssrc);
        if (m_notify != nullptr) {
            m_notify->OnSsrcChanged(m_last_ssrc, header.ssrc);
        }
        return;
    }
    if (static_cast<uint16_t>(header.sequence - m_last_seq) == 1) {
        return;
    }
    logInfo(">>> RTP SEQ DISORDER! last[%d] now[%d]\n", m_last_seq, header.sequence);
    bool clean = false;
    if (header.timestamp != m_last_ts) {
        // The loss lies between frames, in the tail of the last one or in the head of this one.
        clean = opens_cleanly(header);
        if (m_nodes.Count() > 0) {
            notify_disorder(header.sequence);
        }
        Clear();
    }
    if (!clean) {
        notify_disorder(header.sequence);
        m_damaged = true;
    }
}

void CRtp2Frame::notify_disorder(uint16_t sequence) {
    if (m_notify != nullptr) {
        m_notify->OnSequenceDisorder(m_last_seq, sequence);
    }
}

// Does the packet look like the first of an H.264 frame: a slice or a parameter set of its own? The test takes four
// bits of the NAL unit type. An FU-A (12 in four bits) never counts, not even with its start bit set, so a loss in
// front of one always marks the frame.
bool CRtp2Frame::opens_cleanly(const RtpHeader& header) const {
    const int bits = CByteReader(header.payload, header.payload_len).PeekU8() & 0x0F;
    return m_enc_type == ENC_TYPE_H264 && (bits == 1 || bits == 5 || bits == 7);
}

// The first packet of this track behind one of another payload type tells whether both count together.
void CRtp2Frame::probe_shared_sequence(uint16_t sequence) {
    if (!m_probed && m_probe_armed) {
        m_shared_seq = static_cast<uint16_t>(sequence - m_probe_seq) == 1;
        m_probed = true;
    }
    m_probe_armed = false;
}

bool CRtp2Frame::store_packet(const RtpHeader& header) {
    RtpPacketNode* node = nullptr;
    if (header.payload != nullptr && m_nodes.Count() < MAX_PACKETS) {
        node = m_nodes.Append();
    }
    if (node == nullptr) {
        return false;
    }
    node->raw = header.payload;
    node->raw_len = header.payload_len;
    return true;
}

// Audio counts in its own clock, everything else in 90 kHz whatever its clock is said to be. Each step is rounded
// toward zero to whole milliseconds.
void CRtp2Frame::advance_time(uint32_t timestamp) {
    const int64_t delta = static_cast<int32_t>(timestamp - m_last_ts);
    const int64_t step = m_enc_type == ENC_TYPE_AUDIO ? delta * 1000 / m_clock_rate : delta / VIDEO_TICKS_PER_MS;
    m_pts += static_cast<uint64_t>(step);
}

// Turns the packets held into a frame. A frame_result_t; FRAME_MORE: there is no picture among them yet.
int CRtp2Frame::make_frame() {
    const int ret = make_frame_by_type();
    if (ret < 0) {
        logError("CRtp2Frame::PutPacket make_frame[enc_type=%d] fail, ret = %d.\n", m_enc_type, ret);
    }
    return ret;
}

int CRtp2Frame::make_frame_by_type() {
    switch (m_enc_type) {
        case ENC_TYPE_H264:
            return make_h264();
        case ENC_TYPE_MPEG4:
            return make_mpeg4();
        case ENC_TYPE_JPEG:
            return make_jpeg();
        case ENC_TYPE_MPEG2TS:
            return make_ts();
        case ENC_TYPE_MPEG_AUDIO:
            return cut_front(MPEG_AUDIO_HEADER_LEN, false);
        case ENC_TYPE_AUDIO:
            return cut_front(0, false);
        case ENC_TYPE_ASSIST:
            return cut_front(ASSIST_HEADER_LEN, true);
        default:
            logError("CRtp2Frame enc_type[%d] not right!\n", m_enc_type);
            return -1;
    }
}

// The next packet of the frame that make_frame hasn't looked at yet, or null.
RtpPacketNode* CRtp2Frame::next_node() {
    if (m_walk.count >= m_nodes.Count()) {
        return nullptr;
    }
    m_walk.node = m_walk.count == 0 ? m_nodes.Head() : m_walk.node->next;
    ++m_walk.count;
    return m_walk.node;
}

// The payloads without their first `len` bytes, or only the first one without them. The first byte of an assist
// frame's header is its type.
int CRtp2Frame::cut_front(uint32_t len, bool first_only) {
    while (RtpPacketNode* node = next_node()) {
        CByteReader payload(node->raw, node->raw_len);
        const bool first = m_walk.count == 1;
        if (first && m_enc_type == ENC_TYPE_ASSIST) {
            m_assist_type = payload.PeekU8();
        }
        if ((first || !first_only) && !payload.Skip(len)) {
            return -1;
        }
        node->body = payload.Rest();
        node->body_len = static_cast<uint32_t>(payload.Remaining());
    }
    return FRAME_COMPLETE;
}

// Feeds the transport packets to the demultiplexer (RFC 2250 2); the last one ends the frame.
int CRtp2Frame::make_ts() {
    while (m_walk.ts_result == FRAME_MORE) {
        RtpPacketNode* node = next_node();
        if (node == nullptr) {
            break;
        }
        CByteReader payload(node->raw, node->raw_len);
        while (m_walk.ts_result == FRAME_MORE && payload.Remaining() >= TS_PACK_LEN) {
            const unsigned char* packet = payload.ReadBytes(TS_PACK_LEN);
            const bool last = m_walk.count == m_nodes.Count() && payload.Remaining() < TS_PACK_LEN;
            m_walk.ts_result = m_ts2frame->PutPacket(packet, TS_PACK_LEN, last);
        }
    }
    return m_walk.ts_result;
}

void CRtp2Frame::set_config_prefix() {
    RtpPacketNode* head = m_nodes.Head();
    head->prefix = m_config;
    head->prefix_len = m_config_len;
}

uint32_t CRtp2Frame::GetFrameSize() const {
    if (m_ts2frame != nullptr) {
        return m_ts2frame->GetFrameSize();
    }
    uint32_t size = 0;
    const RtpPacketNode* node = m_nodes.Head();
    for (uint32_t i = 0; i < m_nodes.Count(); ++i, node = node->next) {
        size += node->Size();
    }
    return size;
}

uint32_t CRtp2Frame::GetFrame(unsigned char* buffer, uint32_t capacity) const {
    if (buffer == nullptr) {
        return 0;
    }
    uint32_t size = 0;
    if (m_ts2frame != nullptr) {
        size = m_ts2frame->GetFrame(buffer, capacity);
    } else {
        CByteWriter writer(buffer, capacity);
        const RtpPacketNode* node = m_nodes.Head();
        for (uint32_t i = 0; i < m_nodes.Count(); ++i, node = node->next) {
            node->Write(writer);
        }
        size = writer.Ok() ? static_cast<uint32_t>(writer.Offset()) : 0;
    }
    if (IsPrinted(PRINT_OUTPUT)) {
        R3Printf("Output Frame[%s]: ts[%08x] len = %d\n", enc_type_name(m_enc_type), static_cast<unsigned>(m_pts),
                 static_cast<int>(size));
    }
    return size;
}

int CRtp2Frame::GetFrameType() const {
    if (m_ts2frame != nullptr) {
        return m_ts2frame->GetFrameType();
    }
    switch (m_enc_type) {
        case ENC_TYPE_ASSIST:
            return FRAME_TYPE_ASSIST;
        case ENC_TYPE_MPEG_AUDIO:
        case ENC_TYPE_AUDIO:
            return FRAME_TYPE_AUDIO;
        case ENC_TYPE_JPEG:
            return m_key_frame ? FRAME_TYPE_JPEG : FRAME_TYPE_P;
        default:
            return m_key_frame ? FRAME_TYPE_I : FRAME_TYPE_P;
    }
}

int CRtp2Frame::GetTsEncodeType() const {
    const int kind = m_ts2frame != nullptr ? m_ts2frame->GetKind() : STREAM_KIND_NONE;
    switch (kind) {
        case STREAM_KIND_MPEG4:
            return KX_VIDEO_MPEG4;
        case STREAM_KIND_H264:
            return KX_VIDEO_H264;
        case STREAM_KIND_MPEG2:
            return KX_VIDEO_MPEG2;
        default:
            logError("%s %d do not support type: %d\n", __FILE__, __LINE__, kind);
            return -1;
    }
}

void CRtp2Frame::Clear() {
    if (m_ts2frame != nullptr) {
        m_ts2frame->Clear();
    }
    m_nodes.Clear();
    m_walk = Walk();
}

}  // namespace Vidora
}  // namespace Kavio
