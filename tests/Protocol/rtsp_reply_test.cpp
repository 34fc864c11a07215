// The client's codec: every request as a whole text, and replies as cameras and servers send them.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "Protocol/RtspReqParser.h"
#include "Protocol/RtspTables.h"
#include "support/Capture.h"
#include "support/RtspText.h"
#include "support/SampleTable.h"

namespace Kavio::Vidora {
namespace {

using Support::Crlf;

int read(CRtspReqParser& parser, const std::string& text) {
    const std::string message = Crlf(text);
    return parser.parse_message(message.data(), static_cast<unsigned int>(message.size()), nullptr);
}

std::string request(const std::string& line, int cseq, const std::string& rest = "") {
    return Crlf(line + " RTSP/1.0\nUser-Agent: Rtsp Client/2.0\nCSeq: " + std::to_string(cseq) + "\n" + rest + "\n");
}

const char TAG[] = "Require: www.onvif.org/ver20/backchannel\n";

TEST(RtspClientRequest, EveryRequestAsItIsSent) {
    CRtspReqParser parser;
    EXPECT_EQ(parser.generate_options(), request("OPTIONS *", 1));
    parser.set_url("rtsp://h:8554/live");
    EXPECT_EQ(parser.generate_options(), request("OPTIONS rtsp://h:8554/live", 2));
    EXPECT_EQ(parser.generate_describe(), request("DESCRIBE rtsp://h:8554/live", 3, "Accept: application/sdp\n"));
    EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 3\nContent-Base: rtsp://h:8554/live/\n\n"), 0);

    transport_info t;
    t.rtcp_port = 1;
    std::strcpy(t.url, "trackID=0");
    EXPECT_EQ(parser.generate_setup(&t, nullptr, true),
              request("SETUP rtsp://h:8554/live/trackID=0", 4, "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\n"));
    EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 4\nSession: 1234;timeout=60\nTransport: RTP/AVP/TCP\n\n"), 0);
    const std::string session = "Session: 1234\n";
    parser.set_ext_key(RTSP_METHOD_PAUSE, "X-Ext", "1");
    EXPECT_EQ(parser.generate_pause(), request("PAUSE rtsp://h:8554/live", 5, session + "X-Ext: 1\n"));
    EXPECT_EQ(parser.generate_parameter(RTSP_METHOD_GET_PARAMETER, nullptr, "text/x"),
              request("GET_PARAMETER rtsp://h:8554/live", 6, session));
    EXPECT_EQ(
        parser.generate_parameter(RTSP_METHOD_SET_PARAMETER, "a: b\r\n", nullptr),
        request("SET_PARAMETER rtsp://h:8554/live", 7, session + "Content-Length: 6\nContent-Type: text/parameters\n") +
            "a: b\r\n");
    EXPECT_EQ(parser.generate_parameter(8, nullptr, nullptr), nullptr);

    const std::string kept = parser.generate_pause();
    char buffer[512];
    parser.set_back_channel(true);
    EXPECT_EQ(parser.generate_teardown(buffer, sizeof buffer), buffer);
    EXPECT_EQ(buffer, request("TEARDOWN rtsp://h:8554/live", 9, session + TAG));
    EXPECT_EQ(std::strlen(parser.generate_teardown(buffer, 40)), 39U);
    EXPECT_EQ(parser.generate_teardown(nullptr, 0), request("TEARDOWN rtsp://h:8554/live", 11, session + TAG));
    EXPECT_EQ(parser.generate_describe(),
              request("DESCRIBE rtsp://h:8554/live", 12, session + "Accept: application/sdp\n" + TAG));
    parser.set_next_cseq(1);
    EXPECT_EQ(parser.generate_options(), request("OPTIONS rtsp://h:8554/live", 1, session));
    parser.set_next_cseq(100);
    EXPECT_EQ(parser.generate_options(), request("OPTIONS rtsp://h:8554/live", 100, session));

    const Support::CAssertCapture asserts;
    parser.set_url(nullptr);
    EXPECT_EQ(asserts.Texts(), std::vector<std::string>{"url!=NULL"});
}

TEST(RtspClientRequest, SetupUrlsAndTransports) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/rtsp_urls.txt", "setup", 6)) {
        CRtspReqParser parser;
        parser.set_url("rtsp://h/live");
        parser.set_back_channel(true);
        transport_info t;
        std::strcpy(t.url, row[0].c_str());
        t.transport = static_cast<rtp_protocol_t>(std::stoi(row[1]));
        t.multicast = row[2] == "1";
        t.rtp_port = 6;
        t.rtcp_port = 7;
        multicast_info m;
        std::strcpy(m.addr, row[3].c_str());
        m.ttl = 5;
        EXPECT_EQ(parser.generate_setup(&t, row[3].empty() ? nullptr : &m, true),
                  request("SETUP " + row[4], 1, "Transport: " + row[5] + (t.multicast != 0 ? " \n" : "\n") + TAG));
    }
}

