#include "StreamParser/StreamEnc.h"

#include <new>

#include "StreamParser/Frame2Ps.h"
#include "StreamParser/Frame2Rtp.h"
#include "StreamParser/Frame2Ts.h"
#include "StreamParser/RandomDraw.h"
#include "StreamParser/RtpHeader.h"
#include "Tramel/Interleave.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

CStreamParserPtr CStreamEnc::Create(int src_type, int dst_type) {
    if (src_type != STREAM_TYPE_FRAME_AUTO) {
        logError("CStreamEnc::Create src_type[%s] unsupported!\n", stream_type_name(src_type));
        return CStreamParserPtr();
    }
    if (dst_type != STREAM_TYPE_RTP && dst_type != STREAM_TYPE_TS && dst_type != STREAM_TYPE_PS) {
        logError("CStreamEnc::Create dst_type[%s] unsupported!\n", stream_type_name(dst_type));
        return CStreamParserPtr();
    }
    logInfo("CStreamEnc::Create [%s] -> [%s]\n", stream_type_name(src_type), stream_type_name(dst_type));
    try {
        const std::shared_ptr<CStreamEnc> parser = std::make_shared<CStreamEnc>(src_type, dst_type);
        parser->Publish();
        return parser;
    } catch (const std::bad_alloc&) {
        return CStreamParserPtr();
    }
}

CStreamEnc::CStreamEnc(int src_type, int dst_type) : m_src_type(src_type), m_dst_type(dst_type) {
    switch (dst_type) {
        case STREAM_TYPE_RTP:
            m_packer.reset(m_rtp_packer = new (std::nothrow) CFrame2Rtp);
            // RFC 3550 5.1: sequence, timestamp and SSRC begin at random.
            m_rtp_param.sequence = random_draw();
            m_rtp_param.timestamp = random_draw32();
            m_rtp_param.ssrc = random_draw32();
            SetParam(m_rtp_param);
            break;
        case STREAM_TYPE_TS:
            m_packer.reset(m_ts_packer = new (std::nothrow) CFrame2Ts);
            break;
        default:
            m_packer.reset(m_ps_packer = new (std::nothrow) CFrame2Ps);
            m_shown_max_pes = m_ps_param.max_pes_length;
            break;
    }
}

CStreamEnc::~CStreamEnc() {
    Withdraw();
}

int CStreamEnc::InputFrame(const Flumen::CMediaFrame& frame) {
    const unsigned char* data = frame.getBuffer();
    const unsigned int len = frame.size();
    if (data == nullptr || len == 0) {
        return PARSER_NO_DATA;
    }
    if (m_packer == nullptr) {
        return PARSER_NO_ENGINE;
    }
    int body_len = 0;
    const int body = get_frame_body(data, static_cast<int>(len), body_len);
    const int enc_type = enc_type_of(frame);
    const uint64_t pts = frame.getPts(Flumen::PTS_TYPE_MS);
    const int ret =
        m_packer->PutFrame(data + body, static_cast<unsigned int>(body_len), enc_type, pts, extra_of(frame, enc_type));
    if (ret != 0) {
        m_last_frame = Flumen::CMediaFrame();
        return PARSER_FAILED;
    }
    m_last_frame = frame;
    m_ts_rtp.SetTime(pts);
    m_statis.Count(pts, len, frame.getSequence());
    m_shown_fps = m_statis.fps;
    m_shown_bit_rate = m_statis.bit_rate;
    return PARSER_FRAME_READY;
}

int CStreamEnc::enc_type_of(const Flumen::CMediaFrame& frame) const {
    const bool audio = frame.getType() == FRAME_TYPE_AUDIO;
    switch (m_dst_type) {
        case STREAM_TYPE_RTP:
            return m_rtp_param.enc_type;
        case STREAM_TYPE_TS:
            return audio ? m_ts_param.audio_enc_type : m_ts_param.video_enc_type;
        default:
            return audio ? m_ps_param.audio_enc_type : m_ps_param.video_enc_type;
    }
}

