#include <algorithm>
#include <thread>

#include "Tramel/Reactor.h"
#include "server/ServerFixture.h"
#include "support/UdpPeer.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CUdpPeer;
using Tramel::CNetThread;

const char MULTICAST[] = "cam/realmonitor?channel=2&subtype=0";
const char TO_GROUP[] = "Transport: RTP/AVP;multicast\r\n";
const int BUSY_FRAME = 30000;  // a client that doesn't read is stalled after a few

// The host's thread, which gives frames to all its sources until it is told to end.
class CHostThread {
public:
    CHostThread() : m_thread([this] { run(); }) {}
    ~CHostThread() {
        m_stop = true;
        m_thread.join();
    }

private:
    void run() {
        for (unsigned int sequence = 0; !m_stop; ++sequence) {
            CFakeStreamSource::ForEach([&](CFakeStreamSource& source) { GiveVideo(&source, sequence, BUSY_FRAME); });
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// A host that closes what it has while clients are in every state and its frames go on.
class Closing : public CServerTest {
protected:
    void SetUp() override {
        StartWithChannel();
        AddChannel(MULTICAST);
        CSockAddrStorage group("239.1.2.3", 41000);
        ASSERT_EQ(0, m_channels[1]->AddTransfDst(group, "127.0.0.1"));
        m_channels[1]->SetUnicast(false);
        CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
        m_host = std::make_unique<CHostThread>();
        CRtspTestClient& idle = Connect();
        ASSERT_EQ(200, idle.Ask("OPTIONS", "*").status);
        ASSERT_EQ(200, Connect().Ask("DESCRIBE", Url()).status);
        PlayInterleaved(Connect());
        Play(Connect(), PRIVATE);
        Play(Connect(), UdpTransport(m_rtp.Port()));
        Play(Connect(), TO_GROUP, MULTICAST);
        CRtspTestClient& paused = Connect();
        PlayInterleaved(paused, FILE_CONTENT);
        ASSERT_EQ(200, paused.Ask("PAUSE", Url(FILE_CONTENT)).status);
        PlayInterleaved(Connect(), FILE_CONTENT);
        CRtspTestClient& waiting = Connect();
        waiting.Send("OPTIONS * RTSP/1.0\r\n");
        ASSERT_EQ(8u, m_svr->CountSessions());
        // The players don't read any more: they are stalled as soon as the sockets are full.
        const auto dropped = [] {
            RtspSvrStatistics statistics;
            CRtspSvr::GetStatistics(statistics);
            return statistics.dropped;
        };
        const uint64_t before = dropped();
        ASSERT_TRUE(Support::WaitUntil([&] { return dropped() > before; }));
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
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(MULTICAST));
    }

    void TearDown() override {
        m_host.reset();
        CNetThread::CreateThreadPool(4, false);  // what the acts left behind ends with its clients
        m_clients.clear();
        EXPECT_TRUE(SessionsGone());
        m_live_svr = m_live_svr != nullptr ? m_live_svr : CLiveSvr::Create(0);
    }

    CUdpPeer m_rtp;
    std::vector<std::unique_ptr<CRtspTestClient>> m_clients;
    std::unique_ptr<CHostThread> m_host;
};

// Acts by their letters: the Server and the Registry are closed, the Channels deleted, the Pool destroyed. A registry
// that is closed has no channels left to delete.
class ClosingOrder : public Closing, public testing::WithParamInterface<std::tuple<const char*, bool>> {};

TEST_P(ClosingOrder, IsSafe) {
    const std::string order = std::get<0>(GetParam());
    const bool at_leisure = std::get<1>(GetParam());
    for (const char act : order) {
        switch (act) {
            case 'S':
                CloseServer();
                break;
            case 'C':
                DeleteChannels();
                break;
            case 'R':
                CloseRegistry();
                break;
            default:
                EXPECT_EQ(0, CNetThread::DestroyThreadPool());
                break;
        }
        if (at_leisure) {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));  // or else the acts overlap in their effects
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
    EXPECT_EQ(0, Tramel::CReactor::Instance().CountHandlers());
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
