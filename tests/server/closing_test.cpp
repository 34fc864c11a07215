#include <map>

#include "Tramel/Reactor.h"
#include "server/NatViewer.h"
#include "server/ServerFixture.h"
#include "support/Descriptors.h"

namespace Kavio::Vidora {
namespace {

using Tramel::CNetThread;
using Tramel::CReactor;

const char TO_GROUP[] = "Transport: RTP/AVP;multicast\r\n";
const unsigned int BUSY_FRAME = 300000;  // a client that doesn't read is stalled after a few
const unsigned int SMALL_FRAME = 1000;

void GiveToAll(unsigned int sequence, unsigned int size) {
    CFakeStreamSource::ForEach([=](CFakeStreamSource& source) { GiveVideo(&source, sequence, size); });
}

// A host that closes what it has while clients are in every state and its frames go on.
class Closing : public CServerTest {
protected:
    void SetUp() override {
        StartWithChannel();
        AddChannel(ChannelName(2));
        CSockAddrStorage group("239.1.2.3", 41000);
        ASSERT_EQ(0, m_channels[1]->AddTransfDst(group, "127.0.0.1"));
        m_channels[1]->SetUnicast(false);
        CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
        m_host = std::make_unique<CFramePump>(2, [](unsigned int sequence) { GiveToAll(sequence, BUSY_FRAME); });
        CRtspTestClient& idle = Connect();
        ASSERT_EQ(200, idle.Ask("OPTIONS", "*").status);
        ASSERT_EQ(200, Connect().Ask("DESCRIBE", Url()).status);
        PlayInterleaved(Connect());
        Play(Connect(), PRIVATE);
        Play(Connect(), UdpTransport(m_rtp.Port()));
        Play(Connect(), TO_GROUP, ChannelName(2));
        CRtspTestClient& paused = Connect();
        PlayInterleaved(paused, FILE_CONTENT);
        ASSERT_EQ(200, paused.Ask("PAUSE", Url(FILE_CONTENT)).status);
        PlayInterleaved(Connect(), FILE_CONTENT);
        CRtspTestClient& waiting = Connect();
        waiting.Send("OPTIONS * RTSP/1.0\r\n");
        ASSERT_EQ(0, m_viewer.HandIn(*m_svr));
        ASSERT_EQ(SERVER_HELLO, m_viewer.Text());
        ASSERT_TRUE(m_viewer.Play(Url()));
        ASSERT_EQ(9u, m_svr->CountSessions());
        // The players don't read any more: they are stalled as soon as the sockets are full.
        const uint64_t before = CountDropped();
        ASSERT_TRUE(WaitUntil([&] { return CountDropped() > before; }));
    }

    CRtspTestClient& Connect() {
        m_clients.push_back(std::make_unique<CRtspTestClient>(m_port));
        return *m_clients.back();
    }

    void CloseServer() {
        m_svr->Close();
        m_svr = nullptr;
    }
    void CloseRegistry() {
        m_live_svr->Close();
        m_live_svr = nullptr;
    }
    void DeleteChannels() {
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(LIVE_NAME));
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(ChannelName(2).c_str()));
    }

    void TearDown() override {
        m_host.reset();
        CNetThread::CreateThreadPool(4, false);  // what the acts left behind ends with its clients
        m_clients.clear();
        m_viewer.Send("garbage");
        EXPECT_TRUE(SessionsGone());
        EXPECT_TRUE(WaitUntil([&] { return m_viewer.Returns() == 1; }));
        EXPECT_TRUE(m_viewer.IsAsItWas());
        m_live_svr = m_live_svr != nullptr ? m_live_svr : CLiveSvr::Create(0);
    }

    CUdpPeer m_rtp;
    CNatViewer m_viewer;
    std::vector<std::unique_ptr<CRtspTestClient>> m_clients;
    std::unique_ptr<CFramePump> m_host;
};

// Acts by their letters: the Server and the Registry are closed, the Channels deleted, the Pool destroyed. A registry
// that is closed has no channels left to delete.
class ClosingOrder : public Closing, public testing::WithParamInterface<std::tuple<const char*, bool>> {};

