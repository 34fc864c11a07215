#include <atomic>
#include <random>
#include <thread>

#include "server/ServerFixture.h"
#include "support/UdpPeer.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CUdpPeer;

class Lifecycle : public CServerTest {
protected:
    void StartWithTimeout(int seconds) {
        Set(RTSP_SVR_CONFIG_TIMEOUT, seconds);
        StartServer();
    }
    static bool Give(CFakeStreamSource* source, unsigned int sequence) {
        return Support::WaitUntil([=] { return GiveVideo(source, sequence); });
    }
    // A channel whose SDP never comes: a DESCRIBE of it holds the session's machine.
    std::string AddSlowChannel() {
        CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
        settings.tells_info = false;
        AddChannel("cam/realmonitor?channel=9&subtype=0", settings);
        return Url("cam/realmonitor?channel=9&subtype=0");
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

    EXPECT_EQ(404, patient.Reply().status);
    for (int i = 0; i < 9; ++i) {
        const RtspReply reply = patient.Reply();
        EXPECT_EQ(200, reply.status);
        EXPECT_EQ(std::to_string(i + 2), reply.Header("CSeq"));
    }
}

TEST_F(Lifecycle, RefusedRequestsGetNoAnswerAndHoldTheConversation) {
    StartServer();
    AddChannel();
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
    StartServer();
    CFakeStreamSource* source = AddChannel();
    CRtspTestClient steady(m_port);
    PlayInterleaved(steady);
    Support::CLogCapture log(Ostra::LOG_LEVEL_ERROR);
    std::mt19937 random(20120);
    const std::string seeds[] = {"DESCRIBE " + Url() + " RTSP/1.0\r\nCSeq: 2\r\n\r\n",
                                 "SETUP " + Url() + "/trackID=0 RTSP/1.0\r\nCSeq: 3\r\n" + INTERLEAVED + "\r\n",
                                 "SETUP " + Url() +
                                     "/trackID=0 RTSP/1.0\r\nCSeq: 3\r\nTransport: "
                                     "RTP/AVP;unicast;client_port=4000-4001\r\n\r\n",
                                 "PLAY " + Url() + " RTSP/1.0\r\nCSeq: 4\r\nRange: npt=0-\r\n\r\n",
                                 "TEARDOWN " + Url() + " RTSP/1.0\r\nCSeq: 5\r\n\r\n",
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

    // A message that fills the buffer and never ends; and one that says nothing for ever.
    CRtspTestClient endless(m_port);
    endless.Ask("OPTIONS", "*");
    endless.Send("OPTIONS * RTSP/1.0\r\nX: " + std::string(5000, 'x'));
    EXPECT_TRUE(endless.Closed());
    CRtspTestClient frame(m_port);
    frame.Ask("OPTIONS", "*");
    frame.Send("$" + std::string("\1\xff\xff", 3) + std::string(6000, 'x'));
    EXPECT_TRUE(frame.Closed());
}

TEST_F(Lifecycle, InterleavedFramesOfTheClient) {
    StartServer();
    AddChannel();
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
    StartServer();
    AddChannel();
    AddChannel("cam/realmonitor?channel=2&subtype=0");
    Support::CLogCapture log;
    CRtspTestClient described(m_port), interleaved(m_port), udp(m_port), other(m_port);
    for (int i = 0; i < 3; ++i) {  // each takes a reference, and gives the former back
        ASSERT_EQ(200, described.Ask("DESCRIBE", Url()).status);
        ASSERT_EQ(200, described.Ask("DESCRIBE", Url("cam/realmonitor?channel=2&subtype=0")).status);
    }
    ASSERT_EQ(200, described.Ask("DESCRIBE", Url()).status);
    PlayInterleaved(interleaved);
    PlayInterleaved(other, "cam/realmonitor?channel=2&subtype=0");
    CUdpPeer rtp;
    ASSERT_EQ(200, udp.Ask("DESCRIBE", Url()).status);
    const std::string transport = "Transport: RTP/AVP;unicast;client_port=" + std::to_string(rtp.Port()) + "\r\n";
    ASSERT_EQ(200, udp.Ask("SETUP", Url() + "/trackID=0", transport).status);
    ASSERT_EQ(200, udp.Ask("PLAY", Url()).status);
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
    StartServer();
    CFakeStreamSource* source = AddChannel();
    CRtspTestClient steady(m_port);
    PlayInterleaved(steady);
    std::atomic<bool> stop{false};
    std::thread host([&] {
        for (unsigned int sequence = 0; !stop; ++sequence) {
            GiveVideo(source, sequence, 20000);
        }
    });
    const char name[] = "cam/realmonitor?channel=2&subtype=0";
    const std::string track = Url(name) + "/trackID=0";
    for (int round = 0; round < 5; ++round) {
        ShareChannel(name);
        CRtspTestClient tcp(m_port), udp(m_port), kx(m_port);
        CUdpPeer rtp;
        PlayInterleaved(tcp, name);
        const struct {
            CRtspTestClient& client;
            std::string transport;
        } rows[] = {{udp, "Transport: RTP/AVP;unicast;client_port=" + std::to_string(rtp.Port()) + "\r\n"},
                    {kx, "Transport: KX/AVP/TCP;unicast\r\n"}};
        for (const auto& row : rows) {
            EXPECT_EQ(200, row.client.Ask("DESCRIBE", Url(name)).status);
            EXPECT_EQ(200, row.client.Ask("SETUP", track, row.transport).status);
            EXPECT_EQ(200, row.client.Ask("PLAY", Url(name)).status);
        }
        EXPECT_FALSE(rtp.Recv().empty());
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(name));
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
    StartServer();
    AddChannel();
    CFakeStreamSource* second = AddChannel("cam/realmonitor?channel=2&subtype=0");
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    // TEARDOWN of one track leaves the sink where it is and leads to Init, where DESCRIBE is legal again.
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url() + "/trackID=0").status);
    PlayInterleaved(client, "cam/realmonitor?channel=2&subtype=0");
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
    StartServer();
    CFakeStreamSource* source = AddChannel();
    const char* const brief = "cam/realmonitor?channel=2&subtype=0";
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
                const std::string url = Url(random() % 2 == 0 ? LIVE_NAME : brief);
                const std::string udp = "Transport: RTP/AVP;unicast;client_port=" + std::to_string(rtp.Port()) + "\r\n";
                std::string bytes = client.Request("DESCRIBE", url);
                if (random() % 4 == 0) {
                    client.Send(bytes.substr(0, random() % bytes.size()));
                    continue;
                }
                client.Send(bytes);
                if (client.Reply(500).status == 200 &&
                    client.Ask("SETUP", url + "/trackID=0", random() % 2 == 0 ? udp : INTERLEAVED).status == 200 &&
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
        AddChannel(brief);
        usleep(30000);
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(brief));
    }
    over = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_LT(20, played);
    EXPECT_TRUE(SessionsGone());
    EXPECT_TRUE(Support::WaitUntil([] { return CFakeStreamSource::LiveCount() == 1; }));
}

