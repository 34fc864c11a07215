#include "FrameInfo.h"
#include "Nat/P2PSvrSession.h"
#include "Nat/P2PUdpSender.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "server/NatViewer.h"
#include "server/ServerFixture.h"
#include "support/Descriptors.h"
#include "support/StreamPeer.h"
#include "support/TestClock.h"

namespace Kavio::Vidora {
namespace {

// Of a receiver, without a block (RFC 3550 6.4.2).
const std::string REPORT("\x80\xc9\0\1\0\0\0\1", 8);

int StatusOf(const std::string& reply) {
    return reply.compare(0, 9, "RTSP/1.0 ") == 0 ? std::stoi(reply.substr(9)) : 0;
}

class NatServer : public CServerTest {
protected:
    void SetUp() override { m_source_of_channel = StartWithChannel(); }

    // A session that plays, once it has greeted.
    void Begin(CNatViewer& viewer) {
        ASSERT_EQ(0, viewer.HandIn(*m_svr));
        ASSERT_EQ(SERVER_HELLO, viewer.Text());
        ASSERT_TRUE(viewer.Greet());
        ASSERT_TRUE(viewer.Play(Url()));
    }
    static bool CameBackOnce(const CNatViewer& viewer) {
        return WaitUntil([&] { return viewer.Returns() > 0; }) && SessionsGone() && viewer.Returns() == 1;
    }

    CFakeStreamSource* m_source_of_channel = nullptr;
};

TEST_F(NatServer, PlaysOverOneSocketAsPlainDatagrams) {
    CNatViewer viewer;
    ASSERT_EQ(0, viewer.HandIn(*m_svr));
    EXPECT_EQ(SERVER_HELLO, viewer.Text());
    EXPECT_TRUE(viewer.Greet());
    EXPECT_EQ(200, StatusOf(viewer.Ask("DESCRIBE", Url())));
    for (const std::string& refused :
         {std::string("Transport: RTP/AVP;multicast\r\n"), UdpTransport(5000), std::string(PRIVATE)}) {
        EXPECT_EQ(461, StatusOf(viewer.Ask("SETUP", Url() + "/trackID=0", refused))) << refused;
    }
    const std::string setup = viewer.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED);
    EXPECT_NE(std::string::npos, setup.find("RTP/AVP/TCP;unicast;interleaved=0-1")) << setup;
    EXPECT_EQ(461, StatusOf(viewer.Ask("SETUP", Url() + "/trackID=0", PRIVATE)));
    EXPECT_EQ(200, StatusOf(viewer.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED)));
    EXPECT_EQ(200, StatusOf(viewer.Ask("PLAY", Url())));
    EXPECT_EQ(1u, m_svr->CountSessions());
    for (unsigned int i = 0; i < 6; ++i) {
        ASSERT_TRUE(Give(m_source_of_channel, i, 3000));
    }
    for (int i = 0; i < 6; ++i) {  // half of them: a busy machine may lose some
        EXPECT_EQ('\x80', viewer.Packet()[0]);
    }
    EXPECT_TRUE(viewer.Greet());
    EXPECT_EQ(200, StatusOf(viewer.Ask("TEARDOWN", Url())));
    EXPECT_EQ(200, StatusOf(viewer.Repeat()));
    EXPECT_EQ(0, viewer.Returns());
    AdvanceClock(2000);
    EXPECT_TRUE(CameBackOnce(viewer));
    EXPECT_TRUE(viewer.IsAsItWas());
    EXPECT_EQ(std::vector<std::string>(), CEventLog::All());
}

