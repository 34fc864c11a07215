#include "Protocol/LogQuote.h"

#include <gtest/gtest.h>

#include <string>

namespace Kavio {
namespace Vidora {
namespace {

TEST(LogQuote, HidesPasswordsAndAuthorizationValuesAndNothingElse) {
    const struct {
        const char* text;
        const char* quoted;
    } rows[] = {
        {"", ""},
        {"PLAY rtsp://h:554/x RTSP/1.0\r\nCSeq: 1\r\n\r\n", "PLAY rtsp://h:554/x RTSP/1.0\r\nCSeq: 1\r\n\r\n"},
        {"A: b\r\nAuthorization: Basic YWRtaW46cHc=\r\nB: c\r\n\r\nx", "A: b\r\nAuthorization: ***\r\nB: c\r\n\r\nx"},
        {"proxy-AUTHORIZATION:Digest a=\"b\",\r\n response=\"c\"\r\n\td\r\nB: c", "proxy-AUTHORIZATION:***\r\nB: c"},
        {"Authorization Basic cut off", "Authorization ***"},
        {"Authorization:\r\nB: c", "Authorization:\r\nB: c"},
        {"rtsp://admin:secret@h/x RTSP/1.0\r\n", "rtsp://admin:***@h/x RTSP/1.0\r\n"},
        {"SETUP RTSP://admin:s /e@c:ret@h/x\r\nA@b", "SETUP RTSP://admin:***@h/x\r\nA@b"},
        {"rtsp://admin@h/x", "rtsp://admin@h/x"},
        {"rtsp://admin:@h/x", "rtsp://admin:@h/x"},
        {"cam/x?proxy=u:p@h:80&proto=Onvif", "cam/x?proxy=u:***@h:80&proto=Onvif"},
        {"x?user=a&Password=p%20q&b=c", "x?user=a&Password=***&b=c"},
        {"x?authbasic=QQ==&pwd=1;passwd=2 pass=3", "x?authbasic=***&pwd=***;passwd=*** pass=***"},
        {"{\"password\" : \"p\", \"b\": 1}", "{\"password\" : \"***\", \"b\": 1}"},
        {"wrong password, bypass", "wrong password, bypass"},
        {"password=", "password="},
    };
    for (const auto& row : rows) {
        EXPECT_STREQ(row.quoted, CLogQuote(Ostra::LOG_LEVEL_WARN, row.text).Text());
    }
    EXPECT_STREQ("", CLogQuote(Ostra::LOG_LEVEL_WARN, nullptr).Text());
    EXPECT_STREQ("", CLogQuote(Ostra::LOG_LEVEL_TRACE, "not shown").Text());
    EXPECT_STREQ("abc", CLogQuote(Ostra::LOG_LEVEL_WARN, "abcd", 3).Text());
    const std::string longer(5000, 'a');
    EXPECT_EQ(longer.substr(0, 2047), CLogQuote(Ostra::LOG_LEVEL_WARN, longer.c_str()).Text());
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
