// The heads and bodies of tunnels by themselves; what goes through tunnels is in conversations.txt.

#include "RtspOverHttp/Base64Stream.h"
#include "RtspOverHttp/HttpParser.h"
#include "server/ServerFixture.h"
#include "support/Descriptors.h"
#include "support/EveryCut.h"
#include "support/SampleTable.h"
#include "support/TestClock.h"

namespace Kavio::Vidora {
namespace {

TEST(HttpHead, IsReadWithinItsBounds) {
    const char* const results[] = {"ok", "incomplete", "no cookie", "bad method"};
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/http.txt", "heads", 2)) {
        const std::string text = Unescaped(row[0]);  // the parser borrows it
        CHttpParser parser;
        std::string found = results[parser.parse(text)];
        if (found == "ok") {
            found = std::string(parser.is_post() ? "POST" : "GET") + " of " + std::string(parser.cookie()) +
                    ", length " + std::to_string(parser.content_length()) + ", rest '" + std::string(parser.rest()) +
                    "'";
        }
        EXPECT_EQ(Unescaped(row[1]), found) << row[0];
    }
}

// What a decoder that has room for three bytes at a time makes of the pieces; "!" for a refusal.
std::string Decode(const std::vector<Bytes>& pieces) {
    CBase64Stream stream;
    std::string all;
    for (const Bytes& piece : pieces) {
        std::string_view text(reinterpret_cast<const char*>(piece.data()), piece.size());
        while (!text.empty()) {
            char out[3];
            const int count = stream.Decode(text, out, sizeof(out));
            if (count < 0) {
                return "!";
            }
            all.append(out, static_cast<size_t>(count));
        }
    }
    return all;
}

TEST(Base64Stream, RunsMayBeCutAnywhere) {
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/http.txt", "bodies", 2)) {
        const std::string text = Unescaped(row[0]);
        EXPECT_EQ(Unescaped(row[1]), FeedAtEveryCut(Bytes(text.begin(), text.end()), Decode)) << row[0];
    }
}

class HttpTunnel : public CServerTest {};

TEST_F(HttpTunnel, ThousandsOfHalvesLeaveNothing) {
    const int rounds = 20, connections = 100;
    const std::string head_reply =
        "HTTP/1.0 200 OK\r\nServer: Rtsp Server/2.0\r\nContent-Type: application/x-rtsp-tunnelled\r\n\r\n";
    StartWithChannel();
    // Every fourth is a POST.
    const auto half = [this](int number) {
        auto client = std::make_unique<CRtspTestClient>(m_port);
        client->Send((number % 4 == 3 ? "POST" : "GET") + std::string(" / HTTP/1.0\r\nx-sessioncookie: cookie ") +
                     std::to_string(number) + "\r\n\r\n");
        return client;
    };
    const int descriptors = CountDescriptors();
    for (int round = 0; round < rounds; ++round) {
        std::vector<std::unique_ptr<CRtspTestClient>> halves;
        for (int i = 0; i < connections; ++i) {
            halves.push_back(half(round * connections + i));
        }
        for (int i = 0; i < connections; ++i) {
            EXPECT_EQ(i % 4 == 3 ? "" : head_reply, halves[static_cast<size_t>(i)]->Reply().head);
        }
        if (round % 2 == 0) {
            AdvanceClock(6000);
            for (const auto& each : halves) {
                EXPECT_TRUE(each->Closed());
            }
        }
        halves.clear();
        EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() <= descriptors; }));
    }
    EXPECT_EQ(0U, CRtspSvr::GetSessionCount());
    EXPECT_EQ(head_reply, half(0)->Reply().head);  // nothing is known of the cookies any more
}

}  // namespace
}  // namespace Kavio::Vidora