TEST_F(NatServer, ALossIsReportedAndAPausedTrackGoesOnWithAKeyFrame) {
    CRtspTestClient other(m_port);  // for whom the source runs on
    PlayInterleaved(other);
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    m_config.SetConformance(true);
    m_svr->SetConfig(m_config);
    CNatViewer viewer;
    Begin(viewer);
    viewer.Send(REPORT);
    EXPECT_EQ(200, StatusOf(viewer.Ask("OPTIONS", "*")));  // it has entered the channel
    ASSERT_TRUE(Give(m_source_of_channel, 10));
    for (std::string packet(2, '\0'); packet.size() > 1 && (packet[1] & 0x80) == 0;) {
        packet = viewer.Packet();  // until nothing is left to send
    }
    const uint64_t dropped = CountDropped();
    viewer.Connect(false);
    ASSERT_TRUE(Give(m_source_of_channel, 11));
    EXPECT_TRUE(WaitUntil([dropped] { return CountDropped() > dropped; }));
    viewer.Connect(true);
    ASSERT_TRUE(Give(m_source_of_channel, 12));
    const std::vector<std::string> loss = {"lost 127.0.0.1 channel 1 subtype 0"};
    EXPECT_TRUE(WaitUntil([&loss] { return CEventLog::All() == loss; }));

    EXPECT_EQ(200, StatusOf(viewer.Ask("PAUSE", Url())));
    ASSERT_TRUE(Give(m_source_of_channel, 20));
    EXPECT_EQ(200, StatusOf(viewer.Ask("PLAY", Url())));
    EXPECT_EQ(200, StatusOf(viewer.Ask("OPTIONS", "*")));
    for (unsigned int sequence : {21u, 30u, 31u}) {
        ASSERT_TRUE(Give(m_source_of_channel, sequence));
    }
    EXPECT_EQ(7, (viewer.Packet() + std::string(13, '\0'))[12] & 31) << "no parameter set";
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
    EXPECT_EQ(loss, CEventLog::All());
}

// Each row: what comes before anything else, to a server that knows the viewer by `known`; whether it begins the
// session.
TEST_F(NatServer, OnlyAHelloOrARequestFromTheKnownAddressFixesThePeer) {
    const struct {
        const char* known;
        std::string first;
        bool fixes;
    } rows[] = {
        {"127.0.0.1:9", CLIENT_HELLO, true},  // a translation may show another port
        {"127.0.0.1:9", std::string(CLIENT_HELLO) + "-2", true},
        {"127.0.0.1:9", OPTIONS_TEXT, true},
        {"127.0.0.9:9", CLIENT_HELLO, false},
        {"127.0.0.9:9", OPTIONS_TEXT, false},
        {"[::1]:9", CLIENT_HELLO, false},
        {"127.0.0.1:9", "RTSP Client/2.0", false},
        {"127.0.0.1:9", std::string(OPTIONS_TEXT, sizeof(OPTIONS_TEXT) - 3), false},
        {"127.0.0.1:9", std::string(70000 / 2, 'x'), false},
        {"127.0.0.1:9", std::string(1, '\0'), false},
    };
    for (const auto& row : rows) {
        CNatViewer viewer;
        ASSERT_EQ(0, viewer.HandIn(*m_svr, row.known));
        viewer.Send("x");
        ASSERT_TRUE(WaitUntil([&] { return viewer.IsRead(); }));  // the time runs
        AdvanceClock(10000);
        viewer.Send(row.first);
        if (row.fixes) {
            EXPECT_NE("", viewer.Text()) << row.known << row.first;
        }
        ASSERT_TRUE(WaitUntil([&] { return viewer.IsRead(); }));
        AdvanceClock(6000);  // to the end of the time of those who had no sign of life from their peer
        if (row.fixes) {
            EXPECT_TRUE(viewer.Greet()) << row.first;
            AdvanceClock(16000);
        }
        EXPECT_TRUE(CameBackOnce(viewer)) << row.known << row.first;
        EXPECT_TRUE(viewer.IsAsItWas());
    }
}

