// The client session against a server that says what the test wants.

#include "Vidora/RtspClientSession.h"

#include <gtest/gtest.h>

#include <map>

#include "RtspClient/ClientTypes.h"
#include "Vidora/SdpInfo.h"
#include "support/Capture.h"
#include "support/ClientHost.h"
#include "support/RtspText.h"
#include "support/SampleTable.h"
#include "support/ScriptedServer.h"
#include "support/TestClock.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CClientHost;
using Support::CScriptedServer;
using Support::ServerRequest;
using Support::WaitUntil;
using Server = CScriptedServer;

// Clocks that are a twentieth of the usual ones.
class CSessionTest : public testing::Test {
protected:
    CSessionTest() : m_usual(ClientTiming()) {
        ClientTiming().tick_us = 50000;
        ClientTiming().reply_ms = 1000;
        ClientTiming().redirect_us = 50000;
    }
    ~CSessionTest() override { ClientTiming() = m_usual; }

    Support::CPool m_pool{4};

private:
    const client_timing m_usual;
};

// What a server says by a row of the faults.
std::string FaultyAnswer(const ServerRequest& request, std::string text) {
    if (text == "silence" || text == "close") {
        return text == "silence" ? "" : Server::CLOSE;
    }
    if (text == "bye") {
        return Server::Answer(request) + std::string("$\x01\0\x10\x80\xc9\0\1\0\0\0\5\x81\xcb\0\1\0\0\0\5", 20);
    }
    const size_t fill = text.find('{');
    if (fill != std::string::npos) {
        text = text.substr(0, fill) + std::string(std::stoul(text.substr(fill + 1)), 'x');
    }
    text = Support::Crlf(text);
    if (text.find("RTSP/1.0") == 0) {
        return text;
    }
    const size_t line = text.find("\r\n") + 2;
    const size_t body = std::min(text.find("\r\n\r\n"), text.size() - 2) + 2;
    return Server::Reply(request, text.substr(0, line - 2), text.substr(line, body - line),
                         text.substr(std::min(body + 2, text.size())));
}

TEST_F(CSessionTest, EachFaultOfTheServerEndsInOneNotification) {
    const std::map<std::string, rtsp_client_failure_t> failures = {
        {"STATUS", RTSP_CLIENT_FAILURE_STATUS},     {"PROTOCOL", RTSP_CLIENT_FAILURE_PROTOCOL},
        {"NO_REPLY", RTSP_CLIENT_FAILURE_NO_REPLY}, {"UNAUTHORISED", RTSP_CLIENT_FAILURE_UNAUTHORISED},
        {"LOST", RTSP_CLIENT_FAILURE_LOST},         {"NONE", RTSP_CLIENT_FAILURE_NONE}};
    const std::map<std::string, long> codes = {{"PROTOCOL", RTSP_CLIENT_CODE_PROTOCOL},
                                               {"CONNECTION", RTSP_CLIENT_CODE_CONNECTION},
                                               {"ENDED", RTSP_CLIENT_CODE_ENDED}};
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/faults.txt", "faults", 5)) {
        SCOPED_TRACE(row[0]);
        CScriptedServer server([&](const ServerRequest& request) {
            std::string answer = request.method == row[1] ? FaultyAnswer(request, row[2]) : Server::Answer(request);
            const size_t place = answer.find("PAUSE, TEARDOWN");
            return place == std::string::npos ? answer : answer.insert(place, "GET_PARAMETER, ");
        });
        CClientHost host;
        host.session->SetAuthInfo("user", "secret");
        host.session->SetConformance(row[0] == "ByeByConformance");
        ASSERT_EQ(0, host.Start(server.Url()));
        const bool is_silent = row[4] == "NO_REPLY";
        EXPECT_TRUE(WaitUntil([&] {
            // Time runs fast for whom nobody answers any more.
            Support::AdvanceClock(is_silent && server.Count(row[1]) > 0 ? 200 : 0);
            return host.Count(MSG_RTSP_TEARDOWN) > 0;
        }));
        EXPECT_EQ(codes.count(row[3]) > 0 ? codes.at(row[3]) : RTSP_CLIENT_CODE_STATUS + std::stol(row[3]),
                  host.EndCode());
        EXPECT_EQ(failures.at(row[4]), host.session->GetFailure());
        EXPECT_EQ(-1, host.session->Play(0.0F, 0.0F, 1.0F, false));
        host.Close();
        EXPECT_EQ(1, host.Count(MSG_RTSP_TEARDOWN));
        EXPECT_TRUE(row[0] != "ChallengesWithoutEnd" || server.Count("OPTIONS") == 9);
    }
}

