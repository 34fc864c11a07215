#include "StreamParser/Rtp2Frame.h"

#include "Ostra/MemoryTrail.h"
#include "StreamParser/PrintLevel.h"
#include "StreamParser/StreamParser.h"
#include "StreamParser/TsTable.h"
#include "Tramel/Interleave.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint32_t VIDEO_CLOCK = 90000;
constexpr int PACKET_REFUSED = -2;  // inside, for a packet that can't be taken

void print_packet(const RtpHeader& header, size_t len) {
    if (IsPrinted(PRINT_INPUT)) {
        R3Printf("Input RTP: ssrc[%08x] pt[%d] m[%d] seq[%04x] ts[%08x] len = %d\n", header.ssrc, header.payload_type,
                 header.marker ? 1 : 0, header.sequence, header.timestamp, static_cast<int>(len));
    }
}

}  // namespace

int CRtp2Frame::Init(int enc_type, uint8_t payload_type, uint32_t clock_rate) {
    m_payload_type = payload_type;
    m_clock_rate = clock_rate != 0 ? clock_rate : m_clock_rate;
    // Audio counts in its own clock, everything else in 90 kHz whatever its clock is said to be.
    m_time.SetRate(enc_type == ENC_TYPE_AUDIO ? m_clock_rate : VIDEO_CLOCK);
    if (enc_type == m_enc_type && m_rule != nullptr) {
        return 0;
    }
    Clear();
    m_enc_type = enc_type;
    m_rule = IRtpFrameRule::Create(enc_type, m_work);
    m_is_stream = m_rule != nullptr && !m_rule->IsFramedByRtp();
    return m_rule != nullptr || !IRtpFrameRule::HasRule(enc_type) ? 0 : -1;
}

int CRtp2Frame::SetMpeg4Config(const unsigned char* data, int len) {
    const bool good = data != nullptr && len >= 1;
    return good && m_work.config.Set(data, static_cast<size_t>(len)) ? 0 : -1;
}

int CRtp2Frame::SetH264Config(const unsigned char* sps, int sps_len, const unsigned char* pps, int pps_len) {
    if (sps == nullptr || pps == nullptr || sps_len < 1 || pps_len < 1) {
        return -1;
    }
    return m_work.config.SetH264({sps, static_cast<uint32_t>(sps_len)}, {pps, static_cast<uint32_t>(pps_len)}) ? 0 : -1;
}

int CRtp2Frame::PutPacket(const unsigned char* buffer, int len) {
    m_dropped = false;
    CByteReader packet(buffer, len > 0 ? static_cast<size_t>(len) : 0);
    if (packet.PeekU8() == Tramel::INTERLEAVE_MARK && packet.Remaining() > Tramel::INTERLEAVE_HEADER_SIZE) {
        packet.Skip(Tramel::INTERLEAVE_HEADER_SIZE);
    }
    RtpHeader header;
    if (!rtp_parse_header(packet.Rest(), packet.Remaining(), header)) {
        return refuse_packet(packet);
    }
    if (header.payload_type != m_payload_type) {
        m_damaged = !m_watch.TakeForeign(header.sequence) || m_damaged;
        return FRAME_MORE;
    }
    if (header.is_empty) {
        m_watch.TakeEmpty(header);
        return FRAME_MORE;
    }
    print_packet(header, packet.Remaining());
    const int ret = m_is_stream ? put_stream(header) : put_framed(header);
    return ret == PACKET_REFUSED ? refuse_packet(packet) : ret;
}

int CRtp2Frame::refuse_packet(const CByteReader& packet) {
    if (m_refused_log.Pass()) {
        logError("CRtp2Frame::PutPacket input invalid. buf[%p] len[%d]\n", static_cast<const void*>(packet.Rest()),
                 static_cast<int>(packet.Remaining()));
    }
    return FRAME_FAILED;
}

