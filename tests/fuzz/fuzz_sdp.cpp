// CSdpParser: any text is read, asked about, written, and gives the same tree when it is read again.
#include <cstdint>
#include <cstring>
#include <string>

#include "../support/SdpTree.h"
#include "FuzzSupport.h"
#include "Protocol/SdpParser.h"

using namespace Kavio::Vidora;
using Kavio::Support::CSdpTree;

namespace {

bool g_too_long = false;

// The writer tells of a text that may not fit its store.
void on_line(void*, Kavio::Ostra::log_level_t, const char* text, size_t) {
    g_too_long = g_too_long || std::strstr(text, "buffer too small") != nullptr;
}

// An IPv6 connection's count is read back in the place of a ttl; the line is refused if it doesn't fit 16 bits.
template <typename Record>
bool loses_count(const Record& record) {
    for (const sdp_connection_t& connection : record.connections) {
        if (connection.address_type.Equals("IP6") && connection.address_count > UINT16_MAX) {
            return true;
        }
    }
    return false;
}

bool comes_back_whole(const sdp_session_t& session) {
    bool whole = !g_too_long && !loses_count(session);
    for (const sdp_media_t& media : session.media) {
        whole = whole && !loses_count(media);
    }
    return whole;
}

void ask(const CSdpParser& sdp) {
    sdp_connection_t connection;
    int payload_type = 0;
    Fuzz::Require(sdp.get_media_count() >= 0);
    Fuzz::Require(sdp.get_duration() >= 0);
    Fuzz::Require(sdp.get_packet_kind() >= 0 && sdp.get_packet_kind() <= 3);
    Fuzz::Require(sdp.get_video_encoding() >= 0 && sdp.get_video_encoding() <= SDP_ENCODING_UNKNOWN);
    sdp.get_frame_rate(&payload_type);
    sdp.get_connection(&connection);
    for (int i = -1; i <= sdp.get_media_count() && i < 50; ++i) {
        const int track_id = sdp.get_track_id(i);
        Fuzz::Require(track_id == -1 || sdp.get_index(track_id) == i);
        Fuzz::Require(sdp.get_media_type_at(i) >= 0 && sdp.get_media_type_at(i) <= SDP_MEDIA_UNKNOWN);
        Fuzz::Require(sdp.get_direction(i) >= 0 && sdp.get_direction(i) <= SDP_DIRECTION_NONE);
        const char* control = sdp.get_control(i);
        Fuzz::Require(control == nullptr || std::string(control).size() < SDP_CONTROL_SIZE);
        char* name = sdp.get_payload_name(i);
        Fuzz::Require(name == nullptr || (*name != '\0' && std::string(name).size() < 128));
        std::free(name);
        sdp.get_sample_rate(i);
        sdp.get_channel_count(i);
        sdp.get_media_connection(track_id, &connection);
        sdp.get_media_attribute(track_id, "fmtp");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Kavio::Ostra::SetLogSink(on_line, nullptr);
    Kavio::Ostra::SetLogLevel(Kavio::Ostra::LOG_LEVEL_WARN);
    g_too_long = false;
    CSdpParser sdp;
    if (size == 0) {
        return 0;  // a length of 0 asks for the text's own end
    }
    Fuzz::Require(sdp.Parse(reinterpret_cast<const char*>(data), static_cast<int>(size)) == 0);
    ask(sdp);
    Fuzz::Require(sdp.GetStream() == 0);
    const std::string text = sdp.get_stream();
    Fuzz::Require(text.size() < SDP_STREAM_SIZE && text.compare(0, 2, "v=") == 0);
    Fuzz::Require(text.compare(text.size() - 2, 2, "\r\n") == 0);  // whole lines only

    CSdpParser again(sdp);
    Fuzz::Require(again.GetStream() == 0);
    if (comes_back_whole(*sdp.get_session())) {
        Fuzz::Require(CSdpTree::Dump(*again.get_session()) == CSdpTree::Dump(*sdp.get_session()));
    }
    Fuzz::Require(again.add_media("video", 1, 1, "RTP/AVP", "96 97") == again.get_media_count());
    ask(again);
    return 0;
}