// What lies in the socket when it is connected is still read from it, whoever has sent it.
TEST_F(NatServer, AStrangersDatagramThatCameBeforeThePeerWasFixedIsDropped) {
    CNatViewer viewer;
    CUdpPeer stranger;
    viewer.Send(CLIENT_HELLO);
    stranger.Send("garbage", viewer.HostPort());
    stranger.Send(CLIENT_HELLO, viewer.HostPort());
    ASSERT_EQ(0, viewer.HandIn(*m_svr));
    EXPECT_EQ(SERVER_HELLO, viewer.Text());
    EXPECT_EQ(SERVER_HELLO, viewer.Text());
    EXPECT_TRUE(viewer.Play(Url()));
    EXPECT_EQ("", stranger.Recv(0));
    viewer.Send("");  // as good as nothing
    viewer.Send(std::string(4097, 'O'));
    EXPECT_EQ(200, StatusOf(viewer.Ask("OPTIONS", "*")));
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
}

TEST_F(NatServer, ARequestThatComesAgainIsServedOnceAndAnsweredAgain) {
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    CNatViewer viewer;
    ASSERT_EQ(0, viewer.HandIn(*m_svr));
    ASSERT_EQ(SERVER_HELLO, viewer.Text());
    ASSERT_TRUE(viewer.Play(Url(FILE_CONTENT)));
    CFakeStreamSource* file = CFakeStreamSource::Last();
    ASSERT_TRUE(WaitUntil([&] { return file->CountCalls("Start") == 1; }));
    const std::string reply = viewer.Repeat();
    EXPECT_EQ(200, StatusOf(reply));
    EXPECT_EQ(reply, viewer.Repeat());
    EXPECT_EQ(1, file->CountCalls("Start"));
    // A new one drives the kept reply out.
    EXPECT_EQ(200, StatusOf(viewer.Ask("PAUSE", Url(FILE_CONTENT))));
    EXPECT_EQ(viewer.Repeat(), viewer.Repeat());
    EXPECT_EQ(1, file->CountCalls("Pause"));
    file->Tell(MSG_STREAM_FAIL);
    EXPECT_TRUE(CameBackOnce(viewer));
}

TEST_F(NatServer, EveryEndGivesTheSocketBackOnce) {
    const struct {
        const char* name;
        std::function<void(CNatViewer&)> end;
    } rows[] = {
        {"garbage", [](CNatViewer& viewer) { viewer.Send("garbage\r\n\r\n"); }},
        {"no whole request", [](CNatViewer& viewer) { viewer.Send("OPTIONS * RTSP/1.0\r\n"); }},
        {"silence", [](CNatViewer&) { AdvanceClock(16000); }},
        {"a duplicate that was shut down", [](CNatViewer& viewer) { shutdown(viewer.HostFd(), SHUT_RD); }},
        {"a report", [](CNatViewer& viewer) { viewer.Send(REPORT); }},
        {"a viewer that has gone",
         [this](CNatViewer& viewer) {
             const int queues = 1;  // of a host that reads ICMP answers itself
             EXPECT_EQ(0, setsockopt(viewer.HostFd(), IPPROTO_IP, IP_RECVERR, &queues, sizeof(queues)));
             viewer.Leave();
             for (unsigned int i = 0; i < 20; ++i) {
                 EXPECT_TRUE(Give(m_source_of_channel, i));
             }
             pollfd state = {viewer.HostFd(), 0, 0};  // nothing is left that would be told without an end
             EXPECT_TRUE(WaitUntil([&] { return poll(&state, 1, 0) == 0; }));
             EXPECT_EQ(1u, m_svr->CountSessions());  // what its system refuses is but silence
             AdvanceClock(16000);
         }},
        {"sessions", [this](CNatViewer&) { EXPECT_EQ(0u, m_svr->EndSessions(20000)); }},
        {"channel", [this](CNatViewer&) { EXPECT_EQ(0, m_live_svr->DelLiveChannel(LIVE_NAME)); }},
        {"server",
         [this](CNatViewer& viewer) {
             m_svr->Close();
             viewer.Send("garbage\r\n\r\n");
             m_svr = nullptr;
         }},
    };
    for (const auto& row : rows) {
        CNatViewer viewer;
        Begin(viewer);
        row.end(viewer);
        EXPECT_TRUE(CameBackOnce(viewer)) << row.name;
        EXPECT_TRUE(viewer.IsAsItWas()) << row.name;
    }
}