bool CRtp2Frame::store_packet(const RtpHeader& header) {
    RtpPacketNode* node = nullptr;
    if (header.payload != nullptr && GetPacketCount() < MAX_PACKETS) {
        node = m_work.nodes.Append();
    }
    if (node == nullptr) {
        return false;
    }
    node->raw = header.payload;
    node->raw_len = header.payload_len;
    return true;
}

void CRtp2Frame::take_packet(const RtpHeader& header, rtp_order_t order) {
    const auto ticks = static_cast<int32_t>(header.timestamp - m_last_ts);
    if (order == RTP_ORDER_JOINS) {
        m_time.Join(ticks);  // RFC 3550 5.1: each source begins its time stamps at random
    } else {
        m_time.Advance(ticks);
    }
    m_last_ts = header.timestamp;
    m_watch.Take(header);
}

// The frame in front of a packet with another time stamp ended without a marker, whatever it holds.
inline bool CRtp2Frame::complete_unmarked(rtp_order_t order) {
    if (make_frame() < 0) {
        drop_packets();
        return false;
    }
    m_complete = true;
    m_unmarked = m_unmarked || order == RTP_ORDER_NEXT;
    return true;
}

// A packet of a frame that is what has its time stamp.
int CRtp2Frame::put_framed(const RtpHeader& header) {
    m_last_ts = m_watch.IsFresh() ? header.timestamp : m_last_ts;
    const bool new_time = header.timestamp != m_last_ts;
    m_damaged = m_damaged && !new_time;
    const rtp_order_t order = m_watch.Look(header);
    if (order != RTP_ORDER_NEXT) {
        mark_gap(header, order);
    }
    m_watch.Probe(header.sequence);
    if (GetPacketCount() > 0 && new_time && complete_unmarked(order)) {
        return FRAME_COMPLETE_NEXT;
    }
    if (!begins_well(header, order)) {
        m_damaged = true;
    }
    if (!store_packet(header)) {
        return PACKET_REFUSED;
    }
    take_packet(header, order);
    m_work.frame_ms = m_time.Ms();
    if (m_damaged && m_drop_damaged) {
        drop_packets();  // and so with all that follow with this time stamp
        return FRAME_MORE;
    }
    const int ret = header.marker ? make_frame() : FRAME_MORE;
    m_complete = ret == FRAME_COMPLETE;
    return ret;
}

int CRtp2Frame::End() {
    const bool is_whole = m_unmarked && !m_is_stream && !m_damaged && !m_complete && GetPacketCount() > 0;
    m_complete = m_complete || (is_whole && make_frame() == FRAME_COMPLETE);
    return m_complete ? FRAME_COMPLETE : FRAME_MORE;
}

// False for the first packet of a frame that can't begin one.
inline bool CRtp2Frame::begins_well(const RtpHeader& header, rtp_order_t order) const {
    return GetPacketCount() > 0 || m_rule == nullptr || m_rule->CanBegin(header, order == RTP_ORDER_JOINS);
}

// Marks the frame that suffers from a packet that isn't the next one.
void CRtp2Frame::mark_gap(const RtpHeader& header, rtp_order_t order) {
    if (order == RTP_ORDER_JOINS) {
        m_damaged = m_damaged || (GetPacketCount() > 0 && header.timestamp == m_last_ts);
        return;
    }
    bool clean = false;
    if (header.timestamp != m_last_ts) {
        // The loss lies between frames, in the tail of the last one or in the head of this one.
        clean = m_rule != nullptr && m_rule->OpensCleanly(header);
        if (GetPacketCount() > 0) {
            m_watch.NotifyGap(header);
        }
        drop_packets();
    }
    if (!clean) {
        m_watch.NotifyGap(header);
        m_damaged = true;
    }
}

