#include "support/H264Runs.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>

#include "MediaFrame.h"
#include "StreamParser/StreamParser.h"

namespace Bench {

using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

namespace {

const unsigned char SLICE_HEAD[] = {0, 0, 0, 1, 0x41, 0x9a};
const uint64_t FIRST_MS = 1000;
const uint64_t FRAME_MS = 40;

CStreamParserPtr make_encoder() {
    CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_RTP);
    RtpEncParam param;
    param.enc_type = ENC_TYPE_H264;
    param.payload_type = H264_PAYLOAD_TYPE;
    param.ssrc = 1;
    parser->SetParam(param);
    RtpOverTcpParam over_tcp;
    over_tcp.use_header = 1;
    over_tcp.merge_frame = 1;
    parser->SetParam(over_tcp);
    return parser;
}

}  // namespace

std::vector<Flumen::CMediaFrame> MakeH264Runs(size_t count, size_t size) {
    const CStreamParserPtr parser = make_encoder();
    std::vector<Flumen::CMediaFrame> runs;
    for (size_t i = 0; i < count; ++i) {
        Flumen::CMediaFrame frame(static_cast<uint32_t>(size));
        std::fill_n(frame.getBuffer(), size, static_cast<unsigned char>(0x55 + i % 7));
        std::copy(std::begin(SLICE_HEAD), std::end(SLICE_HEAD), frame.getBuffer());
        frame.setType(FRAME_TYPE_P);
        frame.setPts(FIRST_MS + i * FRAME_MS, Flumen::PTS_TYPE_MS);
        if (parser->InputFrame(frame) != PARSER_FRAME_READY) {
            std::fprintf(stderr, "frames could not be packed\n");
            std::exit(1);
        }
        runs.push_back(parser->OutputFrame());
    }
    return runs;
}

}  // namespace Bench