TEST(RtspClientRequest, PlayRangesAndRates) {
    CRtspReqParser parser;
    parser.set_url("rtsp://h/x");
    const UtcTime utc = {2020, 1, 2, 3, 4, 5, 0};
    const SmpteTime smpte = {1, 2, 3};
    const auto play = [](int cseq, const std::string& headers) { return request("PLAY rtsp://h/x", cseq, headers); };
    EXPECT_EQ(parser.generate_play(-1, 5, 1, true), play(1, ""));
    EXPECT_EQ(parser.generate_play(0, 0, 2, true), play(2, "Scale: 2.000\nRange: npt=0.000000-\n"));
    EXPECT_EQ(parser.generate_play(1.5F, 20, -0.5F, false), play(3, "Speed: -0.500\nRange: npt=1.500000-20.000000\n"));
    EXPECT_EQ(parser.generate_play_clock(&utc, nullptr, 1, false), play(4, "Range: clock=20200102T030405Z-\n"));
    parser.set_back_channel(true);
    EXPECT_EQ(parser.generate_play_smpte(&smpte, &smpte, 1, false),
              play(5, std::string("Range: smpte=01:02:03-01:02:03\n") + TAG));
}

TEST(RtspClientRequest, PlayUrlFollowsTheBase) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/rtsp_urls.txt", "play", 4)) {
        CRtspReqParser parser;
        parser.set_url(row[0].c_str());
        parser.generate_describe();
        EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 1\nContent-Base: " + row[1] + "\n\n"), 0);
        EXPECT_EQ(parser.generate_play(-1, 0, 1, true), request("PLAY " + row[2], 2)) << row[1];
        EXPECT_EQ(parser.generate_play(-1, 0, 1, true), request("PLAY " + row[3], 3)) << row[1];
    }
}

std::string what_it_carries(const CRtspReqParser& parser) {
    const transport_info* t = parser.get_transport();
    std::ostringstream out;
    const std::string session = parser.get_session();
    double begin = 0;
    double end = 0;
    int count = 0;
    const rtp_info_entry* entries = nullptr;
    switch (parser.get_method()) {
        case RTSP_METHOD_OPTIONS:
            out << " [" << parser.get_public() << "]";
            break;
        case RTSP_METHOD_DESCRIBE:
            out << " [" << parser.get_base_url() << "]";
            [[fallthrough]];
        case RTSP_METHOD_SET_PARAMETER:
        case RTSP_METHOD_GET_PARAMETER:
            out << " " << parser.get_content_type(&count);
            out << " " << count << " [" << parser.get_body() << "]";
            break;
        case RTSP_METHOD_SETUP:
            out << Support::TransportText(*t, *parser.get_multicast());
            out << " server " << t->server_rtp_port << "-" << t->server_rtcp_port;
            out << " ssrc " << std::hex << t->ssrc << " [" << session.substr(0, session.find("\r\n")) << "]";
            break;
        case RTSP_METHOD_PLAY:
            parser.get_npt_range(&begin, &end);
            out << " npt " << begin << " " << end;
            entries = parser.get_rtp_info(&count);
            for (int i = 0; i < count; ++i) {
                out << " " << entries[i].url << " " << entries[i].seq << " " << entries[i].rtptime;
            }
            break;
    }
    return out.str();
}