// A packet of a stream that shows its frames itself. One that was left out is put again for the rest of its payload.
int CRtp2Frame::put_stream(const RtpHeader& header) {
    const bool again = m_left_out && header.sequence == GetLastSeq() && header.ssrc == GetSsrc();
    if (!again) {
        if (m_left_out) {
            drop_packets();  // the rest of that one is lost, and with it the beginning of a frame
        }
        watch_stream(header);
        m_work.used = 0;
    }
    m_work.packet_ms = m_time.Ms();
    m_work.marker = header.marker;
    m_work.Clear();
    m_left_out = false;
    if (!store_packet(header)) {
        return PACKET_REFUSED;
    }
    const int ret = make_frame();
    m_left_out = ret == FRAME_COMPLETE_NEXT;
    return ret;
}

void CRtp2Frame::watch_stream(const RtpHeader& header) {
    m_last_ts = m_watch.IsFresh() ? header.timestamp : m_last_ts;
    const rtp_order_t order = m_watch.Look(header);
    m_watch.Probe(header.sequence);
    if (order == RTP_ORDER_GAP) {
        m_watch.NotifyGap(header);
    }
    if (order == RTP_ORDER_JOINS || (order == RTP_ORDER_GAP && m_drop_damaged)) {
        drop_packets();  // what is left of the frame in work doesn't begin one
    }
    take_packet(header, order);
}

// Turns the packets held into a frame. A frame_result_t; FRAME_MORE: there is no picture among them yet.
int CRtp2Frame::make_frame() {
    Ostra::CMemoryTrail::NoteBytes(this, sizeof(*this) - sizeof(m_work.config.bytes));
    Ostra::CMemoryTrail::NoteBytes(m_work.nodes.begin(), m_work.nodes.Count() * sizeof(RtpPacketNode));
    const int ret = m_rule != nullptr ? m_rule->Make() : FRAME_FAILED;
    if (ret >= 0) {
        return ret;
    }
    if (m_failed_log.Pass()) {
        if (m_rule == nullptr) {
            logError("CRtp2Frame enc_type[%d] not right!\n", m_enc_type);
        }
        logError("CRtp2Frame::PutPacket make_frame[enc_type=%d] fail, ret = %d.\n", m_enc_type, ret);
    }
    return FRAME_FAILED;
}

uint32_t CRtp2Frame::GetFrame(unsigned char* buffer, uint32_t capacity) const {
    if (buffer == nullptr) {
        return 0;
    }
    const uint32_t size = m_work.WriteFrame(buffer, capacity);
    print_output(size);
    return size;
}

Flumen::CMediaFrame CRtp2Frame::TakeFrame() {
    const Flumen::CMediaFrame frame = m_rule != nullptr ? m_rule->TakeFrame() : Flumen::CMediaFrame();
    if (frame.valid()) {
        m_work.Clear();
        print_output(frame.size());
    }
    return frame;
}

void CRtp2Frame::print_output(uint32_t size) const {
    if (IsPrinted(PRINT_OUTPUT)) {
        R3Printf("Output Frame[%s]: ts[%08x] len = %d\n", enc_type_name(m_enc_type), static_cast<unsigned>(GetPts()),
                 static_cast<int>(size));
    }
}

int CRtp2Frame::GetTsEncodeType() const {
    const int code = kx_code_of_kind(m_work.stream_kind);
    if (code < 0) {
        logError("%s %d do not support type: %d\n", __FILE__, __LINE__, m_work.stream_kind);
    }
    return code;
}

void CRtp2Frame::Clear() {
    // What comes of a frame that is dropped in its middle doesn't begin one.
    m_damaged = m_damaged || (GetPacketCount() > 0 && !m_complete);
    clear_work();
}

// Drops the packets without their owner's word.
void CRtp2Frame::drop_packets() {
    m_dropped = true;
    clear_work();
}

void CRtp2Frame::clear_work() {
    m_complete = false;
    m_work.Clear();
    if (m_rule != nullptr) {
        m_rule->Clear();
    }
}

}  // namespace Vidora
}  // namespace Kavio