TEST_F(NatServer, TheHostMayCloseAllInTheCallbackAndUseTheSocketAgain) {
    CNatViewer viewer;
    viewer.on_came_back = [&] {
        m_svr->Stop();
        EXPECT_EQ(-1, CNetThread::DestroyThreadPool());
        m_svr->Close();
        m_svr = nullptr;
    };
    Begin(viewer);
    viewer.Send("garbage\r\n\r\n");
    EXPECT_TRUE(CameBackOnce(viewer));
    StartServer();
    CNatViewer other;
    ASSERT_EQ(0, other.HandIn(*m_svr));
    m_svr->Stop();  // the session may have begun or not
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
    EXPECT_TRUE(CameBackOnce(other));
}

TEST_F(NatServer, TheSocketMayBeHandedInAgainInsideTheCallback) {
    CNatViewer viewer;
    viewer.on_came_back = [&] { EXPECT_TRUE(viewer.Returns() > 0 || viewer.HandIn(*m_svr) == 0); };
    Begin(viewer);
    viewer.Send("garbage\r\n\r\n");
    ASSERT_EQ(SERVER_HELLO, viewer.Text());
    EXPECT_TRUE(viewer.Greet());
    EXPECT_TRUE(viewer.Play(Url()));
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
    EXPECT_TRUE(WaitUntil([&] { return viewer.Returns() == 2; }));
    EXPECT_TRUE(viewer.IsAsItWas());
}

TEST_F(NatServer, WhatIsNoNatStreamIsClosedOrStaysTheCallers) {
    const int before = CountDescriptors();
    const char* no_peers[] = {
        "",        "127.0.0.1",   ":80", "127.0.0.1:", "127.0.0.1:0", "127.0.0.1:65536", "localhost:80",
        "::1]:80", "127.0.0.1:8o"};
    for (const char* text : no_peers) {
        CNatViewer viewer;
        EXPECT_EQ(-1, viewer.HandIn(*m_svr, *text == '\0' ? "x" : text)) << text;
        EXPECT_EQ(0, viewer.Returns());
        EXPECT_EQ(-1, fcntl(viewer.HostFd(), F_GETFD)) << text;
    }
    CSockAddrStorage peer;
    EXPECT_TRUE(CP2PSvrSession::ReadPeer("[2001:db8::1]:80", peer));
    EXPECT_EQ(80, peer.GetPort());
    NatConnectRecord record;
    const long extra = reinterpret_cast<long>(&record);
    EXPECT_EQ(-1, m_svr->AddNewConnect(socket(AF_INET, SOCK_STREAM, 0), "127.0.0.1:80", 12, extra));
    EXPECT_EQ(-1, m_svr->AddNewConnect(-1, "127.0.0.1:80", 12, extra));
    {
        CNatViewer kept;
        EXPECT_EQ(-1, kept.HandIn(*m_svr, std::string(513, '1')));
        EXPECT_EQ(0, close(kept.HostFd()));
    }
    // Without a function the socket is closed at the end.
    ASSERT_EQ(0, m_svr->AddNewConnect(socket(AF_INET, SOCK_DGRAM, 0), "127.0.0.1:80", 12, extra));
    m_svr->Stop();
    m_svr->EndSessions(20000);
    EXPECT_EQ(-1, CNatViewer().HandIn(*m_svr));
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() < before; }));  // the listener is closed as well
}

