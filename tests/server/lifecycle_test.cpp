// Sessions that end by time, by their client, or by their server while they begin.

#include "server/ServerFixture.h"
#include "support/TestClock.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {
namespace {

class Lifecycle : public CServerTest {};

TEST_F(Lifecycle, TimeOutsAndReports) {
    Set(RTSP_SVR_CONFIG_TIMEOUT, 60);
    StartServer();
    AddChannel();
    CLogCapture log;
    CRtspTestClient idle(m_port), tcp(m_port), udp(m_port), udp_reports(m_port);
    PlayInterleaved(tcp);
    ASSERT_EQ(200, idle.Ask("DESCRIBE", Url()).status);
    CUdpPeer rtp, rtcp;
    int server_rtcp[2] = {0, 0};
    CUdpPeer stranger(0, "127.0.0.2");
    // RTCP goes to the port above the one that SETUP names.
    for (CRtspTestClient* client : {&udp, &udp_reports}) {
        const RtspReply reply = Play(*client, UdpTransport(client == &udp ? rtp.Port() : rtcp.Port() - 1));
        EXPECT_TRUE(reply.Holds(";timeout=60\r\n"));
        server_rtcp[client == &udp ? 0 : 1] = ServerPort(reply) + 1;
    }
    // Control silence alone ends what doesn't play, and UDP without reports; signs of life on RTCP suffice, but not of
    // another host.
    EXPECT_TRUE(WaitUntil([&] {
        stranger.Send("report", server_rtcp[0]);
        rtcp.Send("report", server_rtcp[1]);
        AdvanceClock(10000);
        return idle.Closed(30) && udp.Closed(30);
    }));
    EXPECT_LE(2, log.Count("Rtsp Server Session timeout, this:") + log.Count("Keep-alive failed! timeout: 60 s "));
    EXPECT_FALSE(udp_reports.Closed(1));
    EXPECT_TRUE(WaitUntil([&] {
        AdvanceClock(61000);
        return udp_reports.Closed(1);
    }));

    // A sender report every five seconds, on the RTCP channel; TCP has no time-out while it plays.
    const RtspFrame report = tcp.Frame();
    EXPECT_EQ(1, report.channel);
    EXPECT_EQ(std::string("\x80\xc8\0\6", 4), report.data.substr(0, 4));
    EXPECT_EQ(std::string::npos, report.data.find("End of Stream"));
    EXPECT_EQ(200, tcp.Ask("TEARDOWN", Url()).status);
    EXPECT_TRUE(WaitUntil([&] {
        AdvanceClock(61000);  // but again when it doesn't
        return tcp.Closed(1);
    }));
}

TEST_F(Lifecycle, AClientThatChangesToTcpLeavesItsUdpPortsFree) {
    StartServer();
    AddChannel();
    CRtspTestClient client(m_port);
    const CUdpPeer rtp;
    const RtspReply reply = Prepare(client, UdpTransport(rtp.Port()));
    EXPECT_FALSE(CUdpPeer(ServerPort(reply)).Bound());
    EXPECT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
    EXPECT_TRUE(WaitUntil([&] { return CUdpPeer(ServerPort(reply)).Bound(); }));
}

TEST_F(Lifecycle, AServerEndsItsSessionsInACallbackOfOneOfThem) {
    HookHost([this](const std::string& name, const std::string&) {
        // Its own session is one of those.
        EXPECT_TRUE(name != "connected" || m_svr->EndSessions(20000) == 1);
    });
    StartServer();
    CRtspTestClient client(m_port);
    client.Send(OPTIONS_TEXT);
    EXPECT_TRUE(client.Closed());
}

// Told to end at any moment of its beginning: nothing is half made then, and the host hears of both its ends or of
// none.
TEST_F(Lifecycle, SessionsEndWhileTheyBegin) {
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    StartServer();
    std::atomic<int> running{3};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 60; ++round) {
                CRtspTestClient client(m_port);
                client.Ask("OPTIONS", "*");
            }
            --running;
        });
    }
    while (running > 0) {
        m_svr->EndSessions(0);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
    EXPECT_TRUE(SessionsGone());
    EXPECT_EQ(2 * CEventLog::Count("connected 127.0.0.1"), CEventLog::Count("disconnected 127.0.0.1"));
}

}  // namespace
}  // namespace Kavio::Vidora