TEST_F(Lifecycle, AFormatChangeEndsRtpAndNotPrivateSessions) {
    StartServer();
    CFakeStreamSource* source = AddChannel();
    CRtspTestClient rtp(m_port), kx(m_port);
    PlayInterleaved(rtp);
    ASSERT_EQ(200, kx.Ask("DESCRIBE", Url()).status);
    ASSERT_EQ(200, kx.Ask("SETUP", Url() + "/trackID=0", "Transport: KX/AVP/TCP;unicast\r\n").status);
    ASSERT_EQ(200, kx.Ask("PLAY", Url()).status);
    StreamVideoFormat format = CFakeStreamSource::LiveVideo().video;
    format.width = 1280;
    source->SetVideo(format);
    source->Tell(MSG_STREAM_INFO);
    EXPECT_TRUE(rtp.Closed());
    EXPECT_EQ(200, kx.Ask("OPTIONS", "*").status);
}

TEST_F(Lifecycle, EventsTellOfComingGoingAndLoss) {
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    StartServer();
    CFakeStreamSource* source = AddChannel();
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    EXPECT_EQ(1, CEventLog::Count("connected 127.0.0.1"));
    for (const unsigned int sequence : {10u, 11u, 12u, 20u, 21u, 30u}) {
        ASSERT_TRUE(Give(source, sequence));
    }
    const std::string lost = "lost 127.0.0.1 channel 1 subtype 0 size " + std::to_string(sizeof(LostPacketEvent));
    EXPECT_TRUE(Support::WaitUntil([&] { return CEventLog::Count(lost) == 2; }));
    // Another source counts its frames anew.
    const char other[] = "cam/realmonitor?channel=2&subtype=0";
    CFakeStreamSource* second = AddChannel(other);
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url()).status);
    PlayInterleaved(client, other);
    ASSERT_TRUE(Give(second, 500));
    while (client.Frame().channel != 0) {
    }
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
    client.Close();
    EXPECT_TRUE(SessionsGone());
    EXPECT_EQ(2, CEventLog::Count("disconnected 127.0.0.1"));  // twice, on purpose
    EXPECT_EQ(5u, CEventLog::All().size());

    CEventLog::Clear();
    CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
    settings.type = SRC_TYPE_FILE;
    CFakeStreamSource::SetNext(settings);
    CRtspTestClient file(m_port);
    PlayInterleaved(file, "movie.kav");
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
    ASSERT_EQ(200, client.Ask("DESCRIBE", Url()).status);
    const std::string transport = "Transport: RTP/AVP;unicast;client_port=" + std::to_string(rtp.Port()) + "\r\n";
    const RtspReply reply = client.Ask("SETUP", Url() + "/trackID=0", transport);
    EXPECT_TRUE(reply.Holds(";timeout=60\r\n"));  // clients needn't hurry
    ASSERT_EQ(200, client.Ask("PLAY", Url()).status);
    EXPECT_FALSE(client.Closed(1500));
    EXPECT_EQ(0, log.Count("keep-alive"));
}

