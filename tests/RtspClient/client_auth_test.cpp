#include "RtspClient/RtspClientAuth.h"

#include <gtest/gtest.h>

#include "RtspClient/DigestResponse.h"
#include "support/Capture.h"
#include "support/SampleTable.h"

namespace Kavio::Vidora {
namespace {

const char NONCE[] = "dcd98b7102dd2f0e8b11d0f600bfb0c093";

// The value of one parameter of an Authorization header.
std::string field(const std::string& value, const std::string& name) {
    const size_t begin = value.find(" " + name + "=\"") + name.size() + 3;
    return value.substr(begin, value.find('"', begin) - begin);
}

std::string answer(const std::string& challenge, bool expected = true, const char* user = "Mufasa",
                   const char* password = "CircleOfLife") {
    CRtspClientAuth auth;
    auth.set_user(user, password);
    auth.set_uri("/dir/index.html");
    auth.set_method("GET");
    auth.set_challenge(challenge);
    std::string value = "old";
    EXPECT_EQ(auth.get_authorization(value), expected) << challenge;
    return value;
}

TEST(DigestResponse, WorkedExamplesOfTheStandards) {
    // RFC 2617 3.5.
    digest_request request;
    request.method = "GET";
    request.uri = "/dir/index.html";
    request.nonce = NONCE;
    request.qop = "auth";
    request.cnonce = "0a4f113b";
    request.nc = 1;
    EXPECT_EQ(DigestResponse(DigestHash({"Mufasa", "testrealm@host.com", "Circle Of Life"}), request),
              "6629fae49393a05397450978507c4ef1");
    // RFC 2069 2.4, with the response that its erratum gives: the printed one is wrong.
    EXPECT_EQ(answer("Digest realm=\"testrealm@host.com\", nonce=\"" + std::string(NONCE) +
                     "\", opaque=\"5ccc069c403ebaf9f0171e9517f40e41\""),
              "Digest username=\"Mufasa\", realm=\"testrealm@host.com\", nonce=\"" + std::string(NONCE) +
                  "\", uri=\"/dir/index.html\", response=\"1949323746fe6a43ef61f9606e7febea\", "
                  "opaque=\"5ccc069c403ebaf9f0171e9517f40e41\", ");
}

TEST(ClientAuth, BasicIsTheEncodedPair) {
    // RFC 2617 2.
    EXPECT_EQ(answer("  basic realm=\"x\"", true, "Aladdin", "open sesame"), "Basic QWxhZGRpbjpvcGVuIHNlc2FtZQ==");
    const std::string cut = answer("Basic", true, "u", std::string(3000, 'p').c_str());
    EXPECT_EQ(cut.size(), 6U + 1364U);  // 1023 characters encoded
}

// Which parameters the challenge has decides which the answer has, and over what it is computed.
TEST(ClientAuth, DigestOfEveryKind) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/auth.txt", "digests", 4)) {
        const std::string &params = row[0], &qop = row[2];
        const std::string tail = Support::Unescaped(row[1]);
        const std::string value = answer("Digest realm=\"r\", nonce=\"n\"" + params);
        const bool made = tail.find("CNONCE") != std::string::npos;
        const std::string cnonce = made ? field(value, "cnonce") : "";
        EXPECT_EQ(cnonce.size(), made ? 32U : 0U) << params;

        digest_request request;
        request.method = "GET";
        request.uri = "/dir/index.html";
        request.nonce = "n";
        request.qop = qop;
        request.cnonce = cnonce;
        request.nc = 1;
        std::string ha1 = DigestHash({"Mufasa", "r", "CircleOfLife"});
        if (row[3] == "session") {
            ha1 = DigestHash({ha1, "n", cnonce});
        }
        EXPECT_EQ(value, "Digest username=\"Mufasa\", realm=\"r\", nonce=\"n\", uri=\"/dir/index.html\", response=\"" +
                             DigestResponse(ha1, request) + "\"" + Support::Replaced(tail, "CNONCE", cnonce));
    }
}

TEST(ClientAuth, ChallengesThatCannotBeAnswered) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/auth.txt", "refusals", 3)) {
        const Support::CLogCapture log;
        EXPECT_EQ(answer(row[0], false, row[1].c_str()), "");
        EXPECT_EQ(log.Lines().size(), 1U);
        EXPECT_EQ(log.Count(row[2]), 1) << row[0];
    }
}

// By conformance the answer is to the best challenge of all.
TEST(ClientAuth, StandardAnswersToEveryChallenge) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/auth.txt", "standard", 4)) {
        CRtspClientAuth auth;
        auth.SetConformance(true);
        auth.set_user("u\"s", "p");
        auth.set_uri("rtsp://h/");
        auth.set_method("PLAY");
        auth.set_entity("body");
        auth.set_challenge(row[0]);
        std::string value;
        EXPECT_EQ(auth.get_authorization(value), !row[1].empty()) << row[0];
        const bool made = value.find("cnonce=") != std::string::npos;
        const std::string cnonce = made ? field(value, "cnonce") : "";
        digest_request request;
        request.method = "PLAY";
        request.uri = "rtsp://h/";
        request.nonce = "n, x";
        request.qop = row[2];
        request.entity = "body";
        request.cnonce = cnonce;
        request.nc = 1;
        const std::string ha1 = DigestHash({"u\"s", "r", "p"});
        const std::string key = row[3] == "session" ? DigestHash({ha1, request.nonce, cnonce}) : ha1;
        const std::string head =
            "Digest username=\"u\\\"s\", realm=\"r\", nonce=\"n, x\", uri=\"rtsp://h/\", response=";
        std::string expected = Support::Replaced(row[1], "HEAD", head + "\"" + DigestResponse(key, request) + "\"");
        EXPECT_EQ(value, Support::Replaced(expected, "CNONCE", cnonce)) << row[0];
    }
}

TEST(ClientAuth, RequestsAndChallengesFollowEachOther) {
    CRtspClientAuth auth;
    std::string first;
    std::string second;
    auth.set_user("u", nullptr);
    auth.set_challenge("Digest realm=\"r\", nonce=\"n\", qop=\"auth\"");
    EXPECT_EQ(auth.get_auth_type(), CRtspClientAuth::AUTH_DIGEST);
    auth.set_method_id(RTSP_METHOD_DESCRIBE);
    EXPECT_TRUE(auth.get_authorization(first));
    EXPECT_EQ(field(first, "uri"), "/");
    auth.set_uri("rtsp://h/x");
    auth.set_method_id(static_cast<rtsp_method_t>(-1));  // stands for OPTIONS
    EXPECT_TRUE(auth.get_authorization(second));
    EXPECT_EQ(field(first, "nc"), "00000001");
    EXPECT_EQ(field(second, "nc"), "00000001");

    auth.set_challenge("Digest realm=\"r\", nonce=\"n\"");
    EXPECT_TRUE(auth.get_authorization(second));
    const std::string ha1 = DigestHash({"u", "r", ""});
    EXPECT_EQ(field(second, "response"), DigestHash({ha1, "n", DigestHash({"OPTIONS", "rtsp://h/x"})}));
    EXPECT_EQ(second.find("cnonce"), std::string::npos);
    auth.set_uri(std::string(3000, 'u'));
    EXPECT_TRUE(auth.get_authorization(second));
    EXPECT_EQ(second.size(), 2047U);
}

}  // namespace
}  // namespace Kavio::Vidora
