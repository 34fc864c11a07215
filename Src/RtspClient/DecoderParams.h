#ifndef VIDORA_RTSPCLIENT_DECODERPARAMS_H
#define VIDORA_RTSPCLIENT_DECODERPARAMS_H

#include <memory>

#include "RtspClient/SdpInfoAccess.h"
#include "StreamParser/StreamParser.h"

namespace Kavio {
namespace Vidora {

// CDecoderParams: what the decoders of a client session have to know of its tracks, read from the description. A copy:
// the description may go afterwards. The configuration blocks that the parameters lead to are this object's.
//
// THREADING  No lock: read once, by one thread at a time.
class CDecoderParams {
public:
    enum track_t { TRACK_VIDEO, TRACK_AUDIO, TRACK_ASSIST, TRACK_COUNT };

    struct Track {
        bool described = false;
        int channel = -1;  // its RTP channel, -1 if it has none
        RtpDecParam param;
    };

    CDecoderParams() = default;
    CDecoderParams(const CDecoderParams&) = delete;
    CDecoderParams& operator=(const CDecoderParams&) = delete;

    // 0, or -1 with a log line if the description has neither video nor audio.
    int Read(CSdpInfo& info);
    const Track& Get(track_t track) const { return m_tracks[track]; }
    // Frames a second, 0 or below if the description doesn't say.
    int FrameRate() const { return m_frame_rate; }

private:
    static constexpr int CONFIG_SIZE = 1024;

    struct Config {
        unsigned char data[CONFIG_SIZE];
        int length = 0;
    };

    void read_video(CSdpInfo& info, const sdp_info_data& data, const char* name);
    void read_audio(CSdpInfo& info, const sdp_info_data& data, const char* name);
    void read_assist(const sdp_info_data& data);
    void read_h264_config(const char* fmtp);
    void take_parameter_set(const char* text, size_t length);
    void read_mpeg4_config(const char* fmtp);

    Track m_tracks[TRACK_COUNT];
    Config m_config1;
    Config m_config2;
    int m_frame_rate = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_DECODERPARAMS_H
