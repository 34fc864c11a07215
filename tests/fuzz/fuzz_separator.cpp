// The separators of a server's byte stream, fed whole and in pieces: the same records come out. First byte: 0xFF for
// private frames; otherwise interleaved RTP, the low half the video channel, the high half the audio channel.
#include "FuzzSupport.h"
#include "KXSeparator.h"
#include "RtpSeparator.h"
#include "support/Separated.h"

using namespace Kavio::Vidora;
using Kavio::Support::Separated;

void Fuzz::Target(const uint8_t* data, size_t size) {
    Ostra::CByteReader input(data, size);
    const uint8_t channels = input.ReadU8();
    const Bytes stream = ReadBytes(input, input.Remaining());
    // Where a stream that lost its place goes on depends on the bytes that are there: the cuts may differ then.
    bool lost = false;
    Separated whole;
    for (const size_t piece : {stream.size(), size_t{1}, size_t{7}, size_t{64}}) {
        CRTPSeparator rtp;
        CKXSeparator frames;
        rtp.SetChannel(channels & 15, channels >> 4);
        CStreamSeparator& separator = channels == 0xFF ? static_cast<CStreamSeparator&>(frames) : rtp;
        std::vector<Bytes> pieces;
        for (size_t at = 0; at < stream.size(); at += piece) {
            pieces.push_back(Support::Part(stream, at, piece));
        }
        const Separated out = Support::Separate(separator, pieces);
        Require(out.sound && out.bytes + rtp.SkippedBytes() <= stream.size());
        lost = lost || rtp.SkippedBytes() > 0;
        if (piece == stream.size()) {
            whole = out;
        }
        Require(lost || (out.failed == whole.failed && (out.failed || out.records == whole.records)));
    }
}
