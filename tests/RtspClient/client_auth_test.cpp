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
    const digest_request request = {"GET", "/dir/index.html", NONCE, "auth", "", "0a4f113b", 1};
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

        const digest_request request = {"GET", "/dir/index.html", "n", qop, "", cnonce, 1};
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
        const digest_request request = {"PLAY", "rtsp://h/", "n, x", row[2], "body", cnonce, 1};
        const std::string ha1 = DigestHash({"u\"s", "r", "p"});
        const std::string key = row[3] == "session" ? DigestHash({ha1, request.nonce, cnonce}) : ha1;
        const std::string head =
            "Digest username=\"u\\\"s\", realm=\"r\", nonce=\"n, x\", uri=\"rtsp://h/\", response=";
        std::string expected = Support::Replaced(row[1], "HEAD", head + "\"" + DigestResponse(key, request) + "\"");
        EXPECT_EQ(value, Support::Replaced(expected, "CNONCE", cnonce)) << row[0];
    }
}

}  // namespace
}  // namespace Kavio::Vidora