TEST_P(ClosingOrder, IsSafe) {
    const std::string order = std::get<0>(GetParam());
    const bool at_leisure = std::get<1>(GetParam());
    const std::map<char, std::function<void()>> acts = {
        {'S', [this] { CloseServer(); }},
        {'C', [this] { DeleteChannels(); }},
        {'R', [this] { CloseRegistry(); }},
        {'P', [] { EXPECT_EQ(0, CNetThread::DestroyThreadPool()); }},
    };
    for (const char act : order) {
        acts.at(act)();
        if (at_leisure) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // or else the acts overlap in their effects
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    All, ClosingOrder,
    testing::Combine(testing::Values("SCRP", "SCPR", "SPCR", "PSCR", "CSRP", "CSPR", "CPSR", "PCSR", "CRSP", "CRPS",
                                     "CPRS", "PCRS", "RSP", "RPS", "SRP", "SPR", "PRS", "PSR"),
                     testing::Bool()),
    [](const auto& info) { return std::string(std::get<0>(info.param)) + (std::get<1>(info.param) ? "_slowly" : ""); });

// The order that docs/threading.md names: nothing is left when it is over, whatever the clients do.
TEST_F(Closing, TheDocumentedOrderLeavesNothing) {
    m_svr->Stop();
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
    CloseServer();
    CloseRegistry();
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(0, CFakeStreamSource::LiveCount());
    EXPECT_EQ(0u, CRtspSvr::GetSessionCount());
    EXPECT_EQ(0, CReactor::Instance().CountHandlers());
}

// A client that plays over TCP, and one that plays over UDP.
struct Players {
    explicit Players(int port) : tcp(port), udp(port) {}
    // Nobody else's frames are in front of these: what had come before is read first.
    bool ReceiveMore() {
        while (tcp.Frame(1).channel >= 0) {
        }
        while (!rtp.Recv(0).empty()) {
        }
        return tcp.Frame().channel == 0 && !rtp.Recv().empty();
    }
    CRtspTestClient tcp, udp;
    CUdpPeer rtp;
};

class LivingOn : public CServerTest {
protected:
    void Begin(Players& players) {
        PlayInterleaved(players.tcp);
        Play(players.udp, UdpTransport(players.rtp.Port()));
    }
};

// The pool is destroyed and made again: who plays goes on playing, also without a pool, and nobody who is just coming
// is lost.
TEST_F(LivingOn, APoolIsMadeAgainUnderItsHandlers) {
    StartWithChannel();
    const CFramePump host(2, [](unsigned int sequence) { GiveToAll(sequence, SMALL_FRAME); });
    CRtspTestClient idle(m_port);
    ASSERT_EQ(200, idle.Ask("OPTIONS", "*").status);
    Players players(m_port);
    Begin(players);
    std::atomic<bool> over{false};
    std::thread visitors([&] {
        for (bool last = false; !last;) {
            last = over;
            Players visitor(m_port);
            Begin(visitor);
            EXPECT_TRUE(visitor.ReceiveMore());
        }
    });
    for (int round = 0; round < 20; ++round) {
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        EXPECT_TRUE(round > 2 || players.ReceiveMore());
        EXPECT_EQ(0, CNetThread::CreateThreadPool(4, false));
        EXPECT_EQ(200, idle.Ask("OPTIONS", "*").status);
        EXPECT_EQ(200, players.udp.Ask("OPTIONS", "*").status);
    }
    EXPECT_TRUE(players.ReceiveMore());
    over = true;
    visitors.join();
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
}

// Connections that have sent nothing, half a request, or the first half of a tunnel; and those that nobody has accepted
// yet.
TEST_F(LivingOn, AServerIsClosedWithConnectionsInItsIntake) {
    const long handlers = CReactor::Instance().CountHandlers();
    const int descriptors = CountDescriptors();
    const char* sent[] = {"", "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n", "GET / HTTP/1.0\r\n",
                          "GET / HTTP/1.0\r\nx-sessioncookie: "};
    for (const bool accepted : {true, false}) {
        StartServer();
        std::vector<std::unique_ptr<CRtspTestClient>> clients;
        for (int i = 0; i < 100; ++i) {
            clients.push_back(std::make_unique<CRtspTestClient>(m_port));
            const bool whole = i % 4 == 3;
            clients.back()->Send(sent[i % 4] + (whole ? std::to_string(i) + "\r\n\r\n" : std::string()));
            EXPECT_TRUE(!whole || !accepted || clients.back()->Reply().status == 200);
        }
        EXPECT_TRUE(!accepted || WaitUntil([=] { return CountDescriptors() > descriptors + 200; }));
        m_svr->Close();
        m_svr = nullptr;
        for (const auto& client : clients) {
            EXPECT_TRUE(client->Closed());
        }
        clients.clear();
        EXPECT_EQ(0u, CRtspSvr::GetSessionCount());
        EXPECT_TRUE(WaitUntil([=] { return CReactor::Instance().CountHandlers() == handlers; }));
        EXPECT_TRUE(WaitUntil([=] { return CountDescriptors() == descriptors; }));
    }
}

// Two servers on one registry: the one goes with its players, whichever it is, and those of the other play on. What
// plays when the last server closes plays on until the registry does.
TEST_F(LivingOn, OneOfTwoServersGoes) {
    for (const int leaving : {0, 1}) {
        CRtspSvr* servers[2];
        std::unique_ptr<Players> players[2];
        for (int i = 0; i < 2; ++i) {
            StartServer();
            servers[i] = m_svr;
            players[i] = std::make_unique<Players>(m_port);
        }
        AddChannel();
        const CFramePump host(2, [](unsigned int sequence) { GiveToAll(sequence, SMALL_FRAME); });
        Begin(*players[0]);
        Begin(*players[1]);
        CRtspSvr* gone = servers[leaving];
        CRtspSvr* kept = servers[1 - leaving];
        Players& staying = *players[1 - leaving];
        gone->Stop();
        EXPECT_EQ(0u, gone->EndSessions(20000));
        gone->Close();
        EXPECT_TRUE(players[leaving]->tcp.Closed() && players[leaving]->udp.Closed());
        EXPECT_TRUE(staying.ReceiveMore());
        EXPECT_EQ(2u, kept->CountSessions());
        kept->Close();
        m_svr = nullptr;
        EXPECT_TRUE(staying.ReceiveMore());
        m_live_svr->Close();
        EXPECT_TRUE(staying.tcp.Closed() && staying.udp.Closed());
        EXPECT_TRUE(SessionsGone());
        m_live_svr = CLiveSvr::Create(0);
    }
}

}  // namespace
}  // namespace Kavio::Vidora
