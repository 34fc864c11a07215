// The client session against a server that says what the test wants.

#include "Vidora/RtspClientSession.h"

#include <gtest/gtest.h>

#include "RtspClient/ClientTypes.h"
#include "Vidora/SdpInfo.h"
#include "support/Capture.h"
#include "support/ClientHost.h"
#include "support/ScriptedServer.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CClientHost;
using Support::CScriptedServer;
using Support::ServerRequest;
using Support::WaitUntil;
using Server = CScriptedServer;

const long REFUSED = RTSP_CLIENT_CODE_STATUS + 401;

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

// A server's fault, and how the session ends by it.
struct Fault {
    const char* name;
    Server::answer_t answer;  // empty text: as an orderly server
    long code;
    rtsp_client_failure_t failure;
    bool conformance = false;
};

Server::answer_t On(const std::string& method, Server::answer_t answer) {
    return [method, answer](const ServerRequest& request) {
        return request.method == method ? answer(request) : Server::Answer(request);
    };
}
Server::answer_t OnStatus(const std::string& method, const std::string& status, const std::string& headers = "") {
    return On(method, [=](const ServerRequest& request) { return Server::Reply(request, status, headers); });
}
Server::answer_t OnText(const std::string& method, const std::string& text) {
    return On(method, [=](const ServerRequest&) { return text; });
}
Server::answer_t OnMedia(const std::string& media) {
    return On("DESCRIBE", [=](const ServerRequest& request) {
        return Server::Reply(request, "200 OK", "Content-Type: application/sdp\r\n", Server::Sdp(media));
    });
}
Server::answer_t OnChannels(const std::string& channels) {
    return OnStatus("SETUP", "200 OK", "Session: 1\r\nTransport: RTP/AVP/TCP;unicast;interleaved=" + channels + "\r\n");
}
std::string WithBye(const ServerRequest& request) {
    return Server::Answer(request) + std::string("$\x01\0\x10\x80\xc9\0\1\0\0\0\5\x81\xcb\0\1\0\0\0\5", 20);
}

std::vector<Fault> Faults() {
    std::vector<Fault> faults = {
        {"NotFound", OnStatus("DESCRIBE", "404 Not Found"), RTSP_CLIENT_CODE_STATUS + 404, RTSP_CLIENT_FAILURE_STATUS},
        {"UnknownStatus", OnStatus("OPTIONS", "599 What"), RTSP_CLIENT_CODE_STATUS + 599, RTSP_CLIENT_FAILURE_STATUS},
        {"OtherRedirect", OnStatus("DESCRIBE", "303 See"), RTSP_CLIENT_CODE_STATUS + 303, RTSP_CLIENT_FAILURE_STATUS},
        {"SetupRefused", OnStatus("SETUP", "461 No"), RTSP_CLIENT_CODE_STATUS + 461, RTSP_CLIENT_FAILURE_STATUS},
        {"PlayRefused", OnStatus("PLAY", "455 No"), RTSP_CLIENT_CODE_STATUS + 455, RTSP_CLIENT_FAILURE_STATUS},
        {"RedirectToNowhere", OnStatus("DESCRIBE", "302 Moved", "Location: http://x/\r\n"), RTSP_CLIENT_CODE_PROTOCOL,
         RTSP_CLIENT_FAILURE_PROTOCOL},
        {"WrongCSeq", OnText("DESCRIBE", "RTSP/1.0 200 OK\r\nCSeq: 2147483647\r\n\r\n"), RTSP_CLIENT_CODE_PROTOCOL,
         RTSP_CLIENT_FAILURE_NO_REPLY},
        {"NoCSeq", OnText("DESCRIBE", "RTSP/1.0 200 OK\r\n\r\n"), RTSP_CLIENT_CODE_PROTOCOL,
         RTSP_CLIENT_FAILURE_PROTOCOL},
        {"Provisional", OnStatus("OPTIONS", "100 Continue"), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_NO_REPLY},
        {"NoTracks", OnMedia(""), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL},
        {"TracksOfOtherKinds", OnMedia("m=text 0 RTP/AVP 98\r\na=control:1\r\n"), RTSP_CLIENT_CODE_PROTOCOL,
         RTSP_CLIENT_FAILURE_PROTOCOL},
        {"NoDescription", OnStatus("DESCRIBE", "200 OK"), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL},
        {"ChannelTooHigh", OnChannels("32-33"), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL},
        {"ChannelTwice", OnChannels("4-4"), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL},
        {"OtherTransport", OnStatus("SETUP", "200 OK", "Transport: RTP/AVP;unicast;client_port=1-2\r\n"),
         RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL},
        {"LongHeader", OnText("OPTIONS", "RTSP/1.0 200 OK\r\nX: " + std::string(9000, 'x')), RTSP_CLIENT_CODE_PROTOCOL,
         RTSP_CLIENT_FAILURE_PROTOCOL},
        {"LyingLength",
         OnText("DESCRIBE", "RTSP/1.0 200 OK\r\nCSeq: 2\r\nContent-Length: 9000\r\n\r\n" + std::string(8000, 'v')),
         RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL},
        {"Garbage", OnText("OPTIONS", "\x80\xff$\r\n\r\n"), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL},
        {"SessionGone", OnStatus("GET_PARAMETER", "454 Gone"), RTSP_CLIENT_CODE_STATUS + 454,
         RTSP_CLIENT_FAILURE_STATUS},
        {"ChallengesWithoutEnd", OnStatus("OPTIONS", "401 No", "WWW-Authenticate: Basic realm=\"r\"\r\n"), REFUSED,
         RTSP_CLIENT_FAILURE_UNAUTHORISED},
        {"UnknownScheme", OnStatus("DESCRIBE", "401 No", "WWW-Authenticate: Odd x=\"r\"\r\n"), REFUSED,
         RTSP_CLIENT_FAILURE_UNAUTHORISED},
        {"ChallengeAtSetup", OnStatus("SETUP", "401 No", "WWW-Authenticate: Basic realm=\"r\"\r\n"), REFUSED,
         RTSP_CLIENT_FAILURE_UNAUTHORISED},
        {"Bye", On("PLAY", WithBye), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_NONE},
        {"ByeByConformance", On("PLAY", WithBye), RTSP_CLIENT_CODE_ENDED, RTSP_CLIENT_FAILURE_NONE, true},
    };
    for (const char* step : {"OPTIONS", "DESCRIBE", "SETUP", "PLAY"}) {
        faults.push_back({"Silence", OnText(step, ""), RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_NO_REPLY});
        faults.push_back({"Close", OnText(step, Server::CLOSE), RTSP_CLIENT_CODE_CONNECTION, RTSP_CLIENT_FAILURE_LOST});
    }
    return faults;
}

