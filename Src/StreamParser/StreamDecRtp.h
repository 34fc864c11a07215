#ifndef VIDORA_STREAMPARSER_STREAMDECRTP_H
#define VIDORA_STREAMPARSER_STREAMDECRTP_H

#include <cstdint>
#include <memory>

#include "StreamParser/Rtp2Frame.h"
#include "StreamParser/RtpNotify.h"
#include "StreamParser/StreamDec.h"

namespace Kavio {
namespace Vidora {

class CStreamDecRtp;

// CStreamDecRtpNotify: moves its owner's frame count on where packets were lost, so that the count in the output shows
// the gap.
class CStreamDecRtpNotify final : public IRtpNotify {
public:
    explicit CStreamDecRtpNotify(CStreamDecRtp* owner) : m_owner(owner) {}
    void OnSsrcChanged(uint32_t, uint32_t) override {}
    void OnSequenceDisorder(uint16_t last, uint16_t now) override;
    void OnReserved() override {}

private:
    CStreamDecRtp* const m_owner;
};

// CStreamDecRtp: RTP packets of one track to frames, or back to the packets of each frame.
//
// An input is one packet, bare or behind its interleave header, or a run of packets that each stand behind one. Packets
// are held by shared handle until their frame is taken, at most MAX_PACKETS inputs; one more drops them all.
class CStreamDecRtp final : public CStreamDec {
public:
    static constexpr int MAX_PACKETS = 1024;

    CStreamDecRtp(int src_type, int dst_type);
    ~CStreamDecRtp() override;

    using CStreamParser::SetParam;
    int InputFrame(const Flumen::CMediaFrame& frame) override;
    Flumen::CMediaFrame OutputFrame() override;
    void Clean() override;
    int SetParam(const RtpDecParam& param) override;
    void PrintInfo() override;

private:
    friend class CStreamDecRtpNotify;

    int feed(const unsigned char* data, int len);
    int feed_run(const unsigned char* data, int orig_len);
    DecodedFrame describe_frame() const override;
    uint32_t read_payload(unsigned char* buffer, uint32_t capacity) override;
    void go_on() override;

    std::unique_ptr<CRtp2Frame> m_rtp2frame;
    Flumen::CMediaFrame m_packets[MAX_PACKETS];  // the packets of the frame in work
    int m_packet_count = 0;
    int m_status = FRAME_MORE;  // frame_result_t of the last packet
    CStreamDecRtpNotify m_notify;
    RtpDecParam m_param;

    CShownValue<int> m_shown_enc_type;
    CShownValue<int> m_shown_payload_type;
    CShownValue<uint32_t> m_shown_ssrc;
    CShownValue<int> m_shown_last_seq;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_STREAMDECRTP_H
