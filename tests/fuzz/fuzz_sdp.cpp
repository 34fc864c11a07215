// CSdpParser: any text is read, asked about and written; what was written once is read and written as it stands.

#include "FuzzSupport.h"
#include "Protocol/SdpParser.h"

using namespace Kavio::Vidora;
using Fuzz::Require;

namespace {

void ask(const CSdpParser& sdp) {
    sdp_connection_t connection;
    int payload_type = 0;
    Require(sdp.get_duration() >= 0 && sdp.get_packet_kind() >= 0 && sdp.get_packet_kind() <= 3);
    Require(sdp.get_video_encoding() >= 0 && sdp.get_video_encoding() <= SDP_ENCODING_UNKNOWN);
    sdp.get_frame_rate(&payload_type);
    sdp.get_connection(&connection);
    for (int i = -1; i <= sdp.get_media_count() && i < 50; ++i) {
        const int track_id = sdp.get_track_id(i);
        Require(track_id == -1 || sdp.get_index(track_id) == i);
        Require(sdp.get_media_type_at(i) >= 0 && sdp.get_media_type_at(i) <= SDP_MEDIA_UNKNOWN);
        Require(sdp.get_direction(i) >= 0 && sdp.get_direction(i) <= SDP_DIRECTION_NONE);
        const char* control = sdp.get_control(i);
        Require(control == nullptr || std::string(control).size() < SDP_CONTROL_SIZE);
        char* name = sdp.get_payload_name(i);
        Require(name == nullptr || (*name != '\0' && std::string(name).size() < 128));
        std::free(name);
        sdp.get_sample_rate(i);
        sdp.get_channel_count(i);
        sdp.get_media_connection(track_id, &connection);
        sdp.get_media_attribute(track_id, "fmtp");
    }
}

std::string rewritten(const std::string& text) {
    CSdpParser sdp;
    Require(sdp.Parse(text.data(), static_cast<int>(text.size())) == 0);
    ask(sdp);
    Require(sdp.GetStream() == 0);
    const std::string written = sdp.get_stream();
    Require(written.size() < SDP_STREAM_SIZE && written.compare(0, 2, "v=") == 0);
    Require(written.compare(written.size() - 2, 2, "\r\n") == 0);  // whole lines only
    Require(sdp.add_media("video", 1, 1, "RTP/AVP", "96 97") == sdp.get_media_count());
    return written;
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    if (size == 0) {
        return;  // a length of 0 asks for the text's own end
    }
    CSdpParser tolerant;
    tolerant.SetTolerant(true);
    Require(tolerant.Parse(reinterpret_cast<const char*>(data), static_cast<int>(size)) == 0);
    ask(tolerant);
    // A count and blanks behind an IPv6 address come back as something else, and are gone after some turns.
    std::string again(data, data + size);
    for (int turn = 0; turn < 4; ++turn) {
        again = rewritten(again);
    }
    Require(rewritten(again) == again);
}
