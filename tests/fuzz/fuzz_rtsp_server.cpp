// A byte stream from a client: cut into messages and read as a session does, each answered with every kind of reply.
#include <cstring>

#include "Protocol/RtspRspParser.h"
#include "RtspStream.h"

using namespace Kavio::Vidora;

namespace {

void check_reply(const char* reply) {
    Fuzz::Require(reply != nullptr && std::strncmp(reply, "RTSP/1.0 ", 9) == 0 &&
                  std::strlen(reply) <= RTSP_MAX_MESSAGE);
}

void generate_all(CRtspRspParser& parser) {
    check_reply(parser.generate_options_reply());
    check_reply(parser.generate_describe_reply(7));
    check_reply(parser.generate_setup_reply(parser.get_transport(), parser.get_multicast()));
    check_reply(parser.generate_auth_reply(parser.get_auth()));
    check_reply(parser.generate_reply(parser.get_session(), parser.get_cseq(), parser.get_body()));
    rtp_info_entry entries[3] = {};
    for (rtp_info_entry& entry : entries) {
        std::memcpy(entry.url, parser.get_url(), sizeof entry.url);  // not terminated if the URL is long
    }
    double begin = 0;
    double end = 0;
    UtcTime begin_utc;
    UtcTime end_utc;
    parser.get_npt_range(&begin, &end);
    parser.get_clock_range(&begin_utc, &end_utc);
    check_reply(parser.generate_play_reply(entries, 3, begin, end));
    check_reply(parser.generate_play_reply_clock(entries, 3, &begin_utc, &end_utc));
}

void check_fields(const CRtspRspParser& parser) {
    Fuzz::Require(std::strlen(parser.get_url()) <= RTSP_MAX_TEXT && std::strlen(parser.get_auth()) <= RTSP_MAX_TEXT);
    Fuzz::Require(std::strlen(parser.get_body()) <= RTSP_MAX_MESSAGE &&
                  std::strlen(parser.get_multicast()->addr) <= 127);
    const transport_info* t = parser.get_transport();
    Fuzz::Require(t->rtp_port >= 0 && t->rtp_port <= 65535 && t->rtcp_port >= 0 && t->rtcp_port <= 65535);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    CRtspRspParser parser;
    Fuzz::EachMessage(parser, data, size, [&](const char* message, unsigned int length, rtsp_msg_info& info) {
        rtsp_msg_info again;
        Fuzz::Require(parser.check_message(message, length, &again) == static_cast<int>(length));
        Fuzz::Require(again.method == info.method);
        const int result = parser.parse_request(message, length, &info);
        Fuzz::Require(result == RTSP_OK || result == RTSP_BAD_MESSAGE || result == RTSP_UNKNOWN_METHOD);
        check_fields(parser);
        generate_all(parser);
    });
    return 0;
}
