#include <atomic>
#include <random>
#include <thread>

#include "server/ServerFixture.h"
#include "support/Loopback.h"
#include "support/TestClock.h"
#include "support/UdpPeer.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CUdpPeer;

const char CHANNEL_2[] = "cam/realmonitor?channel=2&subtype=0";

class Lifecycle : public CServerTest {
protected:
    void StartWithTimeout(int seconds) {
        Set(RTSP_SVR_CONFIG_TIMEOUT, seconds);
        StartServer();
    }
    // A channel whose SDP never comes: a DESCRIBE of it holds the session's machine.
    std::string AddSlowChannel() {
        CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
        settings.tells_info = false;
        AddChannel(ChannelName(9), settings);
        return Url(ChannelName(9));
    }
};

TEST_F(Lifecycle, RequestsBehindAHeldOneWaitUpToTen) {
    StartServer();
    const std::string slow = AddSlowChannel();
    CRtspTestClient patient(m_port), flooding(m_port);
    patient.Send(patient.Request("DESCRIBE", slow));
    std::string pipelined;
    for (int i = 0; i < 9; ++i) {
        pipelined += patient.Request("OPTIONS", "*");
    }
    patient.Send(pipelined);

    Support::CLogCapture log;
    flooding.Send(flooding.Request("DESCRIBE", slow));
    flooding.Send(pipelined + pipelined);
    EXPECT_TRUE(flooding.Closed(2000));
    EXPECT_EQ(1, log.Count("too many message, invalid rtsp flow!"));

    RtspReply reply;
    EXPECT_TRUE(Support::WaitUntil([&] {
        Support::AdvanceClock(300);  // a try to get the SDP
        reply = patient.Reply(5);
        return reply.status != 0;
    }));
    EXPECT_EQ(404, reply.status);
    for (int i = 0; i < 9; ++i) {
        reply = patient.Reply();
        EXPECT_EQ(200, reply.status);
        EXPECT_EQ(std::to_string(i + 2), reply.Header("CSeq"));
    }
}

TEST_F(Lifecycle, RefusedRequestsGetNoAnswerAndHoldTheConversation) {
    StartWithChannel();
    const struct {
        const char* method;
        const char* track;
        bool described;
    } rows[] = {{"PLAY", "", false},    {"PAUSE", "", true},           {"SETUP", "/trackID=0", false},
                {"DESCRIBE", "", true}, {"SETUP", "/trackID=7", true}, {"PLAY", "", true}};
    for (const auto& row : rows) {
        CRtspTestClient client(m_port);
        client.Ask("OPTIONS", "*");
        if (row.described) {
            ASSERT_EQ(200, client.Ask("DESCRIBE", Url()).status);
            if (row.track[0] == '\0' && strcmp(row.method, "PLAY") != 0) {
                ASSERT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
            }
        }
        client.Send(client.Request(row.method, Url() + row.track, INTERLEAVED));
        client.Send(client.Request("OPTIONS", "*"));
        EXPECT_TRUE(client.Silent(100)) << row.method;
    }
    // A request of another session.
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    client.Send("TEARDOWN " + Url() + " RTSP/1.0\r\nCSeq: 9\r\nSession: 12345\r\n\r\n");
    EXPECT_TRUE(client.Silent(100));
}

