#include "StreamParser/StreamDecRtp.h"

#include <new>

#include "Ostra/MemoryTrail.h"
#include "Tramel/Interleave.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

constexpr uint8_t DEFAULT_RATE_CODE = 2;
constexpr uint32_t DEFAULT_CLOCK = 8000;

}  // namespace

void CStreamDecRtpNotify::OnSequenceDisorder(uint16_t, uint16_t) {
    ++m_owner->m_sequence;
}

CStreamDecRtp::CStreamDecRtp(int src_type, int dst_type)
    : CStreamDec(src_type, dst_type), m_rtp2frame(new (std::nothrow) CRtp2Frame), m_notify(this) {
    if (m_rtp2frame != nullptr) {
        m_rtp2frame->SetNotify(&m_notify);
    }
}

CStreamDecRtp::~CStreamDecRtp() {
    Withdraw();
    Clean();
}

int CStreamDecRtp::InputFrame(const Flumen::CMediaFrame& frame) {
    if (m_rtp2frame == nullptr) {
        return PARSER_NO_ENGINE;
    }
    Ostra::CMemoryTrail::Note(*this);
    if (m_status > FRAME_MORE) {
        skip_frame();
    }
    if (m_packets.size() >= MAX_PACKETS || m_held_bytes >= MAX_BYTES) {
        logError("frame packet count exceed %d! clean to go ahead.\n", static_cast<int>(m_packets.size()));
        Clean();
    }
    return take_input(frame, 0);
}

int CStreamDecRtp::EndInput() {
    if (m_rtp2frame == nullptr) {
        return PARSER_NO_ENGINE;
    }
    m_status = m_status > FRAME_MORE ? m_status : m_rtp2frame->End();
    return m_status > FRAME_MORE ? PARSER_FRAME_READY : PARSER_OK;
}

// Drops a frame that nobody took; what belongs to the next one isn't lost with it.
void CStreamDecRtp::skip_frame() {
    logError("frame not taken yet, take it first.  %s:%d \n", __FILE__, __LINE__);
    while (m_status > FRAME_MORE) {
        go_on();
    }
}

inline CStreamDecRtp::Feed CStreamDecRtp::feed(const unsigned char* data, size_t len, size_t from) {
    if (data != nullptr && len > 0 && data[0] == Tramel::INTERLEAVE_MARK) {
        return feed_run(data, len, from);
    }
    const int ret = m_rtp2frame->PutPacket(data, static_cast<int>(len));
    return {ret, ret == FRAME_COMPLETE_NEXT ? 0 : len, m_rtp2frame->WasDropped()};
}

inline bool CStreamDecRtp::hold(const Flumen::CMediaFrame& input, size_t len) {
    try {
        m_packets.push_back(input);
    } catch (const std::bad_alloc&) {
        return false;
    }
    Ostra::CMemoryTrail::NoteBytes(m_packets.data(), m_packets.size() * sizeof(Flumen::CMediaFrame));
    m_held_bytes += len;
    return true;
}

// Feeds an input, which may have been fed up to `from` before.
int CStreamDecRtp::take_input(const Flumen::CMediaFrame& input, size_t from) {
    const uint32_t before = m_rtp2frame->GetPacketCount();
    const size_t len = input.size();
    const Feed fed = feed(input.getBuffer(), len, from);
    m_status = fed.status;
    m_shown_ssrc = m_rtp2frame->GetSsrc();
    m_shown_last_seq = m_rtp2frame->GetLastSeq();
    if (fed.dropped) {
        release();
    }
    // The packets of a transport stream are copied, but all of them are handed back, tables too.
    const bool is_wanted = m_dst_type == STREAM_TYPE_RTP && m_param.enc_type == ENC_TYPE_MPEG2TS;
    const bool is_borrowed = m_rtp2frame->GetPacketCount() > (fed.dropped ? 0 : before);
    bool good = m_status >= FRAME_MORE;
    if (good && m_status > FRAME_MORE && fed.end < len) {
        m_rest = input;
        m_rest_at = fed.end;
    } else if (good && (is_wanted || is_borrowed)) {
        good = hold(input, len);
    }
    if (!good) {
        Clean();
        return PARSER_FAILED;
    }
    return m_status > FRAME_MORE ? PARSER_FRAME_READY : PARSER_OK;
}

// Feeds the packets of a run one by one, up to the end of a frame: behind the last packet put, or in front of it.
CStreamDecRtp::Feed CStreamDecRtp::feed_run(const unsigned char* data, size_t len, size_t from) {
    Feed fed = {FRAME_MORE, len, false};
    CByteReader reader(data, len);
    reader.Skip(from);
    while (fed.status == FRAME_MORE && reader.Remaining() > Tramel::INTERLEAVE_HEADER_SIZE) {
        const size_t begin = reader.Offset();
        CByteReader header(reader.Rest(), Tramel::INTERLEAVE_HEADER_SIZE);
        const bool framed = header.ReadU8() == Tramel::INTERLEAVE_MARK;
        header.Skip(1);
        const size_t packet_len = Tramel::INTERLEAVE_HEADER_SIZE + header.ReadU16();
        const unsigned char* packet = reader.ReadBytes(packet_len);
        if (!framed || packet == nullptr) {
            if (m_broken_log.Pass()) {
                logWarn("%s:%d run of RTP packets broken, %d of %d bytes left\n", __FILE__, __LINE__,
                        static_cast<int>(len - begin), static_cast<int>(len));
            }
            fed.status = FRAME_FAILED;
            break;
        }
        fed.status = m_rtp2frame->PutPacket(packet, static_cast<int>(packet_len));
        fed.dropped = fed.dropped || m_rtp2frame->WasDropped();
        fed.end = fed.status == FRAME_COMPLETE_NEXT ? begin : fed.status == FRAME_COMPLETE ? reader.Offset() : len;
    }
    return fed;
}