TEST_F(CSessionTest, EachFaultOfTheServerEndsInOneNotification) {
    for (const Fault& fault : Faults()) {
        SCOPED_TRACE(fault.name);
        const Server::answer_t offers = [&](const ServerRequest& request) {
            const std::string answer = fault.answer(request);
            const size_t place = answer.find("PAUSE, TEARDOWN");
            return place == std::string::npos ? answer
                                              : answer.substr(0, place) + "GET_PARAMETER, " + answer.substr(place);
        };
        CScriptedServer server(offers);
        CClientHost host;
        host.session->SetAuthInfo("user", "secret");
        host.session->SetConformance(fault.conformance);
        ASSERT_EQ(0, host.Start(server.Url()));
        EXPECT_EQ(fault.code, host.EndCode());
        EXPECT_EQ(fault.failure, host.session->GetFailure());
        EXPECT_EQ(-1, host.session->Play(0.0F, 0.0F, 1.0F, false));
        host.Close();
        EXPECT_EQ(1, host.Count(MSG_RTSP_TEARDOWN));
        if (std::string(fault.name) == "ChallengesWithoutEnd") {
            EXPECT_EQ(9, server.Count("OPTIONS"));
        }
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
            return OnMedia(two)(request);
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
    host.session->SetStreamIdleTimeout(2000);  // two ticks of the test's clock
    host.sink.on_put = [&] { WaitUntil([&] { return !holds; }); };
    host.on_note = [&](const Support::ClientNote& note) {
        if (note.msg == MSG_RTSP_PLAY_READY) {
            server.SendAll(Server::Rtp(1) + Server::Rtp(2) + Server::Rtp(3));
        }
    };
    ASSERT_EQ(0, host.Start(server.Url()));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    EXPECT_FALSE(WaitUntil([&] { return host.Count(MSG_RTSP_TEARDOWN) > 0; }, 1000));
    holds = false;
    EXPECT_EQ(RTSP_CLIENT_CODE_PROTOCOL, host.EndCode());
    EXPECT_EQ(RTSP_CLIENT_FAILURE_IDLE, host.session->GetFailure());
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
