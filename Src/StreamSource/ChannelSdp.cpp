#include "StreamSource/ChannelSdp.h"

#include "Protocol/SdpParser.h"
#include "StreamSource/MulticastOutput.h"

namespace Kavio {
namespace Vidora {

namespace {

const int PORTS_PER_TRACK = 2;
const char TS_RTPMAP[] = "33 MP2T/90000";
const char TS_FORMAT[] = "33";
const char LIVE_RANGE[] = "npt=now-";

// RFC 2250: one medium, payload type 33, with the sound inside it.
void describe_ts_alone(CSdpParser& sdp) {
    int at = 0;
    while (at < sdp.get_media_count() && sdp.get_media_type_at(at) != SDP_MEDIA_VIDEO) {
        ++at;
    }
    const int video = sdp.get_track_id(at);
    for (int i = video < 0 ? -1 : sdp.get_media_count() - 1; i >= 0; --i) {
        if (i != at) {
            sdp.remove_media(sdp.get_track_id(i));
        }
    }
    sdp.set_media_format(video, TS_FORMAT);
    sdp.remove_media_attribute(video, "fmtp");
}

// Returns the base port.
int describe_destinations(CSdpParser& sdp, const CMulticastOutput& output) {
    sdp.remove_session_attribute("packetization-supported");
    sdp.set_session_attribute("range", LIVE_RANGE);
    return output.DescribeIn(sdp);
}

void set_port(CSdpParser& sdp, int index, int port) {
    sdp.set_media_port(sdp.get_track_id(index), static_cast<uint16_t>(port));
}

void set_ts_map(CSdpParser& sdp, int index) {
    sdp.set_media_attribute(sdp.get_track_id(index), "rtpmap", TS_RTPMAP);
}

}  // namespace

void FinishUnicastSdp(CSdpParser& sdp, transf_type_t transf_type, bool standard) {
    if (standard && transf_type == TRANSF_TYPE_TS) {
        describe_ts_alone(sdp);
    }
    sdp.set_session_attribute("range", LIVE_RANGE);
    for (int i = 0; transf_type == TRANSF_TYPE_TS && i < sdp.get_media_count(); ++i) {
        if (sdp.get_media_type_at(i) == SDP_MEDIA_VIDEO) {
            set_ts_map(sdp, i);
            break;
        }
    }
    sdp.GetStream();
}

void FinishMulticastSdp(CSdpParser& sdp, transf_type_t transf_type, bool standard, const CMulticastOutput& output) {
    if (standard && transf_type == TRANSF_TYPE_TS) {
        describe_ts_alone(sdp);
    }
    const int base_port = describe_destinations(sdp, output);
    for (int i = 0; i < sdp.get_media_count(); ++i) {
        const int media_type = sdp.get_media_type_at(i);
        if (media_type == SDP_MEDIA_VIDEO) {
            set_port(sdp, i, base_port);
            if (transf_type == TRANSF_TYPE_TS) {
                set_ts_map(sdp, i);
            }
        } else if (media_type == SDP_MEDIA_AUDIO && transf_type == TRANSF_TYPE_RTP) {
            set_port(sdp, i, base_port + PORTS_PER_TRACK);
        }
    }
    sdp.GetStream();
}

void FinishExtendedSdp(CSdpParser& sdp, transf_type_t transf_type, const CMulticastOutput& output) {
    const int base_port = describe_destinations(sdp, output);
    const bool is_ts = transf_type == TRANSF_TYPE_TS;
    for (int i = 0; i < sdp.get_media_count(); ++i) {
        if (is_ts && sdp.get_media_type_at(i) != SDP_MEDIA_VIDEO) {
            continue;
        }
        set_port(sdp, i, base_port + PORTS_PER_TRACK * i);
        if (is_ts) {
            set_ts_map(sdp, i);
        }
    }
    sdp.GetStream();
}

}  // namespace Vidora
}  // namespace Kavio
