// The server's codec: requests as players send them, and every reply as a whole text.
#include <gtest/gtest.h>

#include <cstring>

#include "Protocol/RtspRspParser.h"
#include "Protocol/RtspTables.h"
#include "support/Capture.h"
#include "support/RtspText.h"
#include "support/SampleTable.h"

namespace Kavio::Vidora {
namespace {

using Support::Crlf;

int read(CRtspRspParser& parser, const std::string& text) {
    const std::string message = Crlf(text);
    return parser.parse_request(message.data(), static_cast<unsigned int>(message.size()), nullptr);
}

std::string id_of(const CRtspRspParser& parser) {
    return std::to_string(parser.get_session_id());
}

std::string what_it_carries(const CRtspRspParser& parser) {
    std::ostringstream out;
    double begin = 0;
    double end = 0;
    UtcTime begin_utc;
    UtcTime end_utc;
    bool is_scale = false;
    switch (parser.get_method()) {
        case RTSP_METHOD_DESCRIBE:
        case RTSP_METHOD_SETUP:
            out << Support::TransportText(*parser.get_transport(), *parser.get_multicast());
            break;
        case RTSP_METHOD_PLAY:
            parser.get_npt_range(&begin, &end);
            parser.get_clock_range(&begin_utc, &end_utc);
            if (parser.get_range_type() == 0) {
                out << " npt " << begin << " " << end;
            } else {
                out << " clock " << begin_utc.year << "-" << begin_utc.month << "-" << begin_utc.day << " "
                    << end_utc.year << "-" << end_utc.month << "-" << end_utc.day;
            }
            parser.get_speed(&is_scale);
            out << (is_scale ? " scale " : " speed ") << parser.get_speed(nullptr) << " cseq "
                << parser.get_range_cseq();
            break;
        case RTSP_METHOD_SET_PARAMETER:
        case RTSP_METHOD_GET_PARAMETER:
            out << " [" << parser.get_body() << "]";
            break;
    }
    return out.str() + (parser.get_session()[0] != '\0' ? " session" : "");
}

TEST(RtspRequest, RequestsOfRealPlayers) {
    for (const Support::RtspSample& sample : Support::ReadRtspSamples(
             {VIDORA_TEST_DATA "/rtsp_requests.txt", VIDORA_TEST_DATA "/rtsp_standard_requests.txt"})) {
        CRtspRspParser parser;
        parser.SetConformance(sample.file > 0);
        const Support::CLogCapture log;
        std::ostringstream got;
        got << parser.parse_request(sample.message.data(), static_cast<unsigned int>(sample.message.size()), nullptr);
        const char* name = RtspMethodName(parser.get_method());
        got << " " << (name != nullptr ? name : "unknown") << " " << parser.get_cseq() << " [" << parser.get_url()
            << "] client " << parser.get_client_kind() << what_it_carries(parser);
        got << (parser.get_auth()[0] != '\0' ? " auth " : "") << parser.get_auth();
        got << (parser.get_play_fault() != 0 ? " fault 457" : "");
        EXPECT_EQ(got.str(), sample.expected) << sample.message;
    }
}

TEST(RtspRequest, SessionIsCheckedOnceThereIsOne) {
    CRtspRspParser parser;
    const std::string setup =
        "SETUP rtsp://h/x/1 RTSP/1.0\nCSeq: 3\nTransport: RTP/AVP/TCP;interleaved=0-1\nUser-Agent: LibVLC\n";
    const std::string wrong = "CSeq: 4\nSession: 77\n\n";
    const std::string right = "CSeq: 4\nsession: " + id_of(parser) + "\n\n";
    EXPECT_EQ(read(parser, "PLAY rtsp://h/x RTSP/1.0\n" + wrong), 0);
    EXPECT_EQ(read(parser, setup + "\n"), 0);
    EXPECT_EQ(read(parser, setup + "\n"), -1);
    EXPECT_EQ(read(parser, "PLAY rtsp://other/x RTSP/1.0\n" + wrong), -1);
    EXPECT_STREQ(parser.get_url(), "rtsp://h/x/1");
    EXPECT_EQ(read(parser, "RECORD rtsp://h/x RTSP/1.0\n" + wrong), -1);
    for (const char* free : {"OPTIONS", "SET_PARAMETER", "GET_PARAMETER"}) {
        EXPECT_EQ(read(parser, std::string(free) + " rtsp://h/x RTSP/1.0\n" + wrong), 0) << free;
    }
    EXPECT_EQ(read(parser, "PLAY rtsp://h/x RTSP/1.0\nUser-Agent: QuickTime\n" + right), 0);
    EXPECT_EQ(parser.get_client_kind(), CLIENT_KIND_LIBVLC);  // settled by the first
}

TEST(RtspRequest, FaultsAndLongTexts) {
    const Support::CLogCapture log;
    CRtspRspParser parser;
    EXPECT_EQ(parser.parse_request(nullptr, 5, nullptr) | parser.parse_request("x", 0, nullptr), 0);
    EXPECT_EQ(read(parser, "RECORD rtsp://h/x RTSP/1.0\nCSeq: 5\n\n"), -5);
    EXPECT_EQ(log.Count("RTSP Command[8]: RECORD rtsp://h/x RTSP/1.0\r\nCSeq: 5\r\n\r\n not supported \n"), 1);
    EXPECT_EQ(read(parser, "OPTIONS * RTSP/1.0\nCSeq: 1\nauthorization:  Basic abc=\n\n"), 0);
    EXPECT_STREQ(parser.get_auth(), "Basic abc=");
    EXPECT_EQ(read(parser, "OPTIONS " + std::string(3000, 'u') + " RTSP/1.0\nCSeq: 1\n\n"), 0);
    EXPECT_STREQ(parser.get_auth(), "Basic abc=");  // stays without the header
    EXPECT_EQ(read(parser, "PLAY rtsp://" + std::string(3000, 'u') + " RTSP/1.0\nCSeq: 1\n\n"), 0);
    EXPECT_EQ(std::strlen(parser.get_url()), 1024U);
}

TEST(RtspReply, RepliesThroughTheFrame) {
    CRtspRspParser parser;
    parser.set_ext_key(RTSP_METHOD_DESCRIBE, "X-Two", "2");
    parser.set_ext_key(RTSP_METHOD_DESCRIBE, "X-One", "1");
    read(parser, "OPTIONS * RTSP/1.0\nCSeq: 7\n\n");
    EXPECT_EQ(parser.generate_options_reply(),
              Crlf("RTSP/1.0 200 OK\nServer: Rtsp Server/2.0\nCSeq: 7\n"
                   "Public: OPTIONS,DESCRIBE,SETUP,PLAY,PAUSE,TEARDOWN,SET_PARAMETER,GET_PARAMETER\n\n"));
    read(parser, "DESCRIBE rtsp://h/x?a=b RTSP/1.0\nCSeq: 8\nTransport: RTP/AVP/TCP\n\n");
    const std::string frame = "Server: Rtsp Server/2.0\nCSeq: 8\nSession: " + id_of(parser) + "\n";
    EXPECT_EQ(parser.generate_describe_reply(321),
              Crlf("RTSP/1.0 200 OK\n" + frame +
                   "X-One: 1\nX-Two: 2\nContent-Base: rtsp://h/x?a=b\nContent-Type: application/sdp\nContent-Length: "
                   "321\nCache-Control: must-revalidate\nx-Accept-Dynamic-Rate: 1\n\n"));
    EXPECT_EQ(parser.generate_auth_reply("Basic realm=\"x\""),
              Crlf("RTSP/1.0 401 Unauthorized\n" + frame + "WWW-Authenticate: Basic realm=\"x\"\n\n"));
    EXPECT_EQ(parser.generate_error_reply(454), Crlf("RTSP/1.0 454 Session Not Found\n" + frame + "\n"));
    EXPECT_EQ(parser.generate_error_reply(200), Crlf("RTSP/1.0 200 OK\n" + frame + "X-One: 1\nX-Two: 2\n\n"));
    EXPECT_EQ(parser.generate_reply("A: b\r\n", 551, "body"),
              Crlf("RTSP/1.0 551 Option not supported\n" + frame + "A: b\n\nbody"));
    const Support::CLogCapture log;
    EXPECT_EQ(parser.generate_reply("A: b\r\n", 499, "body"), Crlf("RTSP/1.0 400 Bad Request\n" + frame + "\n"));
    EXPECT_EQ(log.Count("Bad Request !\n"), 1);
    EXPECT_EQ(std::strlen(parser.generate_reply(nullptr, 200, std::string(5000, 'b').c_str())), 4096U);
}

TEST(RtspReply, SetupOfEveryTransport) {
    CRtspRspParser parser;
    parser.set_ext_key(RTSP_METHOD_SETUP, "X-Ext", "never here");
    read(parser, "SETUP rtsp://h/x RTSP/1.0\nCSeq: 3\n\n");
    transport_info t;
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/rtsp_messages.txt", "setup replies", 4)) {
        const std::vector<int> numbers = Support::Numbers(row[0]);
        t.packet_type = static_cast<packet_type_t>(numbers[0]);
        t.transport = static_cast<rtp_protocol_t>(numbers[1]);
        t.rtp_port = numbers[2];
        t.rtcp_port = numbers[3];
        t.server_rtp_port = 2;
        t.server_rtcp_port = 3;
        t.ssrc = static_cast<uint32_t>(numbers[4]);
        t.timeout = numbers[5];
        t.multicast = !row[1].empty();
        multicast_info m;
        std::strcpy(m.addr, row[1].c_str());
        m.ttl = 16;
        EXPECT_EQ(parser.generate_setup_reply(&t, t.multicast ? &m : nullptr),
                  Crlf("RTSP/1.0 200 OK\nServer: Rtsp Server/2.0\nCSeq: 3\nSession: " + id_of(parser) +
                       ";timeout=" + row[2] + "\nTransport: " + row[3] + "\nx-dynamic-rate: 1\n\n"));
    }
    EXPECT_EQ(parser.generate_setup_reply(&t, nullptr), nullptr);  // of a multicast that isn't known
}

TEST(RtspReply, PlayWithItsTracksAndRange) {
    CRtspRspParser parser;
    read(parser, "PLAY rtsp://h/x RTSP/1.0\nCSeq: 5\n\n");
    rtp_info_entry entries[40] = {};
    for (rtp_info_entry& entry : entries) {
        std::strcpy(entry.url, "rtsp://h/x/track1");
        entry.seq = 65535;
        entry.rtptime = 4294967295U;
    }
    const std::string frame = "RTSP/1.0 200 OK\nServer: Rtsp Server/2.0\nCSeq: 5\nRTP-Info: ";
    const std::string one = "url=rtsp://h/x/track1;seq=65535;rtptime=4294967295";
    EXPECT_EQ(parser.generate_play_reply(entries, 1, -1.0, 5), Crlf(frame + one + "\n\n"));
    EXPECT_EQ(parser.generate_play_reply(entries, 2, 0, -1.0),
              Crlf(frame + one + "," + one + "\nRange: npt=0.000000-\n\n"));
    EXPECT_EQ(parser.generate_play_reply(entries, 1, 1.5, 20),
              Crlf(frame + one + "\nRange: npt=1.500000-20.000000\n\n"));
    const UtcTime none;
    const UtcTime begin = {2020, 1, 2, 3, 4, 5, 0};
    EXPECT_EQ(parser.generate_play_reply_clock(entries, 1, &begin, &none),
              Crlf(frame + one + "\nRange: clock=20200102T030405Z-\n\n"));
    EXPECT_EQ(parser.generate_play_reply_clock(entries, 1, &none, &begin), Crlf(frame + one + "\n\n"));
    EXPECT_EQ(parser.generate_play_reply(entries, 0, 0, 0), nullptr);
    EXPECT_EQ(parser.generate_play_reply(nullptr, 1, 0, 0), nullptr);
    // 19 entries fill 979 of the 1023 characters; the rest are left out.
    std::string many = frame + one;
    for (int i = 1; i < 19; ++i) {
        many += "," + one;
    }
    EXPECT_EQ(parser.generate_play_reply(entries, 40, 0, -1.0), Crlf(many + "\nRange: npt=0.000000-\n\n"));
    std::memset(entries[0].url, 'u', sizeof entries[0].url);  // nothing of it fits
    const std::string bare = frame.substr(0, frame.find("RTP-Info"));
    EXPECT_EQ(parser.generate_play_reply(entries, 2, 0, -1.0), Crlf(bare + "Range: npt=0.000000-\n\n"));
    // Headers that don't fit into the message leave whole lines, and the end of the headers.
    for (size_t size = 3900; size < 4100; ++size) {
        parser.set_ext_key(RTSP_METHOD_PLAY, "A", std::string(size, 'a').c_str());
        const std::string reply = parser.generate_play_reply(entries + 1, 1, 0, -1.0);
        EXPECT_LE(reply.size(), 4096U);
        EXPECT_EQ(reply.substr(reply.size() - 4), "\r\n\r\n") << size;
        EXPECT_TRUE(reply.size() < 100 || reply.find(std::string(size, 'a') + "\r\n") != std::string::npos) << size;
    }
}

// Between two requests a session keeps its identifier, and no memory of a message.
TEST(RtspMemory, ATextEndsWithItsMessageAndTheSessionDoesnt) {
    CRtspRspParser parser;
    read(parser, "SETUP rtsp://h/x RTSP/1.0\nCSeq: 3\nAuthorization: a\nTransport: RTP/AVP/TCP;interleaved=0-1\n\n");
    parser.release_memory();
    EXPECT_EQ(nullptr, parser.memory());
    EXPECT_STREQ("", (std::string(parser.get_url()) + parser.get_auth() + parser.get_body()).c_str());
    EXPECT_EQ(read(parser, "PAUSE rtsp://h/x RTSP/1.0\nCSeq: 6\nSession: 1\n\n"), -1);
    parser.release_memory();
    EXPECT_EQ(std::string(parser.generate_error_reply(RTSP_STATUS_OK)).find("Session: " + id_of(parser)), 51U);
}

}  // namespace
}  // namespace Kavio::Vidora