// The frame's type, or an assist frame's assist type, which a receiver is told of.
uint8_t CStreamEnc::extra_of(const Flumen::CMediaFrame& frame, int enc_type) const {
    if (m_dst_type == STREAM_TYPE_RTP && enc_type == ENC_TYPE_ASSIST) {
        return static_cast<uint8_t>(get_assist_type(frame.getBuffer(), static_cast<int>(frame.size())));
    }
    return static_cast<uint8_t>(frame.getType());
}

Flumen::CMediaFrame CStreamEnc::OutputFrame() {
    if (m_packer == nullptr || m_packer->GetPacketSize() <= 0) {
        return Flumen::CMediaFrame();
    }
    Flumen::CMediaFrame out = m_over_tcp.merge_frame != 0 ? output_merged() : output_single();
    if (!out.valid()) {
        logError("CStreamEnc::Output frame alloc failed!\n");
    }
    return out;
}

// Bytes of the packet in turn with what the header extension adds to it.
unsigned int CStreamEnc::next_packet_len() const {
    const int size = m_packer->GetPacketSize();
    const unsigned int extension = m_rtp_packer != nullptr ? m_rtp_packer->GetExtensionSize() : 0;
    return size > 0 ? static_cast<unsigned int>(size) + extension : 0;
}

// Bytes that stand in front of each packet of the engine's.
unsigned int CStreamEnc::headers_len() const {
    return (m_over_tcp.use_header != 0 ? Tramel::INTERLEAVE_HEADER_SIZE : 0) + m_ts_rtp.Size();
}

// Writes the packet in turn, behind its interleave header if there is to be one, and moves on.
bool CStreamEnc::write_packet(CByteWriter& writer, unsigned int packet_len) {
    if (m_over_tcp.use_header != 0) {
        writer.WriteU8(m_over_tcp.dollar);
        writer.WriteU8(m_over_tcp.channel);
        writer.WriteU16(static_cast<uint16_t>(packet_len + m_ts_rtp.Size()));
    }
    m_ts_rtp.Write(writer);
    unsigned char* place = writer.Reserve(packet_len);
    const int written = place == nullptr ? 0 : m_packer->GetPacket(place, packet_len);
    end_packet();
    return written == static_cast<int>(packet_len);
}

void CStreamEnc::end_packet() {
    if (m_packer->NextPacket() != 0) {
        m_last_frame = Flumen::CMediaFrame();  // all of it has been taken
    }
}

Flumen::CMediaFrame CStreamEnc::output_single() {
    const unsigned int packet_len = next_packet_len();
    Flumen::CMediaFrame out(packet_len + headers_len());
    if (!out.valid()) {
        end_packet();  // so that a caller who takes packets until there is none comes to an end
        return out;
    }
    CByteWriter writer(out.getBuffer(), out.size());
    if (!write_packet(writer, packet_len)) {
        return Flumen::CMediaFrame();
    }
    return out;
}

Flumen::CMediaFrame CStreamEnc::output_merged() {
    const unsigned int extension = m_rtp_packer != nullptr ? m_rtp_packer->GetExtensionSize() : 0;
    const unsigned int headers = static_cast<unsigned int>(m_packer->GetPacketCount()) * headers_len();
    Flumen::CMediaFrame out(static_cast<unsigned int>(m_packer->GetTotalSize()) + extension + headers);
    CByteWriter writer(out.getBuffer(), out.size());
    bool ok = out.valid();
    if (ok && m_rtp_packer != nullptr) {
        const uint8_t interleave[] = {m_over_tcp.dollar, m_over_tcp.channel};
        ok = m_rtp_packer->GetFrame(writer, m_over_tcp.use_header != 0 ? interleave : nullptr);
    }
    // The multiplexers' packets one by one. Without memory the frame is skipped, so that the next one finds nothing of
    // it.
    for (unsigned int len = next_packet_len(); len > 0; len = next_packet_len()) {
        if (ok) {
            ok = write_packet(writer, len);
        } else {
            end_packet();
        }
    }
    m_last_frame = Flumen::CMediaFrame();
    if (!ok) {
        return Flumen::CMediaFrame();
    }
    out.resize(static_cast<unsigned int>(writer.Offset()));  // less if some packets were taken singly before
    return out;
}