void CStreamDecRtp::release() {
    m_packets.clear();
    m_held_bytes = 0;
}

Flumen::CMediaFrame CStreamDecRtp::OutputFrame() {
    Flumen::CMediaFrame out;
    while (m_rtp2frame != nullptr && m_status > FRAME_MORE && !out.valid()) {
        out = put_out(m_packets.data(), m_packets.size());
    }
    return out;
}

DecodedFrame CStreamDecRtp::describe_frame() const {
    DecodedFrame decoded;
    decoded.size = m_rtp2frame->GetFrameSize();
    decoded.type = m_rtp2frame->GetFrameType();
    decoded.pts = m_rtp2frame->GetPts();
    decoded.channel = m_param.channel;
    decoded.encode_code = m_param.kx_encode_type;
    decoded.image_type = static_cast<uint8_t>(m_rtp2frame->GetProgressive());
    decoded.width = m_rtp2frame->GetWidth();
    decoded.height = m_rtp2frame->GetHeight();
    decoded.fallback_rate = m_param.rate_or_channels;
    decoded.audio_channels = m_param.rate_or_channels;
    decoded.sample_rate_code = m_param.sample_rate_code;
    if (decoded.type == FRAME_TYPE_ASSIST) {
        decoded.sub_type = m_rtp2frame->GetAssistType();
    }
    if (m_param.enc_type == ENC_TYPE_MPEG2TS) {
        const int code = m_rtp2frame->GetTsEncodeType();  // what the stream turned out to hold
        decoded.encode_code = code > 0 ? static_cast<uint8_t>(code) : m_param.kx_encode_type;
    }
    return decoded;
}

uint32_t CStreamDecRtp::read_payload(unsigned char* buffer, uint32_t capacity) {
    return m_rtp2frame->GetFrame(buffer, capacity);
}

Flumen::CMediaFrame CStreamDecRtp::take_payload(uint32_t size) {
    const Flumen::CMediaFrame frame = m_rtp2frame->TakeFrame();
    return frame.valid() ? frame : CStreamDec::take_payload(size);
}

void CStreamDecRtp::go_on() {
    const Flumen::CMediaFrame rest = m_rest;
    const size_t from = m_rest_at;
    Clean();
    if (rest.valid()) {
        take_input(rest, from);
    }
}

void CStreamDecRtp::Clean() {
    if (m_rtp2frame != nullptr) {
        m_rtp2frame->Clear();
    }
    release();
    m_rest = Flumen::CMediaFrame();
    m_rest_at = 0;
    m_status = FRAME_MORE;
    m_output_index = 0;
}

int CStreamDecRtp::SetParam(const RtpDecParam& param) {
    m_param = param;
    // The configuration blocks are the caller's and are copied below; they aren't to be read later.
    m_param.config1 = nullptr;
    m_param.config2 = nullptr;
    uint32_t clock_rate = static_cast<uint32_t>(kx_sample_rate(param.sample_rate_code));
    if (clock_rate == 0) {
        m_param.sample_rate_code = DEFAULT_RATE_CODE;
        clock_rate = DEFAULT_CLOCK;
    }
    clock_rate = param.clock_rate > 0 ? param.clock_rate : clock_rate;
    m_shown_enc_type = param.enc_type;
    m_shown_payload_type = param.payload_type;
    if (m_rtp2frame == nullptr) {
        return PARSER_NO_ENGINE;
    }
    if (m_rtp2frame->Init(param.enc_type, param.payload_type, clock_rate) != 0) {
        return PARSER_FAILED;
    }
    if (param.enc_type == ENC_TYPE_MPEG4) {
        m_rtp2frame->SetMpeg4Config(param.config1, param.config1_len);
    } else if (param.enc_type == ENC_TYPE_H264) {
        m_rtp2frame->SetH264Config(param.config1, param.config1_len, param.config2, param.config2_len);
    }
    m_rtp2frame->SetDropDamaged(param.drop_damaged != 0);
    return PARSER_OK;
}

void CStreamDecRtp::PrintInfo() {
    print_head(m_src_type, m_dst_type);
    R3Printf(">>> EncodeType[%s] PT[%d]\n", enc_type_name(m_shown_enc_type), static_cast<int>(m_shown_payload_type));
    R3Printf(">>> SSRC[%08x] LastSeq[%d]\n", static_cast<uint32_t>(m_shown_ssrc), static_cast<int>(m_shown_last_seq));
    print_measures();
}

}  // namespace Vidora
}  // namespace Kavio
