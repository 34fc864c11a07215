#include "StreamParser/StreamDecRtp.h"

#include <new>

#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

// The interleave header of RFC 2326 10.12.
struct rtptcphdr {
    uint8_t dollar;
    uint8_t channel;
    uint8_t length[2];  // high byte first
};

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
    if (m_packet_count >= MAX_PACKETS) {
        logError("frame packet count exceed %d! clean to go ahead.\n", m_packet_count);
        Clean();
    }
    if (m_status > FRAME_MORE) {
        logError("frame not taken yet, take it first.  %s:%d \n", __FILE__, __LINE__);
        Clean();
    }
    m_status = feed(frame.getBuffer(), static_cast<int>(frame.size()));
    m_shown_ssrc = m_rtp2frame->GetSsrc();
    m_shown_last_seq = m_rtp2frame->GetLastSeq();
    if (m_status < FRAME_MORE) {
        Clean();
        return PARSER_FAILED;
    }
    m_packets[m_packet_count++] = frame;
    return m_status > FRAME_MORE ? PARSER_FRAME_READY : PARSER_OK;
}

int CStreamDecRtp::feed(const unsigned char* data, int len) {
    if (data != nullptr && len > 0 && data[0] == '$') {
        return feed_run(data, len);
    }
    return m_rtp2frame->PutPacket(data, len);
}

// Feeds the packets of a run one by one. A frame may end with the last packet, or in front of the first one, which is
// then fed again with the whole run; a run that belongs to two frames otherwise isn't what a sender of runs makes.
int CStreamDecRtp::feed_run(const unsigned char* data, int orig_len) {
    CByteReader reader(data, static_cast<size_t>(orig_len));
    while (reader.Remaining() > sizeof(struct rtptcphdr)) {
        const int len = static_cast<int>(reader.Remaining());
        CByteReader header(reader.Rest(), sizeof(struct rtptcphdr));
        const bool framed = header.ReadU8() == '$';
        header.Skip(1);
        const uint16_t rtp_len = header.ReadU16();
        const unsigned char* packet = reader.ReadBytes(sizeof(struct rtptcphdr) + rtp_len);
        if (!framed || packet == nullptr) {
            logWarn("%s:%d run of RTP packets broken, %d of %d bytes left\n", __FILE__, __LINE__, len, orig_len);
            return FRAME_FAILED;
        }
        const int ret = m_rtp2frame->PutPacket(packet, static_cast<int>(sizeof(struct rtptcphdr) + rtp_len));
        if (ret < 0) {
            return ret;
        }
        // The text of the assertion is kept as it is.
        // clang-format off
        if (ret != 0) {
            if (!OSTRA_ASSERT(( (ret == 1) && ( len == (int)(rtp_len + sizeof(struct rtptcphdr)) ) ) || ( (ret == 2) && ( len == orig_len ) ))) {
                return FRAME_FAILED;
            }
            return ret;
        }
        // clang-format on
    }
    return FRAME_MORE;
}

Flumen::CMediaFrame CStreamDecRtp::OutputFrame() {
    if (m_rtp2frame == nullptr || m_status <= FRAME_MORE) {
        return Flumen::CMediaFrame();
    }
    const int count = m_status == FRAME_COMPLETE_NEXT ? m_packet_count - 1 : m_packet_count;
    return put_out(m_packets, static_cast<size_t>(count));
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

void CStreamDecRtp::go_on() {
    if (m_status != FRAME_COMPLETE_NEXT) {
        Clean();
        return;
    }
    const Flumen::CMediaFrame kept = m_packets[m_packet_count - 1];
    Clean();
    InputFrame(kept);
}

void CStreamDecRtp::Clean() {
    if (m_rtp2frame != nullptr) {
        m_rtp2frame->Clear();
    }
    for (int i = 0; i < m_packet_count; ++i) {
        m_packets[i] = Flumen::CMediaFrame();
    }
    m_packet_count = 0;
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
