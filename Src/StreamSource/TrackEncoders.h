#ifndef VIDORA_STREAMSOURCE_TRACKENCODERS_H
#define VIDORA_STREAMSOURCE_TRACKENCODERS_H

#include "StreamParser/StreamParser.h"
#include "StreamSource/FormatWatch.h"
#include "StreamSource/ReplayExtension.h"
#include "StreamSource/SrcInfoTable.h"

namespace Kavio {
namespace Vidora {

// CTrackEncoders: the tracks of a source with what cuts their frames: an RTP packetizer a track, and one transport
// stream of all. A converter is empty until the first frame that needs it. What runs on, sequence numbers and time
// stamps, shows in the table of running tracks.
//
// The order of the tracks: video and audio as far as the source has them, assist frames, metadata.
//
// THREADING  None of its own: its owner guards it. The table has a lock of its own.
class CTrackEncoders {
public:
    static const int MAX_TRACK = CSrcInfoTable::MAX_TRACK;

    // A frame as packets behind one another. `packets` isn't valid if it couldn't be converted; the converter has then
    // begun afresh.
    struct Converted {
        int result;  // a parser_result_t
        Flumen::CMediaFrame packets;
    };

    // Draws SSRCs and sequence numbers (RFC 3550 5.1). `info` lives longer.
    explicit CTrackEncoders(CSrcInfoTable& info);

    // Whether a time line that begins anew begins behind the last time stamp of the former one, or with it.
    void SetConformance(bool on) { m_conformance = on; }
    // Builds the tracks for these formats; what runs goes on.
    void Build(const CFormatWatch& formats);
    // Puts the running tracks into the table as they are now; the others begin at a random time stamp (RFC 3550 5.1).
    void Reset();

    // Makes the converter where there is none. False if memory is short.
    bool BeginRtp(int track);
    bool BeginTs(int track);
    // After those.
    void SetExtension(int track, const CReplayExtension& extension);
    Converted ToRtp(int track, const Flumen::CMediaFrame& frame);
    Converted ToTs(const Flumen::CMediaFrame& frame);
    // Whether the transport stream takes sound: by the standards' way MPEG audio, which alone has a stream type of
    // ISO 13818-1 table 2-34.
    bool TsHasSound() const { return m_ts_param.audio_enc_type != ENC_TYPE_NONE; }
    // Shows in the table where the RTP of the track is, and counts the bytes that the last frame, of that time, sent.
    void CountRtp(int track, unsigned int bytes, uint64_t pts_ms);
    // The same for a transport stream whose units are RTP packets of the first track.
    void CountTs(unsigned int bytes, uint64_t pts_ms);

private:
    struct Track {
        RtpEncParam param;
        RtpOverTcpParam over_tcp;
        CStreamParserPtr rtp;
        bool has_sent = false;  // since the time line began
    };

    void add_tracks(const CFormatWatch& formats);
    RtpEncParam& add(int enc_type, int payload_type, int clock_rate);
    void count(int index, const RtpEncParam& param, unsigned int bytes, uint64_t pts_ms);
    void begin_anew(int index, CStreamParser& converter, RtpEncParam& param, bool& has_sent);
    static Converted convert(CStreamParser& parser, const Flumen::CMediaFrame& frame);

    CSrcInfoTable& m_info;
    bool m_conformance = false;
    int m_count = 0;
    Track m_tracks[MAX_TRACK];
    TsEncParam m_ts_param;
    CStreamParserPtr m_ts;
    RtpEncParam m_ts_rtp;  // with conformance: of the packets that the transport stream goes out in (RFC 2250)
    bool m_ts_has_sent = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_TRACKENCODERS_H