TEST_F(CSessionTest, RepliesMayComeInPiecesWithStrangersBetween) {
    const auto answer = [](const ServerRequest& request) {
        const bool early = request.method == "OPTIONS" || request.method == "DESCRIBE" || request.method == "SETUP";
        const std::string own = early ? "OPTIONS rtsp://127.0.0.1/ RTSP/1.0\r\nCSeq: 1\r\n\r\n" : "";
        return own + "RTSP/1.0 404 No\r\nCSeq: 999\r\n\r\n" + Server::Reply(request, "100 Continue") +
               Server::Answer(request);
    };
    for (const size_t piece : {size_t{1}, size_t{7}, size_t{0}}) {
        CScriptedServer server(answer, piece);
        CClientHost host;
        ASSERT_EQ(0, host.Start(server.Url()));
        EXPECT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY)) << piece;
        EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
        ASSERT_TRUE(WaitUntil([&] {
            server.SendAll(Server::Rtp(1) + Server::Rtp(2));
            return host.sink.Count() > 3;
        }));
        host.session->Pause();
        EXPECT_TRUE(host.WaitFor(MSG_RTSP_PAUSE_READY));
        EXPECT_EQ(0, host.session->Play(5.0F, 9.5F, 2.0F, true));
        EXPECT_TRUE(WaitUntil([&] { return host.Count(MSG_RTSP_PLAY_READY) == 2; }));
        EXPECT_TRUE(
            WaitUntil([&] { return server.Holds("Range: npt=5.000000-9.500000") && server.Holds("Scale: 2.000"); }));
        host.Close();
        EXPECT_TRUE(WaitUntil([&] { return server.Count("TEARDOWN") == 1; }));
    }
}

// Before PLAY, between the media and in pieces: a server may look whether we are there, or tell something.
TEST_F(CSessionTest, RequestsOfTheServerAreAnsweredByConformanceAndPassedOverOtherwise) {
    const std::string look = "GET_PARAMETER rtsp://x/ RTSP/1.0\r\nCSeq: 31\r\nSession: $7$\r\n\r\n";
    const std::string tells =
        "ANNOUNCE rtsp://x/ RTSP/1.0\r\nCSeq: 32\r\nContent-Length: 9\r\n\r\nv=0\r\n$\x01\x05\x06";
    for (const packet_type_t kind : {PACKET_TYPE_RTP, PACKET_TYPE_KX}) {
        for (const bool conformance : {false, true}) {
            SCOPED_TRACE(std::to_string(kind) + (conformance ? " by conformance" : ""));
            const std::string media =
                kind == PACKET_TYPE_RTP ? Server::Rtp(1) : std::string("$\0\0\0\0\x10", 6) + std::string(16, 'x');
            CScriptedServer server(
                [&](const ServerRequest& request) {
                    const std::string ours = request.method == "SETUP" ? look : "";
                    return request.method == "PLAY" ? Server::Answer(request) + media + look + media + tells + media
                                                    : ours + Server::Answer(request);
                },
                11);
            CClientHost host;
            host.session->SetPacketType(kind);
            host.session->SetConformance(conformance);
            ASSERT_EQ(0, host.Start(server.Url()));
            ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
            EXPECT_TRUE(WaitUntil([&] {
                server.SendAll(media);
                return host.sink.Count() > 6;
            }));
            host.session->Pause();
            EXPECT_TRUE(host.WaitFor(MSG_RTSP_PAUSE_READY));
            EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
            EXPECT_EQ(conformance, server.Holds("RTSP/1.0 200 OK\r\nCSeq: 31\r\n"));
            EXPECT_EQ(conformance, server.Holds("RTSP/1.0 501 Not Implemented\r\nCSeq: 32\r\n"));
        }
    }
}

