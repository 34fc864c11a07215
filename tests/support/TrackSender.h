#ifndef VIDORA_TESTS_SUPPORT_TRACKSENDER_H
#define VIDORA_TESTS_SUPPORT_TRACKSENDER_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "MediaFrame.h"
#include "StreamParser/StreamParser.h"
#include "support/Interleave.h"

namespace Kavio::Support {

// Makes the packets of a track: the library's own encoder, a run a frame.
class CTrackSender {
public:
    CTrackSender(int enc_type, int payload_type, uint32_t clock_rate, int channel)
        : m_parser(CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_RTP)) {
        RtpEncParam param;
        param.enc_type = enc_type;
        param.payload_type = static_cast<uint8_t>(payload_type);
        param.clock_rate = clock_rate;
        param.sequence = 100;
        param.ssrc = 0x11223344;
        m_parser->SetParam(param);
        RtpOverTcpParam over_tcp;
        over_tcp.use_header = 1;
        over_tcp.channel = static_cast<uint8_t>(channel);
        over_tcp.merge_frame = 1;
        m_parser->SetParam(over_tcp);
    }
    Flumen::CMediaFrame Make(const Flumen::CMediaFrame& frame) {
        EXPECT_EQ(m_parser->InputFrame(frame), PARSER_FRAME_READY);
        return m_parser->OutputFrame();
    }

private:
    CStreamParserPtr m_parser;
};

// The packets of a run, each behind its interleave header.
inline std::vector<std::string> PacketsOf(const Flumen::CMediaFrame& run) {
    std::string bytes(reinterpret_cast<const char*>(run.getBuffer()), run.size());
    return TakeUnits(bytes);
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_TRACKSENDER_H