int CStreamEnc::SetParam(const RtpEncParam& param) {
    if (m_ts_param.over_rtp != 0) {
        m_ts_rtp.Begin(param);
    }
    if (m_dst_type != STREAM_TYPE_RTP) {
        return PARSER_OK;
    }
    m_rtp_param = param;
    if (m_rtp_packer != nullptr) {
        m_rtp_packer->SetNalUnits((param.flags & RTP_FLAG_NAL_UNITS) != 0);
        m_rtp_packer->SetSound((param.flags & RTP_FLAG_NO_MARKER) == 0, param.bytes_per_tick);
        if ((param.flags & RTP_FLAG_EXTENSION) != 0) {
            m_rtp_packer->SetRtpFlags(param.flags, param.extension);
        } else {
            m_rtp_packer->SetRtpInfo(param.ssrc, param.payload_type, param.sequence, param.timestamp, param.clock_rate);
        }
    }
    m_shown_enc_type = param.enc_type;
    m_shown_payload_type = param.payload_type;
    m_shown_ssrc = param.ssrc;
    m_shown_sequence = param.sequence;
    return PARSER_OK;
}

int CStreamEnc::SetParam(const TsEncParam& param) {
    if (m_dst_type != STREAM_TYPE_TS) {
        return PARSER_OK;
    }
    m_ts_param = param;
    if (m_ts_packer != nullptr) {
        m_ts_packer->SetTsInfo(stream_kind_of_enc_type(param.video_enc_type),
                               stream_kind_of_enc_type(param.audio_enc_type), param.packets_per_output);
        m_ts_packer->SetVideoOnly(param.video_only != 0);
        m_ts_packer->SetCountedTables(param.counted_tables != 0);
    }
    m_shown_video = param.video_enc_type;
    m_shown_audio = param.audio_enc_type;
    return PARSER_OK;
}

int CStreamEnc::SetParam(const PsEncParam& param) {
    if (m_dst_type != STREAM_TYPE_PS) {
        return PARSER_OK;
    }
    m_ps_param = param;
    if (m_ps_packer != nullptr) {
        m_ps_packer->SetPsInfo(stream_kind_of_enc_type(param.video_enc_type),
                               stream_kind_of_enc_type(param.audio_enc_type), param.max_pes_length, param.bit_rate);
    }
    m_shown_video = param.video_enc_type;
    m_shown_audio = param.audio_enc_type;
    m_shown_max_pes = param.max_pes_length;
    return PARSER_OK;
}

int CStreamEnc::SetParam(const RtpOverTcpParam& param) {
    m_over_tcp = param;
    return PARSER_OK;
}

int CStreamEnc::GetParam(RtpEncParam& param) {
    if (m_rtp_packer != nullptr) {
        m_rtp_packer->GetRtpInfo(param);
    } else if (m_ts_rtp.HasBegun()) {
        m_ts_rtp.Get(param);
    }
    return PARSER_OK;
}

int CStreamEnc::GetStatis(ParserStatis& statis) {
    statis.bit_rate = m_statis.bit_rate;
    statis.fps = m_statis.fps;
    return PARSER_OK;
}

void CStreamEnc::PrintInfo() {
    print_head(m_src_type, m_dst_type);
    if (m_dst_type == STREAM_TYPE_RTP) {
        R3Printf(">>> EncodeType[%s] PT[%d]\n", enc_type_name(m_shown_enc_type),
                 static_cast<int>(m_shown_payload_type));
        R3Printf(">>> SSRC[%08x] InitSeq[%d]\n", static_cast<uint32_t>(m_shown_ssrc),
                 static_cast<int>(m_shown_sequence));
    } else {
        R3Printf(">>> EncodeType Video[%s] Audio[%s]\n", enc_type_name(m_shown_video), enc_type_name(m_shown_audio));
    }
    if (m_dst_type == STREAM_TYPE_PS) {
        R3Printf(">>> Max PES Length = %d\n", static_cast<int>(m_shown_max_pes));
    }
    R3Printf(">>> Input FPS[%.2f] BitRate: %.2f kbps\n", static_cast<double>(m_shown_fps),
             static_cast<double>(m_shown_bit_rate) / 1000);
}

}  // namespace Vidora
}  // namespace Kavio