TEST(RtspClientReply, RepliesOfCamerasAndServers) {
    for (const Support::RtspSample& sample : Support::ReadRtspSamples(
             {VIDORA_TEST_DATA "/rtsp_replies.txt", VIDORA_TEST_DATA "/rtsp_standard_replies.txt"})) {
        CRtspReqParser parser;
        parser.SetConformance(sample.file > 0);
        parser.set_url("rtsp://h/main");
        const transport_info t;
        parser.generate_options();
        parser.generate_describe();
        parser.generate_setup(&t, nullptr, false);
        parser.generate_play(0, 0, 1, false);
        parser.generate_pause();
        parser.generate_teardown(nullptr, 0);
        parser.generate_parameter(RTSP_METHOD_SET_PARAMETER, nullptr, nullptr);
        parser.generate_parameter(RTSP_METHOD_GET_PARAMETER, nullptr, nullptr);
        const Support::CLogCapture log;
        const std::string& text = sample.message;
        const int result = parser.parse_message(text.data(), static_cast<unsigned int>(text.size()), nullptr);
        const int status = parser.get_status();
        const char* name = RtspMethodName(parser.get_method());
        std::ostringstream got;
        got << result << " " << (name != nullptr ? name : "unknown") << " " << status;
        if (status == 401) {
            got << " auth " << parser.get_auth();
        } else if (status == 302 || (result == RTSP_BAD_MESSAGE && status == 400)) {
            got << " redirect " << parser.get_redirect_url();
        } else {
            got << what_it_carries(parser);
        }
        EXPECT_EQ(got.str(), sample.expected) << text;
    }
    CRtspReqParser parser;
    EXPECT_EQ(parser.parse_message(nullptr, 3, nullptr), -1);
    EXPECT_EQ(parser.parse_message("x", 0, nullptr), -1);
    EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 1\n"), -1);  // no end
}

TEST(RtspClientReply, RepliesFindTheirRequestsOnce) {
    CRtspReqParser parser;
    const Support::CLogCapture log;
    parser.generate_options();
    parser.generate_describe();
    // The second answer comes first; the late first one must not turn the counter back.
    EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 2\n\n"), 0);
    EXPECT_EQ(parser.get_method(), RTSP_METHOD_DESCRIBE);
    EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 1\n\n"), 0);
    EXPECT_EQ(parser.get_method(), RTSP_METHOD_OPTIONS);
    EXPECT_EQ(log.Count("unknow method!"), 0);
    EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 1\n\n"), 0);
    EXPECT_EQ(parser.get_method(), RTSP_METHOD_UNKNOWN);
    EXPECT_EQ(log.Count("unknow method!\nrecv:RTSP/1.0 200 OK\r\nCSeq: 1\r\n\r\n\n"), 1);
    EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: 2147483647\n\n"), 0);  // nobody asked for it
    EXPECT_EQ(parser.generate_pause(), request("PAUSE ", 3));
    // check_message uses the request up; its triple brings the method to the reader.
    const std::string reply = Crlf("RTSP/1.0 200 OK\nCSeq: 3\n\n");
    rtsp_msg_info info;
    EXPECT_EQ(parser.check_message(reply.data(), static_cast<unsigned int>(reply.size()), &info),
              static_cast<int>(reply.size()));
    EXPECT_EQ(parser.parse_message(reply.data(), static_cast<unsigned int>(reply.size()), &info), 0);
    EXPECT_EQ(parser.get_method(), RTSP_METHOD_PAUSE);
}

TEST(RtspClientReply, AGroupIsThatOfItsOwnTrack) {
    CRtspReqParser parser;
    const transport_info t;
    for (const std::string group : {";destination=239.0.0.1", ""}) {
        parser.generate_setup(&t, nullptr, false);
        const std::string cseq = "CSeq: " + std::to_string(parser.get_cseq());
        EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\n" + cseq + "\nTransport: RTP/AVP;multicast" + group + "\n\n"), 0);
        EXPECT_EQ(parser.get_multicast()->addr[0] == '\0', group.empty());
    }
}

// What a thread sanitizer must find quiet: an application that generates while the network thread reads.
TEST(RtspClientThreads, GeneratorBesideReader) {
    CRtspReqParser parser;
    parser.set_url("rtsp://h/live");
    std::atomic<int> sent{0};
    std::thread application([&] {
        const transport_info t;
        for (int i = 0; i < 2000; ++i) {
            parser.generate_setup(&t, nullptr, false);
            sent = i + 1;
        }
    });
    for (int read_count = 0; read_count < 2000;) {
        if (sent > read_count) {
            ++read_count;
            EXPECT_EQ(read(parser, "RTSP/1.0 200 OK\nCSeq: " + std::to_string(read_count) +
                                       "\nTransport: RTP/AVP\nSession: 5\n\n"),
                      0);
            EXPECT_EQ(parser.get_method(), RTSP_METHOD_SETUP);
        }
    }
    application.join();
    EXPECT_EQ(parser.generate_options(), request("OPTIONS rtsp://h/live", 2001, "Session: 5\n"));
}

}  // namespace
}  // namespace Kavio::Vidora