TEST(NatSender, SendsWholePacketsOfTheTracksThatAreOn) {
    CSockDgram from;
    CSockDgram to;
    ASSERT_TRUE(MakeDgramPair(from, to));
    CP2PUdpSender sender;
    sender.SetSock(&from);
    const std::string run = std::string("$\0\0\3abc$\0\0\2de", 13);
    const auto put = [&](const std::string& bytes, int track) {
        CountedPacket packet(bytes);
        return sender.Put(&packet, packet.Size(), 1, track << 24 | 1);
    };
    const auto arrives = [&](const std::string& expected) {
        std::string all;
        char text[2048];
        WaitUntil([&] {
            const int count = to.Recv(text, sizeof(text), nullptr);
            all += count > 0 ? std::string(text, static_cast<size_t>(count)) + "|" : "";
            return all.size() >= expected.size();
        });
        return all;
    };
    EXPECT_EQ(13, put(run, 3));
    sender.SetChannel(1);
    sender.SetChannel(8);
    EXPECT_EQ(0, put(run, 3));
    EXPECT_EQ(13, put(run, 1));
    sender.ClearChannel(1);
    EXPECT_EQ(0, put(run, 1));
    sender.SetChannel(-1);
    EXPECT_EQ(13, put(run, 7));
    EXPECT_EQ(0, put(run, 8));
    EXPECT_EQ(-1, put(run + std::string("$\0\0\5abc", 7), 0));  // what is whole in front goes
    EXPECT_EQ(-1, put("KXAV" + run, 0));
    EXPECT_EQ("abc|de|abc|de|abc|de|abc|de|", arrives("abc|de|abc|de|abc|de|abc|de|"));
}

// A sender in a buffer whose pool sends, and the gaps that it was told of.
template <typename Sender>
struct TGapTeller {
    explicit TGapTeller(CSockDgram& sock) {
        buffer.EnableAutoSend();
        sender.SetSock(&sock);
        sender.SetFrameProc(CP2PUdpSender::frame_proc_t(this, &TGapTeller::on_gap));
        buffer.AddLevel2Buffer(&sender);
    }
    ~TGapTeller() { buffer.DelLevel2Buffer(&sender); }
    void Put(unsigned int track, unsigned int number, bool key = false) {
        auto* info = new CFrameInfo;
        info->m_track = track;
        info->m_frame_index = number;
        buffer.PutFrameInfo(info, 1);
        auto* packet = new CountedPacket(std::string("$\0\0\4", 4) + std::to_string(1000 + number % 1000));
        buffer.Put(packet, packet->Size(), 1, static_cast<int>(track << 24 | (key ? 1 : 5)));
    }
    std::string Told() {
        EXPECT_TRUE(WaitUntil([this] { return buffer.IsIdle(); }));
        return told;
    }

    CMediaBuffer buffer;
    Sender sender;
    std::string told;  // of the thread that writes

private:
    void on_gap(CMediaPacket* packet, int, int before) {
        told += std::to_string(before) + '>' + std::to_string(static_cast<CFrameInfo*>(packet)->m_frame_index) + ' ';
    }
};

typedef TGapTeller<CP2PUdpSender> CGapTeller;

