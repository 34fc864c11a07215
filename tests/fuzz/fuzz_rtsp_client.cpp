// A byte stream from a server: the client has asked everything once, reads the replies, and asks again with what they
// gave.
#include <cstring>

#include "Protocol/RtspReqParser.h"
#include "RtspStream.h"

using namespace Kavio::Vidora;

namespace {

void check_request(const char* request) {
    Fuzz::Require(request != nullptr && std::strlen(request) <= RTSP_MAX_MESSAGE &&
                  std::strchr(request, ' ') != nullptr);
}

// Requests with CSeq 1 to 8, and after the replies the same with what they left behind.
void ask_everything(CRtspReqParser& parser) {
    char buffer[512];
    UtcTime begin;
    UtcTime end;
    parser.get_clock_range(&begin, &end);
    check_request(parser.generate_options());
    check_request(parser.generate_describe());
    check_request(parser.generate_setup(parser.get_transport(), parser.get_multicast(), true));
    check_request(parser.generate_play(0, 10, 2, true));
    check_request(parser.generate_pause());
    check_request(parser.generate_parameter(RTSP_METHOD_SET_PARAMETER, parser.get_body(), nullptr));
    check_request(parser.generate_parameter(RTSP_METHOD_GET_PARAMETER, nullptr, nullptr));
    check_request(parser.generate_teardown(buffer, sizeof buffer));
    check_request(parser.generate_play_clock(&begin, &end, 1, false));
}

void check_fields(const CRtspReqParser& parser) {
    for (const char* text : {parser.get_session(), parser.get_public(), parser.get_base_url(), parser.get_auth()}) {
        Fuzz::Require(std::strlen(text) <= RTSP_MAX_TEXT);
    }
    Fuzz::Require(std::strlen(parser.get_redirect_url()) < RTSP_MAX_TEXT);
    int count = 0;
    const rtp_info_entry* entries = parser.get_rtp_info(&count);
    Fuzz::Require(count >= 0 && count <= CRtspReqParser::MAX_RTP_INFO && (entries != nullptr || count == 0));
    for (int i = 0; i < count; ++i) {
        Fuzz::Require(std::memchr(entries[i].url, '\0', sizeof entries[i].url) != nullptr && entries[i].seq <= 65535);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    CRtspReqParser parser;
    parser.set_url("rtsp://192.0.2.1/live?a=1");
    parser.set_back_channel(1);
    ask_everything(parser);
    Fuzz::EachMessage(parser, data, size, [&](const char* message, unsigned int length, rtsp_msg_info& info) {
        const int result = parser.parse_message(message, length, &info);
        Fuzz::Require(result == RTSP_OK || result == RTSP_BAD_MESSAGE || result == RTSP_NO_HEADER ||
                      result == RTSP_CHALLENGE);
        check_fields(parser);
    });
    parser.parse_message(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size), nullptr);
    check_fields(parser);
    ask_everything(parser);
    return 0;
}