// In any order and as often as it likes: what makes no sense just now does no harm.
TEST_F(CSessionTest, PlayAndPauseMayBeCalledInAnyOrder) {
    CScriptedServer server(Server::Answer);
    CClientHost host;
    host.play_at_ready = false;
    EXPECT_EQ(-1, host.session->Play(0.0F, 0.0F, 1.0F, false));
    ASSERT_EQ(0, host.Start(server.Url()));
    host.session->Pause();
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_SETUP_READY));
    host.session->Pause();
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PAUSE_READY));
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(0, host.session->Play(0.0F, 0.0F, 1.0F, false));
        EXPECT_EQ(0, host.session->Play(3.0F, 0.0F, 1.0F, false));
        host.session->Pause();
        host.session->Pause();
    }
    EXPECT_EQ(0, host.session->Play(-1.0F, 0.0F, 1.0F, false));
    EXPECT_TRUE(WaitUntil([&] { return host.Count(MSG_RTSP_PLAY_READY) == 11; }));
    EXPECT_LE(6, host.Count(MSG_RTSP_PAUSE_READY));
    EXPECT_GE(5, server.Count("PAUSE"));
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
}

TEST_F(CSessionTest, ServerMayMoveTheClientsPort) {
    const int moved = Support::CBoundSocket(SOCK_DGRAM).Port();
    Support::CBoundSocket sender(SOCK_DGRAM);
    CScriptedServer server([&](const ServerRequest& request) {
        return request.method != "SETUP"
                   ? Server::Answer(request)
                   : Server::Reply(request, "200 OK",
                                   "Session: 1\r\nTransport: RTP/AVP;unicast;client_port=" + std::to_string(moved) +
                                       ";server_port=" + std::to_string(sender.Port()) + "-1\r\n");
    });
    CClientHost host;
    ASSERT_EQ(0, host.Start(server.Url(), RTP_OVER_UDP));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(moved));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    unsigned int sequence = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const std::string packet = Server::Rtp(++sequence).substr(4);
        ::sendto(sender.Fd(), packet.data(), packet.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
        return host.sink.Count() > 3;
    }));
}

TEST_F(CSessionTest, WallTimeIsThatOfTheServersLastReport) {
    CScriptedServer server(Server::Answer);
    CClientHost host;
    ASSERT_EQ(0, host.Start(server.Url()));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    int64_t utc_us = 0;
    EXPECT_EQ(-1, host.session->GetWallTime('V', 0, utc_us));
    EXPECT_EQ(-1, host.session->GetWallTime('A', 0, utc_us));
    // Half a second past 2026-01-01, at time stamp 2^32 - 45000.
    std::string report("$\x01\0\x1c\x80\xc8\0\6\0\0\0\5\0\0\0\0\x80\0\0\0\xff\xff\x50\x38\0\0\0\1\0\0\0\1", 32);
    const uint32_t seconds = 2208988800u + 1767225600u;
    for (int i = 0; i < 4; ++i) {
        report[12 + static_cast<size_t>(i)] = static_cast<char>(seconds >> (24 - 8 * i));
    }
    server.SendAll(Server::Rtp(1) + report + Server::Rtp(2) + Server::Rtp(3));
    EXPECT_TRUE(WaitUntil([&] { return host.session->GetWallTime('V', 45000, utc_us) == 0; }));
    EXPECT_EQ(1767225601500000, utc_us);
    EXPECT_EQ(0, host.session->GetWallTime('V', 0xffff5038u - 90000, utc_us));
    EXPECT_EQ(1767225599500000, utc_us);
}

TEST_F(CSessionTest, OneTrackThatIsSetUpSuffices) {
    const std::string two =
        "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:v\r\n"
        "m=audio 0 RTP/AVP 8\r\na=control:a\r\nm=audio 0 RTP/AVP 0\r\na=control:b\r\n";
    CScriptedServer server([&](const ServerRequest& request) {
        if (request.method == "DESCRIBE") {
            return Server::Reply(request, "200 OK", "Content-Type: application/sdp\r\n", Server::Sdp(two));
        }
        return request.url.back() == 'v' ? Server::Reply(request, "404 No") : Server::Answer(request);
    });
    CClientHost host;
    ASSERT_EQ(0, host.Start(server.Url()));
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    EXPECT_EQ(3, server.Count("SETUP"));
    ASSERT_NE(nullptr, host.session->GetSdpInfo());
    EXPECT_EQ(8, host.session->GetSdpInfo()->GetPayloadType('A'));
}