// Without a call as long as none is missing; what it didn't ask for is no gap.
TEST(NatSender, IsToldOfTheFramesThatItsSocketHadNoRoomFor) {
    const CPool pool(2);
    int fds[2];  // a local socket is full while its peer doesn't read
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds));
    CSockDgram sock, peer;
    ASSERT_TRUE(sock.Attach(fds[0]) == 0 && peer.Attach(fds[1]) == 0);
    CGapTeller teller(sock);
    unsigned int number = 1;
    const auto arrived = [&] {
        teller.Told();
        unsigned int count = 0;
        for (char room[16]; peer.Recv(room, sizeof(room), nullptr) > 0; ++count) {
        }
        return count;
    };
    std::string expected;
    for (const bool is_called : {false, true}) {  // a track that waits for its key frame has the sender called
        if (is_called) {
            teller.sender.PauseChannel(2);
            teller.sender.SetChannel(2);
        }
        teller.Put(0, number, true);
        teller.Put(2, number, !is_called);
        EXPECT_EQ(is_called ? 1u : 2u, arrived());
        const unsigned int first = number + 1;
        while (number < first + 2000) {
            teller.Put(0, ++number);
            teller.Told();  // or the group could have no room itself
        }
        const unsigned int taken = arrived();
        EXPECT_LT(taken, 2000u);
        teller.Put(0, ++number);
        EXPECT_EQ(1u, arrived());
        expected += std::to_string(first + taken - 1) + '>' + std::to_string(number) + ' ';
        teller.sender.ClearChannel(0);
        teller.Put(0, number + 1);
        teller.sender.SetChannel(0);
        number += 2;
        teller.Put(0, number);
        EXPECT_EQ(1u, arrived());
        ++number;
    }
    EXPECT_EQ(expected, teller.Told());
    teller.sender.SetChannel(2);
    teller.Put(2, number, true);  // and is left alone again
    EXPECT_EQ(1u, arrived());
}

// A track that is paused and goes on while a frame of it has left and isn't counted yet.
TEST(NatSender, CountsAnewBehindAFrameThatWasBeingSent) {
    struct CSwitched : CP2PUdpSender {
        int PutRest(CMediaPacket* packet, int offset, int length, int tag) override {
            const int result = CP2PUdpSender::PutRest(packet, offset, length, tag);
            if (std::exchange(switches, false)) {
                PauseChannel(0);
                SetChannel(0);
            }
            return result;
        }
        bool switches = true;
    };
    const CPool pool(2);
    CSockDgram from, to;
    ASSERT_TRUE(MakeDgramPair(from, to));
    TGapTeller<CSwitched> teller(from);
    teller.Put(0, 1, true);
    EXPECT_EQ("", teller.Told());
    teller.sender.PauseChannel(0);
    teller.sender.SetChannel(0);  // it waits for a key frame, and is called
    teller.Put(0, 2, true);
    teller.Put(0, 3);
    teller.Put(0, 4, true);
    EXPECT_EQ("", teller.Told());
}

TEST(NatSender, IsSwitchedAndMovedWhileItsBufferSends) {
    const CPool pool(2);
    CSockDgram from, to;
    ASSERT_TRUE(MakeDgramPair(from, to));
    CGapTeller teller(from);
    std::vector<std::unique_ptr<CP2PUdpSender>> others;
    for (int i = 0; i < 20; ++i) {  // so that the pool sends
        others.push_back(std::make_unique<CP2PUdpSender>());
        teller.buffer.AddLevel2Buffer(others.back().get());
    }
    unsigned int number = 1;
    for (int round = 0; round < 40; ++round) {
        std::thread source([&] {
            for (int i = 0; i < 50; ++i, ++number) {
                teller.Put(0, number, number % 8 == 0);
                teller.Put(1, number);
            }
        });
        RunTogether(1, [&] {
            teller.sender.PauseChannel(0);
            teller.sender.ClearChannel(1);
            teller.sender.SetChannel(0);
            teller.sender.SetChannel(1);
            teller.buffer.DelLevel2Buffer(&teller.sender);
            teller.buffer.AddLevel2Buffer(&teller.sender);
        });
        source.join();
        EXPECT_EQ("", teller.Told());
    }
    char room[16];
    while (to.Recv(room, sizeof(room), nullptr) > 0) {
    }
    teller.Put(0, 2008, true);
    EXPECT_TRUE(WaitUntil([&] { return to.Recv(room, sizeof(room), nullptr) == 4 && room[3] == '8'; }));
    for (const auto& other : others) {
        teller.buffer.DelLevel2Buffer(other.get());
    }
}

}  // namespace
}  // namespace Kavio::Vidora
