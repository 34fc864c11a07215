#ifndef VIDORA_TESTS_FUZZ_DECODEROUTPUT_H
#define VIDORA_TESTS_FUZZ_DECODEROUTPUT_H

#include "FuzzSupport.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/KXFrame.h"

namespace Kavio {
namespace Vidora {
namespace Fuzz {

inline int Destination(uint8_t choice) {
    static const int DESTINATIONS[] = {STREAM_TYPE_RAW_FRAME, STREAM_TYPE_PRIVATE_FRAME, STREAM_TYPE_RTP};
    return DESTINATIONS[choice % 3];
}

// Feeds a decoder and takes all that it gives: private frames have a header that fits them, and no more inputs are
// handed back than went in. `balance` counts these, from 0 on. The decoder's result.
inline int Decode(CStreamParser& parser, const Bytes& input, int dst_type, int& balance) {
    const int ret = parser.InputFrame(MakeFrame(input));
    Require(ret == PARSER_OK || ret == PARSER_FRAME_READY || ret == PARSER_FAILED);
    int taken = 0;
    for (Flumen::CMediaFrame frame = parser.OutputFrame(); frame.valid(); frame = parser.OutputFrame()) {
        KXHeader header;
        Require(++taken < 100000);
        Require(dst_type != STREAM_TYPE_RTP || taken <= balance + 1);
        Require(dst_type != STREAM_TYPE_PRIVATE_FRAME ||
                (kx_read_header(frame.getBuffer(), frame.size(), header) && header.total_length == frame.size() &&
                 header.checksum == kx_header_checksum(frame.getBuffer())));
    }
    balance += 1 - (dst_type == STREAM_TYPE_RTP ? taken : 0);
    return ret;
}

}  // namespace Fuzz
}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TESTS_FUZZ_DECODEROUTPUT_H