TEST_F(Lifecycle, BytesOfAllKindsEndOnlyTheirOwnConnection) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient steady(m_port);
    PlayInterleaved(steady);
    Support::CLogCapture log(Ostra::LOG_LEVEL_ERROR);
    std::mt19937 random(20120);
    CRtspTestClient writer(m_port);
    const std::string track = Url() + "/trackID=0";
    const std::string seeds[] = {writer.Request("DESCRIBE", Url()),
                                 writer.Request("SETUP", track, INTERLEAVED),
                                 writer.Request("SETUP", track, UdpTransport(4000)),
                                 writer.Request("PLAY", Url(), "Range: npt=0-\r\n"),
                                 writer.Request("TEARDOWN", Url()),
                                 std::string("$\1\0\4\x80\xc9\0\0", 8)};
    for (int i = 0; i < 150; ++i) {
        CRtspTestClient client(m_port);
        client.Ask("OPTIONS", "*");
        std::string bytes;
        for (int n = 0; n < 6; ++n) {
            bytes += seeds[random() % 6];
        }
        for (unsigned int n = random() % 4; n > 0; --n) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        for (size_t at = 0; at < bytes.size();) {
            const size_t size = std::min<size_t>(1 + random() % 300, bytes.size() - at);
            if (!client.Send(bytes.substr(at, size))) {
                break;
            }
            at += size;
        }
        client.Closed(1);
        GiveVideo(source, static_cast<unsigned int>(10 * i));
    }
    EXPECT_TRUE(SessionsGone(1));
    ASSERT_TRUE(Give(source, 2000));
    EXPECT_EQ(0, steady.Frame().channel);
    EXPECT_EQ(200, steady.Ask("OPTIONS", "*").status);
}

TEST_F(Lifecycle, InterleavedFramesOfTheClient) {
    StartWithChannel();
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    const std::string bye("$\1\0\10\x81\xcb\0\1abcd", 12);
    client.Send(std::string("$\0\0\1x", 5) + std::string("$\x63\0\1x", 5) + bye);  // known and unknown channels
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);                             // a BYE has no effect
    client.Send(bye.substr(0, 7));                                                 // cut at the start of the buffer
    usleep(50000);
    client.Send(bye.substr(7) + client.Request("OPTIONS", "*"));
    EXPECT_EQ(200, client.Reply().status);

    // A frame that is cut behind a whole one is not put together again: the next read lands behind stale bytes. Here
    // "$ 1 0 8" is read twice, and takes the request's first bytes for its own.
    client.Send(bye + bye.substr(0, 4));
    usleep(50000);
    client.Send(bye.substr(4) + client.Request("OPTIONS", "*"));
    EXPECT_EQ(200, client.Reply().status);  // by chance the stale bytes are the same
    client.Send(std::string("$\0\0\2xy", 6) + bye.substr(0, 7));
    usleep(50000);
    client.Send(bye.substr(7));
    EXPECT_TRUE(client.Silent(100));
}

TEST_F(Lifecycle, ADeletedChannelEndsItsSessionsAndIsNotKeptByAnyDescribe) {
    StartWithChannel();
    AddChannel(CHANNEL_2);
    Support::CLogCapture log;
    CRtspTestClient described(m_port), interleaved(m_port), udp(m_port), other(m_port);
    for (int i = 0; i < 3; ++i) {  // each takes a reference, and gives the former back
        ASSERT_EQ(200, described.Ask("DESCRIBE", Url()).status);
        ASSERT_EQ(200, described.Ask("DESCRIBE", Url(CHANNEL_2)).status);
    }
    ASSERT_EQ(200, described.Ask("DESCRIBE", Url()).status);
    PlayInterleaved(interleaved);
    PlayInterleaved(other, CHANNEL_2);
    CUdpPeer rtp;
    Play(udp, UdpTransport(rtp.Port()));
    EXPECT_EQ(0, m_live_svr->DelLiveChannel(LIVE_NAME));
    EXPECT_TRUE(described.Closed());
    EXPECT_TRUE(interleaved.Closed());
    EXPECT_TRUE(udp.Closed());
    EXPECT_TRUE(Support::WaitUntil([&] { return log.Count("~CLiveChannel(), channel_name:") == 1; }));
    EXPECT_EQ(200, other.Ask("OPTIONS", "*").status);
    EXPECT_TRUE(SessionsGone(1));
}

