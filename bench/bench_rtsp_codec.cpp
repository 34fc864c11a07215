// Time and allocations per message of the two RTSP codecs.
//
//   server   check_message and parse_request of a SETUP as a player sends it, and the reply
//   client   generate_setup, and check_message and parse_message of the reply to it
//   floor    on the same bytes: a memcpy, and one strstr pass for a text that isn't there
//
// The floor says what merely moving and looking once through the message costs; a codec looks for about a dozen keys.
// support/PairedRow.h says how rows are measured. Nothing is asserted.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Protocol/RtspReqParser.h"
#include "Protocol/RtspRspParser.h"
#include "support/PairedRow.h"

namespace {

using namespace Bench;
using namespace Kavio::Vidora;

void fail(const char* what) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
}

void bench_server(bool with_extra) {
    CRtspRspParser parser;
    std::string request =
        "SETUP rtsp://192.0.2.1:8554/live/camera/track1 RTSP/1.0\r\nTransport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n"
        "CSeq: 3\r\nUser-Agent: Lavf59.27.100\r\nSession: " +
        std::to_string(parser.get_session_id()) + "\r\n\r\n";
    if (with_extra) {
        parser.set_ext_key(RTSP_METHOD_SETUP, "X-Extra-Header", "a value longer than a small string holds");
    }
    const unsigned int length = static_cast<unsigned int>(request.size());
    const char* name = with_extra ? "server: read SETUP, extra headers" : "server: read SETUP, write reply";
    const Row row = {name, length, 1, [&](size_t) {
                         rtsp_msg_info info;
                         if (parser.check_message(request.c_str(), length, &info) != static_cast<int>(length) ||
                             parser.parse_request(request.c_str(), length, &info) != 0) {
                             fail("server");
                         }
                         const char* reply = with_extra ? parser.generate_error_reply(200)
                                                        : parser.generate_setup_reply(parser.get_transport(), nullptr);
                         if (reply == nullptr) {
                             fail("server");
                         }
                     }};
    print_text_row(row, compare(row, text_floor(request)));
}

void bench_client() {
    CRtspReqParser parser;
    parser.set_url("rtsp://192.0.2.1:8554/live/camera/");
    transport_info t;
    t.rtcp_port = 1;
    std::strcpy(t.url, "track1");
    char reply[512];
    const char* format =
        "RTSP/1.0 200 OK\r\nCSeq: %08d\r\nServer: Rtsp Server/2.0\r\nSession: 1373842283;timeout=60\r\nTransport: "
        "RTP/AVP/TCP;unicast;interleaved=0-1;ssrc=4A6B8D1F\r\n\r\n";
    const unsigned int length = static_cast<unsigned int>(std::snprintf(reply, sizeof reply, format, 1));
    char* number = std::strstr(reply, "CSeq: ") + 6;
    unsigned int cseq = 0;
    const Row row = {"client: write SETUP, read reply", length, 1, [&](size_t) {
                         parser.set_next_cseq(++cseq);
                         if (parser.generate_setup(&t, nullptr, false) == nullptr) {
                             fail("client");
                         }
                         unsigned int rest = cseq;
                         for (int digit = 7; digit >= 0; --digit, rest /= 10) {
                             number[digit] = static_cast<char>('0' + rest % 10);
                         }
                         rtsp_msg_info info;
                         if (parser.check_message(reply, length, &info) != static_cast<int>(length) ||
                             parser.parse_message(reply, length, &info) != 0 ||
                             parser.get_method() != RTSP_METHOD_SETUP) {
                             fail("client");
                         }
                     }};
    print_text_row(row, compare(row, text_floor(reply)));
}

}  // namespace

int main() {
    PrintMachine();
    bench_server(false);
    bench_server(true);
    bench_client();
    return 0;
}
