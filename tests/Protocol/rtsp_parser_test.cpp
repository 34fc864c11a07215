// What both codecs share: the boundary rule, ranges and rates, bodies, extra headers; and what of it is logged.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "Protocol/LogQuote.h"
#include "Protocol/RtspRspParser.h"
#include "Tramel/StrParser.h"
#include "support/Capture.h"
#include "support/RtspText.h"
#include "support/SampleTable.h"

namespace Kavio::Vidora {
namespace {

using Support::Crlf;

int check(CRtspParser& parser, const std::string& text, rtsp_msg_info* info) {
    // A heap block of the exact size and without a NUL: a read behind it is seen by the sanitizer.
    const std::unique_ptr<char[]> exact(new char[text.size() + 1]);
    std::memcpy(exact.get() + 1, text.data(), text.size());
    return parser.check_message(exact.get() + 1, static_cast<unsigned int>(text.size()), info);
}

const char TABLES[] = VIDORA_TEST_DATA "/rtsp_messages.txt";
const char SET_PARAMETER[] =
    "SET_PARAMETER rtsp://127.0.0.1/live RTSP/1.0\nCSeq: 9\ncontent-length:  5\nContent-type: text/parameters\n\n";

TEST(RtspBoundary, EveryCutOfAMessageAsksForMore) {
    CRtspRspParser parser;
    const Support::CLogCapture log;
    const std::string message = "\r\n \r\n" + Crlf(SET_PARAMETER) + "a: b\n";
    for (size_t cut = 0; cut < message.size(); ++cut) {
        rtsp_msg_info info;
        ASSERT_EQ(check(parser, message.substr(0, cut), &info), RTSP_INCOMPLETE) << cut;
    }
    rtsp_msg_info info;
    EXPECT_EQ(check(parser, message + message, &info), static_cast<int>(message.size()));
    EXPECT_EQ(info.method, RTSP_METHOD_SET_PARAMETER);
    EXPECT_EQ(info.cseq, 9);
    EXPECT_TRUE(log.Lines().empty());
}

TEST(RtspBoundary, LimitIsOnTheBufferAndNotOnTheMessage) {
    CRtspRspParser parser;
    rtsp_msg_info info;
    const std::string message = Crlf("OPTIONS * RTSP/1.0\nCSeq: 1\n\n");
    const std::string full = message + std::string(4096 - message.size(), 'x');
    EXPECT_EQ(check(parser, full, &info), static_cast<int>(message.size()));
    EXPECT_EQ(check(parser, full + "x", &info), RTSP_BAD_MESSAGE);
}

TEST(RtspBoundary, FirstLineAndLengthAreJudged) {
    std::vector<std::vector<std::string>> rows = Support::ReadTable(TABLES, "messages", 4);
    rows.push_back({"a NUL ends the text", std::string("PLAY * RTSP/1.0\nCSeq: 1\n\0\n\n", 27), "-7", "0"});
    for (const auto& row : rows) {
        SCOPED_TRACE(row[0]);
        CRtspRspParser parser;
        rtsp_msg_info info;
        const Support::CLogCapture log;
        const std::string text = Crlf(row[1]);
        const std::string whole = std::to_string(text.size());
        EXPECT_EQ(std::to_string(check(parser, text, &info)), row[2] == "whole" ? whole : row[2]);
        EXPECT_EQ(std::to_string(log.Count("RTSP_WRONG_FORMATA:")), row[3]);
        EXPECT_EQ(std::to_string(log.Count("recv_len:" + whole)), row[3]);
    }
}

std::string text_of(const UtcTime& time) {
    char text[64];
    std::snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d.%d", time.year, time.month, time.day, time.hour, time.minute,
                  time.second, time.millisecond);
    return text;
}

TEST(RtspRange, ClockTimesAreReadAndWritten) {
    for (const auto& row : Support::ReadTable(TABLES, "clock ranges", 4)) {
        SCOPED_TRACE(row[0]);
        UtcTime begin, end;
        const std::string text = Crlf(row[0]);
        const std::vector<char> exact(text.begin(), text.end());
        const int result =
            CRtspParser::parse_clock_range(exact.data(), static_cast<unsigned int>(exact.size()), &begin, &end);
        EXPECT_EQ(std::to_string(result), row[1]);
        EXPECT_EQ(text_of(begin), row[2]);
        EXPECT_EQ(text_of(end), row[3]);
    }

    const UtcTime whole = {2020, 1, 2, 3, 4, 5, 0};
    const UtcTime fine = {2020, 1, 2, 3, 4, 5, 678};
    char out[128];
    const UtcTime seven = {2020, 1, 2, 3, 4, 5, 7};
    EXPECT_STREQ(CRtspParser::format_clock_range(out, sizeof out, &seven, &fine, false),
                 "Range: clock=20200102T030405.07Z-20200102T030405.678Z\r\n");
    const SmpteTime smpte = {1, 2, 3};
    EXPECT_STREQ(CRtspParser::format_smpte_range(out, sizeof out, nullptr, &smpte), "Range: smpte=-01:02:03\r\n");
    EXPECT_STREQ(CRtspParser::format_smpte_range(out, 20, &smpte, nullptr), "Range: smpte=01:02:");
    EXPECT_EQ(CRtspParser::format_clock_range(nullptr, 0, &whole, nullptr, false), nullptr);
}

TEST(RtspBody, BodyAndTypeAreReadWithinTheirBuffers) {
    CRtspRspParser parser;
    const auto read = [&parser](const std::string& text) {
        CStrParser reader(text.data(), static_cast<unsigned int>(text.size()));
        return parser.parse_body(reader);
    };
    int length = 0;
    EXPECT_EQ(read(Crlf(SET_PARAMETER) + "a: b\nrest"), 0);
    EXPECT_STREQ(parser.get_body(), "a: b\n");
    EXPECT_STREQ(parser.get_content_type(&length), "text/parameters");
    EXPECT_EQ(length, 5);
    // More announced than there is, and a type longer than its buffer.
    EXPECT_EQ(read("Content-Length: 6000\r\nContent-Type: " + std::string(5000, 't') + "\r\n\r\nshort"), 0);
    EXPECT_STREQ(parser.get_body(), "");
    EXPECT_EQ(std::strlen(parser.get_content_type(&length)), 1024U);
    EXPECT_EQ(read("Content-Length: 6000\r\n\r\n" + std::string(6000, 'b')), 0);
    EXPECT_EQ(std::strlen(parser.get_body()), 4096U);
}

TEST(RtspExtraHeaders, TablesKeepTheirOrderAndBounds) {
    CRtspRspParser parser;
    const auto lines_of = [&parser](int method) {
        std::string lines = "old";
        return std::to_string(parser.build_ext_headers(method, lines)) + lines;
    };
    CRtspParser::ext_keys_t tables[8];
    EXPECT_EQ(parser.set_ext_key(RTSP_METHOD_PLAY, "X-B", "2"), 0);
    EXPECT_EQ(parser.set_ext_key(RTSP_METHOD_PLAY, "X-A", nullptr), 0);
    EXPECT_EQ(parser.set_ext_key(8, "X", "1"), -1);
    EXPECT_EQ(parser.set_ext_key(-1, "X", "1"), 0);  // passes the test of the method, and must go nowhere
    EXPECT_EQ(lines_of(RTSP_METHOD_PLAY), "0X-A: \r\nX-B: 2\r\n");
    EXPECT_EQ(lines_of(-1) + lines_of(8), "-1-1");
    parser.get_ext_keys(tables);
    EXPECT_EQ(parser.remove_ext_key(RTSP_METHOD_PLAY, "X-A"), 0);
    EXPECT_EQ(parser.remove_ext_key(9, "X-B"), 0);
    EXPECT_EQ(lines_of(RTSP_METHOD_PLAY), "0X-B: 2\r\n");
    parser.remove_ext_key(8, "");
    EXPECT_EQ(lines_of(RTSP_METHOD_PLAY), "0");
    parser.set_ext_keys(tables);
    EXPECT_EQ(lines_of(RTSP_METHOD_PLAY), "0X-A: \r\nX-B: 2\r\n");
}

TEST(LogQuote, HidesPasswordsAndAuthorizationValuesAndNothingElse) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/log_texts.txt", "texts", 2)) {
        EXPECT_EQ(Support::Crlf(row[1]), CLogQuote(Ostra::LOG_LEVEL_WARN, Support::Crlf(row[0]).c_str()).Text());
    }
    EXPECT_STREQ("", CLogQuote(Ostra::LOG_LEVEL_WARN, nullptr).Text());
    EXPECT_STREQ("", CLogQuote(Ostra::LOG_LEVEL_TRACE, "not shown").Text());
    EXPECT_STREQ("abc", CLogQuote(Ostra::LOG_LEVEL_WARN, "abcd", 3).Text());
    const std::string longer(5000, 'a');
    EXPECT_EQ(longer.substr(0, 2047), CLogQuote(Ostra::LOG_LEVEL_WARN, longer.c_str()).Text());
}

}  // namespace
}  // namespace Kavio::Vidora