TEST_F(Lifecycle, TimeOutsAndReports) {
    StartWithTimeout(1);
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
        const RtspReply reply = client->Ask("SETUP", Url() + "/trackID=0",
                                            "Transport: RTP/AVP;unicast;client_port=" + std::to_string(port) + "\r\n");
        ASSERT_EQ(200, reply.status);
        EXPECT_TRUE(reply.Holds(";timeout=1\r\n"));
        server_rtcp = atoi(reply.head.c_str() + reply.head.find("server_port=") + 12) + 1;
        ASSERT_EQ(200, client->Ask("PLAY", Url()).status);
    }
    for (int i = 0; i < 30; ++i) {  // signs of life on RTCP alone
        rtcp.Send("report", server_rtcp);
        usleep(100000);
    }
    EXPECT_TRUE(idle.Closed(1));  // control silence alone, before PLAY
    EXPECT_LE(2, log.Count("Rtsp Server Session timeout, this:") + log.Count("Keep-alive failed! timeout: 1 s "));
    EXPECT_TRUE(udp.Closed(1));  // control and RTCP silence
    EXPECT_FALSE(udp_reports.Closed(1));
    EXPECT_TRUE(udp_reports.Closed(2500));

    // A sender report every five seconds, on the RTCP channel; TCP has no time-out while it plays.
    const RtspFrame report = tcp.Frame();
    EXPECT_EQ(1, report.channel);
    EXPECT_EQ(std::string("\x80\xc8\0\6", 4), report.data.substr(0, 4));
    EXPECT_EQ(std::string::npos, report.data.find("End of Stream"));
    EXPECT_EQ(200, tcp.Ask("TEARDOWN", Url()).status);
    EXPECT_TRUE(tcp.Closed(2500));  // but again when it doesn't
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
