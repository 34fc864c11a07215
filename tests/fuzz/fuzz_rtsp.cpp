// A byte stream of a peer, for both codecs. A server cuts it into messages and answers each with every kind of reply.
// The client has asked everything once, reads the replies, and asks again with what they gave.
#include <cstring>

#include "FuzzSupport.h"
#include "Protocol/RtspReqParser.h"
#include "Protocol/RtspRspParser.h"

using namespace Kavio::Vidora;
using Fuzz::Require;

namespace {

// Cuts a byte stream into messages as a session does. `read` gets the begin and length of each, and what the codec
// told.
template <typename Codec, typename Read>
void each_message(Codec& codec, const uint8_t* data, size_t size, const Read& read) {
    const char* cursor = reinterpret_cast<const char*>(data);
    unsigned int left = static_cast<unsigned int>(size);
    while (left > 0) {
        rtsp_msg_info info;
        const int taken = codec.check_message(cursor, left, &info);
        const unsigned int length = static_cast<unsigned int>(taken);
        if (taken < 0) {
            Require(taken == RTSP_INCOMPLETE || taken == RTSP_BAD_MESSAGE);
            return;
        }
        Require(length > 0 && length <= left);
        read(cursor, length, info);
        cursor += length;
        left -= length;
    }
}

void check_texts(std::initializer_list<const char*> texts, size_t limit) {
    for (const char* text : texts) {
        Require(text != nullptr && std::strlen(text) <= limit);
    }
}

void reply_everything(CRtspRspParser& parser) {
    rtp_info_entry entries[3] = {};
    for (rtp_info_entry& entry : entries) {
        std::memcpy(entry.url, parser.get_url(), sizeof entry.url);  // not terminated if the URL is long
    }
    double begin = 0, end = 0;
    UtcTime begin_utc, end_utc;
    parser.get_npt_range(&begin, &end);
    parser.get_clock_range(&begin_utc, &end_utc);
    const auto check = [](const char* reply) {
        check_texts({reply}, RTSP_MAX_MESSAGE);
        Require(std::strncmp(reply, "RTSP/1.0 ", 9) == 0);
    };
    check(parser.generate_options_reply());
    check(parser.generate_describe_reply(7));
    check(parser.generate_setup_reply(parser.get_transport(), parser.get_multicast()));
    check(parser.generate_auth_reply(parser.get_auth()));
    check(parser.generate_reply(parser.get_session(), parser.get_cseq(), parser.get_body()));
    check(parser.generate_play_reply(entries, 3, begin, end));
    check(parser.generate_play_reply_clock(entries, 3, &begin_utc, &end_utc));
}

void serve(const uint8_t* data, size_t size, bool conformance) {
    CRtspRspParser parser;
    parser.SetConformance(conformance);
    each_message(parser, data, size, [&](const char* message, unsigned int length, rtsp_msg_info& info) {
        const int result = parser.parse_request(message, length, &info);
        Require(result == RTSP_OK || result == RTSP_BAD_MESSAGE || result == RTSP_UNKNOWN_METHOD);
        check_texts({parser.get_url(), parser.get_auth()}, RTSP_MAX_TEXT);
        check_texts({parser.get_body()}, RTSP_MAX_MESSAGE);
        const transport_info* t = parser.get_transport();
        Require(t->rtp_port >= 0 && t->rtp_port <= 65535 && t->rtcp_port >= 0 && t->rtcp_port <= 65535);
        reply_everything(parser);
        while (parser.next_offer(std::string_view(message, length))) {
            Require(parser.generate_setup_reply(parser.get_transport(), parser.get_multicast()) != nullptr);
        }
    });
}

void ask_everything(CRtspReqParser& parser) {
    char buffer[512];
    UtcTime begin, end;
    parser.get_clock_range(&begin, &end);
    const auto check = [](const char* request) {
        check_texts({request}, RTSP_MAX_MESSAGE);
        Require(std::strchr(request, ' ') != nullptr);
    };
    check(parser.generate_options());
    check(parser.generate_describe());
    check(parser.generate_setup(parser.get_transport(), parser.get_multicast(), true));
    check(parser.generate_play(0, 10, 2, true));
    check(parser.generate_pause());
    check(parser.generate_parameter(RTSP_METHOD_SET_PARAMETER, parser.get_body(), nullptr));
    check(parser.generate_parameter(RTSP_METHOD_GET_PARAMETER, nullptr, nullptr));
    check(parser.generate_teardown(buffer, sizeof buffer));
    check(parser.generate_play_clock(&begin, &end, 1, false));
}

void pull(const uint8_t* data, size_t size, bool conformance) {
    CRtspReqParser parser;
    parser.SetConformance(conformance);
    parser.set_url("rtsp://192.0.2.1/live?a=1");
    parser.set_back_channel(true);
    ask_everything(parser);
    each_message(parser, data, size, [&](const char* message, unsigned int length, rtsp_msg_info& info) {
        const int result = parser.parse_message(message, length, &info);
        Require(result == RTSP_OK || result == RTSP_BAD_MESSAGE || result == RTSP_NO_HEADER ||
                result == RTSP_CHALLENGE);
        check_texts({parser.get_session(), parser.get_public(), parser.get_base_url(), parser.get_auth(),
                     parser.get_redirect_url()},
                    RTSP_MAX_TEXT);
        int count = 0;
        const rtp_info_entry* entries = parser.get_rtp_info(&count);
        Require(count >= 0 && count <= CRtspReqParser::MAX_RTP_INFO);
        for (int i = 0; i < count; ++i) {
            Require(std::memchr(entries[i].url, '\0', sizeof entries[i].url) != nullptr && entries[i].seq <= 65535);
        }
    });
    parser.parse_message(reinterpret_cast<const char*>(data), static_cast<unsigned int>(size), nullptr);
    ask_everything(parser);
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    for (const bool conformance : {false, true}) {
        serve(data, size, conformance);
        pull(data, size, conformance);
    }
}