// Two servers that send the client to and fro.
TEST_F(CSessionTest, RedirectsAreFollowedAndTakeNoPasswordAlong) {
    CScriptedServer end(Server::Answer);
    CScriptedServer start([&](const ServerRequest& request) {
        const bool has_auth = request.text.find("Authorization: Basic") != std::string::npos;
        if (request.method != "OPTIONS" || !has_auth) {
            return request.method == "OPTIONS"
                       ? Server::Reply(request, "401 No", "WWW-Authenticate: Basic realm=\"r\"\r\n")
                       : Server::Reply(request, "302 Moved", "Location: " + end.Url() + "\r\n");
        }
        return Server::Answer(request);
    });
    Support::CLogCapture log;
    CClientHost host;
    std::string url = start.Url();
    url.insert(7, "user:secret@");
    EXPECT_EQ(0, host.session->SetCmdExtKey(RTSP_METHOD_DESCRIBE, "authorization", "Bearer own"));
    ASSERT_EQ(0, host.Start(url));
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    for (const ServerRequest& request : end.Requests()) {
        EXPECT_EQ(std::string::npos, request.text.find("uthorization")) << request.text;
    }
    EXPECT_EQ(std::string::npos, start.Requests()[0].text.find("secret"));
    EXPECT_EQ(0, log.Count("secret"));
    EXPECT_EQ(0, log.Count("dXNlcjpzZWNyZXQ="));
}

// Each request but the last is challenged once: a nonce is good for one answer.
TEST_F(CSessionTest, ByConformanceEachMethodAnswersItsChallenge) {
    std::atomic<int> signed_teardowns{0};
    CScriptedServer server([&](const ServerRequest& request) {
        const size_t place = request.text.find("nonce=\"");
        const std::string nonce = place == std::string::npos ? "" : request.text.substr(place + 7, 4);
        if (request.method == "TEARDOWN") {
            signed_teardowns += nonce.empty() ? 0 : 1;
            return std::string();
        }
        const std::string wanted = request.method.substr(0, 4);
        return nonce == wanted ? Server::Answer(request)
                               : Server::Reply(request, "401 No",
                                               "WWW-Authenticate: Digest realm=\"r\", nonce=\"" + wanted + "\"\r\n");
    });
    CClientHost host;
    host.session->SetAuthInfo("user", "secret");
    host.session->SetConformance(true);
    ASSERT_EQ(0, host.Start(server.Url()));
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    EXPECT_EQ(2, server.Count("SETUP"));
    host.session->Pause();
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PAUSE_READY));
    host.Close();
    EXPECT_TRUE(WaitUntil([&] { return signed_teardowns == 1; }));
}

TEST_F(CSessionTest, RedirectToTheSameServerKeepsUserAndPassword) {
    CScriptedServer* self = nullptr;
    CScriptedServer server([&](const ServerRequest& request) {
        const bool has_auth = request.text.find("Authorization: Basic dXNlcjpzZWNyZXQ=") != std::string::npos;
        if (!has_auth) {
            return Server::Reply(request, "401 No", "WWW-Authenticate: Basic realm=\"r\"\r\n");
        }
        const bool moves = request.method == "DESCRIBE" && request.url.find("other") == std::string::npos;
        return moves ? Server::Reply(request, "302 Moved", "Location: " + self->Url("other") + "\r\n")
                     : Server::Answer(request);
    });
    self = &server;
    for (const bool in_url : {false, true}) {
        CClientHost host;
        std::string url = server.Url();
        if (in_url) {
            url.insert(7, "user:secret@");
        } else {
            host.session->SetAuthInfo("user", "secret");
        }
        ASSERT_EQ(0, host.Start(url));
        EXPECT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    }
}

TEST_F(CSessionTest, CloseEndsARingOfRedirects) {
    CScriptedServer* self = nullptr;
    CScriptedServer server([&](const ServerRequest& request) {
        return Server::Reply(request, "301 Moved", "Location: " + self->Url() + "\r\n");
    });
    self = &server;
    CClientHost host;
    ASSERT_EQ(0, host.Start(server.Url()));
    EXPECT_TRUE(WaitUntil([&] { return server.Count("OPTIONS") > 12; }));
    host.Close();
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
}

