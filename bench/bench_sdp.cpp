// Session descriptions a second, and allocations for each.
//
//   parse     CSdpParser::Parse of a description
//   write     GetStream of its tree
//   copy      an assignment, as each session makes of its channel's description: the text, and a parse of it
//   floor     on the same bytes: a memcpy, and one strstr pass for a text that isn't there
//
// Descriptions: a camera of three tracks, 0.5 kB, and one that fills the 2 kB store with attributes. The floor says
// what merely moving and looking once through the bytes costs; a parse makes a tree of small records, so most of its
// time is that of its allocations. support/PairedRow.h says how rows are measured. Nothing is asserted.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Protocol/SdpParser.h"
#include "support/PairedRow.h"

namespace {

using namespace Bench;
using namespace Kavio::Vidora;

void check(bool good) {
    if (!good) {
        std::fprintf(stderr, "a description can't be read\n");
        std::exit(1);
    }
}

void bench(const char* title, const std::string& text) {
    std::printf("%s\n", title);
    const Row floor = text_floor(text);
    const auto run = [&](const char* name, const std::function<void(size_t)>& work) {
        const Row row = {name, text.size(), 1, work};
        print_text_row(row, compare(row, floor));
    };
    CSdpParser sdp;
    CSdpParser session;
    const int length = static_cast<int>(text.size());
    run("parse", [&](size_t) { check(sdp.Parse(text.c_str(), length) == 0); });
    check(sdp.get_media_count() == 3);
    run("write", [&](size_t) { check(sdp.GetStream() == 0); });
    check(sdp.get_stream() == text);
    run("copy", [&](size_t) { session = sdp; });
    check(session.get_media_count() == 3);
    print_text_row(floor, compare(floor, floor));
}

std::string camera(int extra_attributes) {
    std::string text =
        "v=0\r\no=- 2251938202 2251938202 IN IP4 0.0.0.0\r\ns=Media Server\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n"
        "a=control:*\r\na=range:npt=now-\r\na=packetization-supported:KX\r\nm=video 0 RTP/AVP 96\r\n"
        "a=framerate:25.000000\r\na=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1;profile-level-id=4D001F;"
        "sprop-parameter-sets=Z00AH6aAUAW6bgICAoAAAAMAgAAAGUI=,aO48gAA=\r\na=recvonly\r\na=control:trackID=0\r\n"
        "m=audio 0 RTP/AVP 8\r\na=rtpmap:8 PCMA/8000\r\na=recvonly\r\na=control:trackID=1\r\n"
        "m=application 0 RTP/AVP 100\r\na=rtpmap:100 stream-assist-frame/90000\r\na=recvonly\r\n"
        "a=control:trackID=2\r\n";
    for (int i = 0; i < extra_attributes; ++i) {
        text += "a=x-setting:value of a setting\r\n";
    }
    return text;
}

}  // namespace

int main() {
    PrintMachine();
    bench("a camera's live stream", camera(0));
    bench("a full store", camera(42));
    return 0;
}