// Their sessions can't leave by name any more, and the source goes on filling the buffer that it was given last.
TEST_F(Lifecycle, ChannelsGoUnderTheirSinksWhileTheSourceRuns) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient steady(m_port);
    PlayInterleaved(steady);
    std::atomic<bool> stop{false};
    std::thread host([&] {
        for (unsigned int sequence = 0; !stop; ++sequence) {
            GiveVideo(source, sequence, 20000);
        }
    });
    for (int round = 0; round < 5; ++round) {
        ShareChannel(CHANNEL_2);
        CRtspTestClient tcp(m_port), udp(m_port), kx(m_port);
        CUdpPeer rtp;
        Play(tcp, INTERLEAVED, CHANNEL_2);
        Play(udp, UdpTransport(rtp.Port()), CHANNEL_2);
        Play(kx, PRIVATE, CHANNEL_2);
        EXPECT_FALSE(rtp.Recv().empty());
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(CHANNEL_2));
        EXPECT_TRUE(tcp.Closed() && udp.Closed() && kx.Closed());
    }
    EXPECT_TRUE(SessionsGone(1));
    CRtspTestClient late(m_port);
    PlayInterleaved(late);  // names the living buffer again
    EXPECT_EQ(0, late.Frame().channel);
    stop = true;
    host.join();
}

TEST_F(Lifecycle, ANewDescribeInTheMiddleOfAStreamLetsGoOfTheOldOne) {
    StartWithChannel();
    CFakeStreamSource* second = AddChannel(CHANNEL_2);
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    // TEARDOWN of one track leaves the sink where it is and leads to Init, where DESCRIBE is legal again.
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url() + "/trackID=0").status);
    PlayInterleaved(client, CHANNEL_2);
    EXPECT_EQ(0, m_live_svr->DelLiveChannel(LIVE_NAME));
    ASSERT_TRUE(Give(second, 10));
    while (client.Frame().channel != 0) {
    }
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
}

TEST_F(Lifecycle, AClientThatStopsReadingEndsAlone) {
    StartWithTimeout(1);
    CFakeStreamSource* source = AddChannel();
    CRtspTestClient stalled(m_port), reading(m_port);
    PlayInterleaved(stalled);
    PlayInterleaved(reading);
    Support::CLogCapture log(Ostra::LOG_LEVEL_ERROR);
    unsigned int sequence = 0;
    int frames = 0;
    EXPECT_TRUE(Support::WaitUntil([&] {
        GiveVideo(source, sequence++, 200000);
        while (reading.Frame(1).channel == 0) {
            ++frames;
        }
        return CRtspSvr::GetSessionCount() == 1;
    }));
    EXPECT_LT(100, frames);
    EXPECT_EQ(200, reading.Ask("OPTIONS", "*").status);
}

TEST_F(Lifecycle, SessionsAndChannelsComeAndGoAtOnce) {
    CFakeStreamSource* source = StartWithChannel();
    Support::CLogCapture log(Ostra::LOG_LEVEL_ERROR);
    std::atomic<bool> over{false};
    std::atomic<int> played{0};
    std::vector<std::thread> threads;
    for (unsigned int n = 0; n < 4; ++n) {
        threads.emplace_back([&, n] {
            std::mt19937 random(n);
            while (!over) {
                CRtspTestClient client(m_port);
                CUdpPeer rtp;
                const std::string url = Url(random() % 2 == 0 ? LIVE_NAME : CHANNEL_2);
                std::string bytes = client.Request("DESCRIBE", url);
                if (random() % 4 == 0) {
                    client.Send(bytes.substr(0, random() % bytes.size()));
                    continue;
                }
                client.Send(bytes);
                if (client.Reply(500).status == 200 &&
                    client.Ask("SETUP", url + "/trackID=0", random() % 2 == 0 ? UdpTransport(rtp.Port()) : INTERLEAVED)
                            .status == 200 &&
                    client.Ask("PLAY", url).status == 200) {
                    ++played;
                    client.Frame(static_cast<int>(random() % 10));
                    if (random() % 2 == 0) {
                        client.Send(client.Request("TEARDOWN", url));
                    }
                }
            }
        });
    }
    threads.emplace_back([&] {
        for (unsigned int sequence = 0; !over; ++sequence) {
            GiveVideo(source, sequence, 2000);
            usleep(1000);
        }
    });
    for (int i = 0; i < 40; ++i) {
        AddChannel(CHANNEL_2);
        usleep(30000);
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(CHANNEL_2));
    }
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LT(20, played);
    EXPECT_TRUE(SessionsGone());
    EXPECT_TRUE(Support::WaitUntil([] { return CFakeStreamSource::LiveCount() == 1; }));
}