TEST_F(CSessionTest, ApplicationRequestsAnswerOnceAndFailAlone) {
    CScriptedServer server([](const ServerRequest& request) {
        if (request.method != "SET_PARAMETER" && request.method != "GET_PARAMETER") {
            return Server::Answer(request);
        }
        const bool asks = request.text.find("wanted") != std::string::npos;
        return asks ? Server::Reply(request, "200 OK", "", "the answer") : Server::Reply(request, "451 No");
    });
    CClientHost host;
    char out[7] = "xxxxxx";
    char other[64] = "kept";
    host.session->SetKeepAlive(RTSP_METHOD_GET_PARAMETER);
    EXPECT_EQ(0, host.session->SetCmdExtKey(RTSP_METHOD_DESCRIBE, "X-Mark", "1"));
    EXPECT_EQ(-1, host.session->SetCmdExtKey(RTSP_METHOD_PLAY, "X-Mark", "1\r\nX: 2"));
    ASSERT_EQ(0, host.Start(server.Url()));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    EXPECT_EQ(0, host.session->SendExtMsg(RTSP_METHOD_SET_PARAMETER, "wanted", out, sizeof(out)));
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PARAMETER_REPLY));
    EXPECT_STREQ("the an", out);
    EXPECT_EQ(0, host.session->SendExtMsg(RTSP_METHOD_GET_PARAMETER, "refused", other, sizeof(other)));
    EXPECT_TRUE(WaitUntil([&] { return host.Count(MSG_RTSP_PARAMETER_REPLY) == 2; }));
    EXPECT_STREQ("kept", other);
    EXPECT_EQ(RTSP_CLIENT_CODE_STATUS + 451, host.Notes().back().param);
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
    EXPECT_EQ(-1, host.session->SendExtMsg(RTSP_METHOD_SET_PARAMETER, std::string(5000, 'x').c_str(), nullptr, 0));
}

TEST_F(CSessionTest, FailuresToConnectAreTold) {
    const int free_port = Support::CBoundSocket(SOCK_STREAM).Port();
    const struct {
        std::string url;
        rtsp_client_failure_t failure;
    } rows[] = {{"rtsp://127.0.0.1:" + std::to_string(free_port) + "/x", RTSP_CLIENT_FAILURE_REFUSED},
                {"rtsp://no-such-host.invalid/x", RTSP_CLIENT_FAILURE_NAME}};
    for (const auto& row : rows) {
        CClientHost host;
        ASSERT_EQ(0, host.Start(row.url));
        EXPECT_EQ(RTSP_CLIENT_CODE_CONNECTION, host.EndCode());
        EXPECT_EQ(row.failure, host.session->GetFailure());
    }
    CClientHost host;
    EXPECT_EQ(-1, host.Start("http://127.0.0.1/"));
    EXPECT_EQ(-1, host.session->Start(nullptr, host.HandlerId(), RTP_OVER_RTSP));
}

TEST_F(CSessionTest, SilentStreamEndsUnlessAHostIsBusyWithIt) {
    CScriptedServer server(Server::Answer);
    CClientHost host;
    std::atomic<bool> holds{true};
    std::atomic<bool> inside{false};
    host.session->SetStreamIdleTimeout(2000);  // two ticks of the test's clock
    host.sink.on_put = [&] {
        inside = true;
        WaitUntil([&] { return !holds; });
    };
    host.on_note = [&](const Support::ClientNote& note) {
        if (note.msg == MSG_RTSP_PLAY_READY) {
            server.SendAll(Server::Rtp(1) + Server::Rtp(2) + Server::Rtp(3));
        }
    };
    ASSERT_EQ(0, host.Start(server.Url()));
    ASSERT_TRUE(WaitUntil([&] { return inside.load(); }));
    const auto ends_in = [&](int rounds) {
        while (rounds-- > 0 && host.Count(MSG_RTSP_TEARDOWN) == 0) {
            Support::AdvanceClock(100);
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return host.Count(MSG_RTSP_TEARDOWN) > 0;
    };
    EXPECT_FALSE(ends_in(40));
    holds = false;
    EXPECT_TRUE(ends_in(4000));
    EXPECT_EQ(RTSP_CLIENT_CODE_PROTOCOL, host.EndCode());
    EXPECT_EQ(RTSP_CLIENT_FAILURE_IDLE, host.session->GetFailure());
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
