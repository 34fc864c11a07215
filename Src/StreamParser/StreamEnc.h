#ifndef VIDORA_STREAMPARSER_STREAMENC_H
#define VIDORA_STREAMPARSER_STREAMENC_H

#include <cstdint>
#include <memory>

#include "StreamParser/Frame2Packet.h"
#include "StreamParser/ShownValue.h"
#include "StreamParser/StreamParser.h"
#include "StreamParser/TsRtpHeader.h"

namespace Kavio {
namespace Vidora {

class CFrame2Ps;
class CFrame2Rtp;
class CFrame2Ts;

// CStreamEnc: frames, bare or private, to RTP, TS or PS packets.
//
// The input frame is held by shared handle, and its bytes must not change, until the last packet has been taken.
// Packets come out one by one, or merged into one piece, as RtpOverTcpParam says. In a steady stream each output costs
// one allocation, its own.
class CStreamEnc final : public CStreamParser {
public:
    // An encoder from frames (7) to RTP, TS or PS. Null with a log line for another pair.
    static CStreamParserPtr Create(int src_type, int dst_type);

    CStreamEnc(int src_type, int dst_type);
    ~CStreamEnc() override;

    using CStreamParser::SetParam;
    int InputFrame(const Flumen::CMediaFrame& frame) override;
    Flumen::CMediaFrame OutputFrame() override;
    int SetParam(const PsEncParam& param) override;
    int SetParam(const TsEncParam& param) override;
    // With RTP_FLAG_EXTENSION clear: a new timeline from the block's values. With it set: the flags and the extension
    // only, for the frames that follow. For a transport stream that goes over
    // RTP: a new timeline as well.
    int SetParam(const RtpEncParam& param) override;
    int SetParam(const RtpOverTcpParam& param) override;
    int GetParam(RtpEncParam& param) override;
    int GetStatis(ParserStatis& statis) override;
    void PrintInfo() override;

private:
    int enc_type_of(const Flumen::CMediaFrame& frame) const;
    uint8_t extra_of(const Flumen::CMediaFrame& frame, int enc_type) const;
    Flumen::CMediaFrame output_single();
    Flumen::CMediaFrame output_merged();
    unsigned int next_packet_len() const;
    unsigned int headers_len() const;
    bool write_packet(CByteWriter& writer, unsigned int packet_len);
    void end_packet();

    const int m_src_type;
    const int m_dst_type;
    Flumen::CMediaFrame m_last_frame;  // the input, until its packets have been taken
    RtpOverTcpParam m_over_tcp;
    RtpEncParam m_rtp_param;
    TsEncParam m_ts_param;
    PsEncParam m_ps_param;
    std::unique_ptr<IFrame2Packet> m_packer;
    // The same object as m_packer, by the destination; the others are null.
    CFrame2Rtp* m_rtp_packer = nullptr;
    CFrame2Ts* m_ts_packer = nullptr;
    CFrame2Ps* m_ps_packer = nullptr;
    CTsRtpHeader m_ts_rtp;
    ParserStatis m_statis;

    CShownValue<int> m_shown_enc_type;
    CShownValue<int> m_shown_payload_type;
    CShownValue<uint32_t> m_shown_ssrc;
    CShownValue<int> m_shown_sequence;
    CShownValue<int> m_shown_video;
    CShownValue<int> m_shown_audio;
    CShownValue<int> m_shown_max_pes;
    CShownValue<float> m_shown_fps;
    CShownValue<float> m_shown_bit_rate;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_STREAMENC_H