// Clients in every state, of two servers: those of the one end, through their own strands, and it goes on.
TEST_F(Lifecycle, AServerEndsItsOwnSessions) {
    CFakeStreamSource* source = StartWithChannel();
    CSockAddrStorage any("127.0.0.1", static_cast<unsigned short>(Support::CBoundSocket(SOCK_STREAM).Port()));
    CRtspSvr* other_svr = CRtspSvr::Create(any);
    ASSERT_NE(nullptr, other_svr);
    CRtspTestClient other(any.GetPort());
    ASSERT_EQ(200, other.Ask("OPTIONS", "*").status);
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    CRtspTestClient idle(m_port), described(m_port), tcp(m_port), udp(m_port), file(m_port), waiting(m_port);
    CUdpPeer rtp;
    ASSERT_EQ(200, idle.Ask("OPTIONS", "*").status);
    ASSERT_EQ(200, described.Ask("DESCRIBE", Url()).status);
    PlayInterleaved(tcp);
    Play(udp, UdpTransport(rtp.Port()));
    PlayInterleaved(file, FILE_CONTENT);
    ASSERT_TRUE(Give(source, 10));
    EXPECT_EQ(5u, m_svr->CountSessions());
    EXPECT_EQ(1u, other_svr->CountSessions());

    EXPECT_EQ(0u, m_svr->EndSessions(20000));
    EXPECT_EQ(0u, m_svr->CountSessions());
    for (CRtspTestClient* client : {&idle, &described, &tcp, &udp, &file}) {
        EXPECT_TRUE(client->Closed(1));
    }
    EXPECT_TRUE(Support::WaitUntil([&] { return !GiveVideo(source, 20); }));  // nobody wants it any more
    EXPECT_EQ(200, waiting.Ask("OPTIONS", "*").status);
    EXPECT_EQ(200, other.Ask("OPTIONS", "*").status);

    m_svr->Stop();
    m_svr->Stop();
    EXPECT_EQ(200, waiting.Ask("OPTIONS", "*").status);
    EXPECT_EQ(-1, m_svr->AddNewConnect(0, nullptr, 0, 0));
    EXPECT_TRUE(Support::WaitUntil([&] { return !CRtspTestClient(m_port).Connected(); }));
    m_svr->EndSessions(0);
    EXPECT_TRUE(waiting.Closed());
    other_svr->Close();
    other.Close();
}

CRtspSvr* g_svr_to_end = nullptr;

void EndSessionsOnConnect(event_type_t event, void*, int) {
    if (event == EVENT_CLIENT_CONNECTED) {
        EXPECT_EQ(1u, g_svr_to_end->EndSessions(20000));  // its own session is one of those
    }
}

TEST_F(Lifecycle, AServerEndsItsSessionsInACallbackOfOneOfThem) {
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &EndSessionsOnConnect);
    StartServer();
    g_svr_to_end = m_svr;
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

TEST_F(Lifecycle, AFormatChangeEndsRtpAndNotPrivateSessions) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient rtp(m_port), kx(m_port);
    PlayInterleaved(rtp);
    Play(kx, PRIVATE);
    StreamVideoFormat format = CFakeStreamSource::LiveVideo().video;
    format.width = 1280;
    source->SetVideo(format);
    source->Tell(MSG_STREAM_INFO);
    EXPECT_TRUE(rtp.Closed());
    EXPECT_EQ(200, kx.Ask("OPTIONS", "*").status);
}

