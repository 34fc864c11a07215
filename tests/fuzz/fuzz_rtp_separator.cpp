// The separator of interleaved RTP and RTSP replies, fed whole and in pieces: the same records come out. First byte:
// the low half is the video channel, the high half the audio channel.
#include <memory>

#include "RtpSeparator.h"
#include "SeparatorFeed.h"

using namespace Kavio;
using namespace Kavio::Vidora;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    if (size < 2) {
        return 0;
    }
    const int channels = data[0];
    const auto make = [channels] {
        auto separator = std::make_unique<CRTPSeparator>();
        separator->SetChannel(channels & 15, channels >> 4);
        return separator;
    };
    // Where a stream that lost its place goes on depends on the bytes that are there: the cuts may differ then.
    bool lost = false;
    Fuzz::RequireSameAtEveryPiece(make, data + 1, size - 1, [&](const CRTPSeparator& separator, const auto& out) {
        Fuzz::Require(out.media_bytes + separator.SkippedBytes() <= size - 1);
        lost = lost || separator.SkippedBytes() > 0;
        return !lost;
    });
    return 0;
}
