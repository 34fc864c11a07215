#ifndef VIDORA_RTPSEPARATOR_H
#define VIDORA_RTPSEPARATOR_H

#include "BufferedSeparator.h"
#include "FrameMerger.h"
#include "Ostra/LogGate.h"
#include "RtpRun.h"

namespace Kavio {
namespace Vidora {

// CRTPSeparator: interleaved RTP and RTCP (RFC 2326 10.12), RTSP replies, which begin with "Rt" in any case, and
// requests of the server's own, which begin with a method.
//
// The packets of two RTP channels come out merged to the runs of their frames (CFrameMerger), all other units as they
// are, among them units on those two channels that are too short for RTP. A stream that lost its place is entered again
// at a unit of a known channel and source.
//
// MEMORY  A rest of at most 65,540 bytes, for units of that size; two runs.
class CRTPSeparator final : public CBufferedSeparator {
public:
    int SetChannel(int video_channel, int audio_channel) override;
    Flumen::CMediaFrame TakeRest(int channel) override;
    // Bytes that were thrown away where the stream had lost its place.
    uint64_t SkippedBytes() const { return m_skipped; }

private:
    static constexpr int MERGED = 2;

    // One of the merged channels.
    struct Channel {
        int number = -1;
        uint32_t ssrc = 0;  // of the first packet
        CFrameMerger merger;
    };

    step_t parse_step(CByteReader& reader) override;
    step_t cut_interleaved(CByteReader& reader);
    step_t merge(CByteReader& reader, Channel& channel, const RtpHeader& header, const interleaved_unit_t& unit);
    void put_out(Channel& channel);
    step_t resynchronise(CByteReader& reader);
    bool is_known_unit(CByteReader reader) const;
    Channel* find_channel(int number);

    Channel m_channels[MERGED];  // video, audio
    uint64_t m_skipped = 0;
    Ostra::CLogGate m_lost_log;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTPSEPARATOR_H