TEST_F(Lifecycle, EventsTellOfComingGoingAndLoss) {
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    EXPECT_EQ(1, CEventLog::Count("connected 127.0.0.1"));
    for (const unsigned int sequence : {10u, 11u, 12u, 20u, 21u, 30u}) {
        ASSERT_TRUE(Give(source, sequence));
    }
    const std::string lost = "lost 127.0.0.1 channel 1 subtype 0 size " + std::to_string(sizeof(LostPacketEvent));
    EXPECT_TRUE(Support::WaitUntil([&] { return CEventLog::Count(lost) == 2; }));
    // Another source counts its frames anew.
    CFakeStreamSource* second = AddChannel(CHANNEL_2);
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url()).status);
    PlayInterleaved(client, CHANNEL_2);
    ASSERT_TRUE(Give(second, 500));
    while (client.Frame().channel != 0) {
    }
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
    client.Close();
    EXPECT_TRUE(SessionsGone());
    EXPECT_EQ(2, CEventLog::Count("disconnected 127.0.0.1"));  // twice, on purpose
    EXPECT_EQ(5u, CEventLog::All().size());

    CEventLog::Clear();
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    CRtspTestClient file(m_port);
    PlayInterleaved(file, FILE_CONTENT);
    file.Close();
    EXPECT_TRUE(SessionsGone());
    EXPECT_EQ(1, CEventLog::Count("disconnected 127.0.0.1"));  // once with a data source
}

TEST_F(Lifecycle, TimeOutOfZeroMeansNone) {
    StartWithTimeout(0);
    AddChannel();
    Support::CLogCapture log;
    CRtspTestClient client(m_port);
    CUdpPeer rtp;
    EXPECT_TRUE(Play(client, UdpTransport(rtp.Port())).Holds(";timeout=60\r\n"));  // clients needn't hurry
    for (int i = 0; i < 3; ++i) {
        Support::AdvanceClock(3600000);
        EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
    }
    EXPECT_EQ(0, log.Count("keep-alive"));
}

TEST_F(Lifecycle, TimeOutsAndReports) {
    StartWithTimeout(60);
    AddChannel();
    Support::CLogCapture log;
    CRtspTestClient idle(m_port), tcp(m_port), udp(m_port), udp_reports(m_port);
    PlayInterleaved(tcp);
    ASSERT_EQ(200, idle.Ask("DESCRIBE", Url()).status);
    CUdpPeer rtp, rtcp;
    int server_rtcp = 0;
    // RTCP goes to the port above the one that SETUP names.
    for (CRtspTestClient* client : {&udp, &udp_reports}) {
        ASSERT_EQ(200, client->Ask("DESCRIBE", Url()).status);
        const int port = client == &udp ? rtp.Port() : rtcp.Port() - 1;
        const RtspReply reply = client->Ask("SETUP", Url() + "/trackID=0", UdpTransport(port));
        ASSERT_EQ(200, reply.status);
        EXPECT_TRUE(reply.Holds(";timeout=60\r\n"));
        server_rtcp = atoi(reply.head.c_str() + reply.head.find("server_port=") + 12) + 1;
        ASSERT_EQ(200, client->Ask("PLAY", Url()).status);
    }
    for (int i = 0; i < 3; ++i) {  // signs of life on RTCP alone
        rtcp.Send("report", server_rtcp);
        Support::AdvanceClock(40000);
    }
    EXPECT_TRUE(idle.Closed());  // control silence alone, before PLAY
    EXPECT_TRUE(udp.Closed());   // control and RTCP silence
    EXPECT_LE(2, log.Count("Rtsp Server Session timeout, this:") + log.Count("Keep-alive failed! timeout: 60 s "));
    EXPECT_FALSE(udp_reports.Closed(1));
    EXPECT_TRUE(Support::WaitUntil([&] {
        Support::AdvanceClock(61000);
        return udp_reports.Closed(1);
    }));

    // A sender report every five seconds, on the RTCP channel; TCP has no time-out while it plays.
    const RtspFrame report = tcp.Frame();
    EXPECT_EQ(1, report.channel);
    EXPECT_EQ(std::string("\x80\xc8\0\6", 4), report.data.substr(0, 4));
    EXPECT_EQ(std::string::npos, report.data.find("End of Stream"));
    EXPECT_EQ(200, tcp.Ask("TEARDOWN", Url()).status);
    EXPECT_TRUE(Support::WaitUntil([&] {
        Support::AdvanceClock(61000);  // but again when it doesn't
        return tcp.Closed(1);
    }));
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
