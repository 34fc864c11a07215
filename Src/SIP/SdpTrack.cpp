#include "SIP/SdpTrack.h"

#include "Protocol/LogQuote.h"
#include "Protocol/SdpParser.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint32_t VIDEO_CLOCK_RATE = 90000;
const int MAX_PAYLOAD_TYPE = 127;

}  // namespace

bool CSdpTrack::Read(const char* sdp) {
    CSdpParser parser;
    const CLogQuote shown(Ostra::LOG_LEVEL_WARN, sdp);
    if (parser.Parse(sdp, 0) != 0) {
        logWarn("%s:%d sdp invalid: %s\n", __FILE__, __LINE__, shown.Text());
        return false;
    }
    const int count = parser.get_media_count();
    if (count < 1) {
        logWarn("%s:%d no media, sdp invalid: %s\n", __FILE__, __LINE__, shown.Text());
        return false;
    }
    if (count > 1) {
        logWarn("%s:%d media_num:%d, use first media as default \n", __FILE__, __LINE__, count);
    }
    const int type = parser.get_media_type_at(0);
    CSdpInfo info(&parser);
    if ((type != SDP_MEDIA_AUDIO && type != SDP_MEDIA_VIDEO) || !read_media(info, type == SDP_MEDIA_VIDEO)) {
        logWarn("%s:%d sdp invalid: %s\n", __FILE__, __LINE__, shown.Text());
        return false;
    }
    return true;
}

// The first medium is the first one of its kind, so that the kind names it.
bool CSdpTrack::read_media(CSdpInfo& info, bool video) {
    const int payload_type = info.GetPayloadType(video ? 'V' : 'A');
    if (payload_type < 0 || payload_type > MAX_PAYLOAD_TYPE || m_params.Read(info) != 0) {
        return false;
    }
    const CDecoderParams::Track& track =
        m_params.Get(video ? CDecoderParams::TRACK_VIDEO : CDecoderParams::TRACK_AUDIO);
    m_decoder = track.param;
    m_decoder.channel = 0;  // there are no others
    m_clock_rate = video ? VIDEO_CLOCK_RATE : track.param.clock_rate;
    return track.described && m_decoder.enc_type != ENC_TYPE_NONE && m_clock_rate > 0;
}

}  // namespace Vidora
}  // namespace Kavio
