#ifndef VIDORA_STREAMPARSER_STREAMDECRTP_H
#define VIDORA_STREAMPARSER_STREAMDECRTP_H

#include <cstdint>
#include <memory>
#include <vector>

#include "Ostra/LogGate.h"
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
// An input is one packet, bare or behind its interleave header, or a run of packets that each follow one. A frame
// may end anywhere in a run or in a packet: the rest goes on when it has been taken. Packets that are handed back come
// once each, an input that frames share with the last of them.
//
// MEMORY     Inputs are held by shared handle until their frame is taken: at most MAX_PACKETS of them, and none
//            behind MAX_BYTES; one more drops them all, and what else comes of their frame with them if damaged frames
//            are dropped.
class CStreamDecRtp final : public CStreamDec {
public:
    static constexpr size_t MAX_PACKETS = CRtp2Frame::MAX_PACKETS;
    static constexpr size_t MAX_BYTES = 8 * 1024 * 1024;

    CStreamDecRtp(int src_type, int dst_type);
    ~CStreamDecRtp() override;

    using CStreamParser::SetParam;
    int InputFrame(const Flumen::CMediaFrame& frame) override;
    int EndInput() override;
    Flumen::CMediaFrame OutputFrame() override;
    void Clean() override;
    int SetParam(const RtpDecParam& param) override;
    void PrintInfo() override;

private:
    friend class CStreamDecRtpNotify;

    // What an input brought.
    struct Feed {
        int status;    // frame_result_t
        size_t end;    // where its rest begins
        bool dropped;  // the packets that were held before are needed no longer
    };

    void skip_frame();
    int take_input(const Flumen::CMediaFrame& input, size_t from);
    inline Feed feed(const unsigned char* data, size_t len, size_t from);
    Feed feed_run(const unsigned char* data, size_t len, size_t from);
    inline bool hold(const Flumen::CMediaFrame& input, size_t len);
    void release();
    DecodedFrame describe_frame() const override;
    uint32_t read_payload(unsigned char* buffer, uint32_t capacity) override;
    Flumen::CMediaFrame take_payload(uint32_t size) override;
    void go_on() override;

    std::unique_ptr<CRtp2Frame> m_rtp2frame;
    std::vector<Flumen::CMediaFrame> m_packets;  // the inputs of the frame in work
    size_t m_held_bytes = 0;
    Flumen::CMediaFrame m_rest;  // the input in which the completed frame ended
    size_t m_rest_at = 0;        // from where on it goes on
    int m_status = FRAME_MORE;   // frame_result_t of the last packet
    CStreamDecRtpNotify m_notify;
    RtpDecParam m_param;
    Ostra::CLogGate m_broken_log;

    CShownValue<int> m_shown_enc_type;
    CShownValue<int> m_shown_payload_type;
    CShownValue<uint32_t> m_shown_ssrc;
    CShownValue<int> m_shown_last_seq;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_STREAMDECRTP_H
