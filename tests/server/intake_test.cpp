#include <fcntl.h>
#include <netinet/tcp.h>

#include "server/ServerFixture.h"
#include "support/Loopback.h"
#include "support/TestClock.h"

namespace Kavio::Vidora {
namespace {

// A connection: the server's end is to be handed to it.
struct Connection {
    int server = -1;
    std::unique_ptr<CRtspTestClient> client;

    Connection() {
        const CBoundSocket listener(SOCK_STREAM);
        listen(listener.Fd(), 1);
        client = std::make_unique<CRtspTestClient>(listener.Port());
        server = accept(listener.Fd(), nullptr, nullptr);
    }
};

class Intake : public CServerTest {};

// From the accept on, not from the last byte.
TEST_F(Intake, ConnectionsHaveFiveSecondsForTheirFirstRequest) {
    StartServer();
    CLogCapture log;
    CRtspTestClient silent(m_port), partial(m_port), slow(m_port);
    partial.Send("OPTIONS * RTSP/1.0\r\n");
    EXPECT_TRUE(WaitUntil([&] {
        AdvanceClock(100);
        return !slow.Send("O") || slow.Closed(1);
    }));
    EXPECT_TRUE(silent.Closed());
    EXPECT_TRUE(partial.Closed());
    EXPECT_EQ(3, log.Count("handle_input_timeout error, fd:"));
}

TEST_F(Intake, HandedInConnections) {
    UseAuthModule(7);
    StartWithChannel();
    const std::string describe = "DESCRIBE " + Url() + " RTSP/1.0\r\nCSeq: 1\r\n\r\n";
    const int nat_record[5] = {2, 10, 20, 30, 40};
    const int other_record[5] = {3, 0, 0, 0, 0};

    Connection pair;
    EXPECT_EQ(-1, m_svr->AddNewConnect(-1, nullptr, 0, 0));
    EXPECT_EQ(-1, m_svr->AddNewConnect(pair.server, std::string(513, 'x').c_str(), 513, 0));
    EXPECT_LE(0, fcntl(pair.server, F_GETFD)) << "a refused connection stays the host's";
    const int closed_fd = dup(pair.server);
    close(closed_fd);
    EXPECT_EQ(-1, m_svr->AddNewConnect(closed_fd, nullptr, 0, 0));
    const int unwatched = open("/dev/null", O_RDWR);
    EXPECT_EQ(-1, m_svr->AddNewConnect(unwatched, nullptr, 0, 0));
    EXPECT_EQ(0, close(unwatched));

    // Bytes of half a request are dropped; the next ones begin the record.
    EXPECT_EQ(0, m_svr->AddNewConnect(pair.server, "OPTIONS * RT", 12, 0));
    pair.client->Send(OPTIONS_TEXT);
    EXPECT_EQ(200, pair.client->Reply().status);
    // A peer that vanishes is noticed after the time-out of the configuration.
    int probes = 0, user_timeout = 0;
    socklen_t length = sizeof(int);
    EXPECT_EQ(0, getsockopt(pair.server, SOL_SOCKET, SO_KEEPALIVE, &probes, &length));
    EXPECT_EQ(0, getsockopt(pair.server, IPPROTO_TCP, TCP_USER_TIMEOUT, &user_timeout, &length));
    EXPECT_EQ(1, probes);
    EXPECT_EQ(60000, user_timeout);

    // A host that counts wrong.
    Connection tunnel;
    EXPECT_EQ(0, m_svr->AddNewConnect(tunnel.server, "GET / HTTP/1.0\r\nx-sessioncookie: c\r\n\r\n", 3, 0));
    EXPECT_EQ(200, tunnel.client->Reply().status);

    const struct {
        std::string buf;
        long extra;
        int result;
        int status;  // -1: closed
    } rows[] = {
        {OPTIONS_TEXT, 0, 0, 200},
        {describe, 0, 0, 401},
        {describe, 1, 0, 200},  // exempt from authentication
        {"DESCRIBE", 1, 0, 200},
        {describe, reinterpret_cast<long>(other_record), 0, 401},
        {describe, reinterpret_cast<long>(nat_record), -1, -1},
        {"GET / HTTP/1.0\r\n\r\n", 0, 0, -1},
    };
    for (const auto& row : rows) {
        Connection other;
        EXPECT_EQ(row.result,
                  m_svr->AddNewConnect(other.server, row.buf.c_str(), static_cast<int>(row.buf.size()), row.extra));
        if (row.buf == "DESCRIBE") {
            other.client->Send(describe);
        }
        if (row.status < 0) {
            EXPECT_TRUE(other.client->Closed()) << row.buf;
        } else {
            EXPECT_EQ(row.status, other.client->Reply().status) << row.buf;
        }
    }
}

TEST_F(Intake, AHostThatBlocksInOneSessionHoldsNobodyElse) {
    static std::atomic<bool> block{false};  // for calls that outlive the test
    static std::atomic<int> blocked{0};
    HookHost([](const std::string& name, const std::string&) {
        if (name == "connected" && block.exchange(false)) {
            ++blocked;
            WaitUntil([] { return blocked == 0; });
        }
    });
    StartServer();
    CRtspTestClient held(m_port);
    block = true;
    held.Send(OPTIONS_TEXT);
    ASSERT_TRUE(WaitUntil([] { return blocked == 1; }));
    block = true;
    Connection handed_in;  // the caller's thread isn't held either
    EXPECT_EQ(0, m_svr->AddNewConnect(handed_in.server, OPTIONS_TEXT, sizeof(OPTIONS_TEXT) - 1, 0));
    ASSERT_TRUE(WaitUntil([] { return blocked == 2; }));
    std::vector<std::unique_ptr<CRtspTestClient>> more;  // than the pool has threads
    for (int i = 0; i < 4; ++i) {
        block = true;
        more.push_back(std::make_unique<CRtspTestClient>(m_port));
        more.back()->Send(OPTIONS_TEXT);
        ASSERT_TRUE(WaitUntil([=] { return blocked == 3 + i; }));
    }
    CRtspTestClient other(m_port);
    EXPECT_EQ(200, other.Ask("OPTIONS", "*").status);
    EXPECT_TRUE(held.Silent(1));
    blocked = 0;
    EXPECT_EQ(200, held.Reply().status);
    EXPECT_EQ(200, handed_in.client->Reply().status);
}

TEST_F(Intake, AServerNeedsAnAddressOfThisMachine) {
    CSockAddrStorage bad;
    EXPECT_EQ(nullptr, CRtspSvr::Create(bad));
    CSockAddrStorage foreign("192.0.2.1", 554);
    EXPECT_EQ(nullptr, CRtspSvr::Create(foreign));
    StartServer();
    m_svr->Stop();
    m_svr->Stop();
    EXPECT_EQ(-1, m_svr->AddNewConnect(0, nullptr, 0, 0));
    EXPECT_TRUE(WaitUntil([&] { return !CRtspTestClient(m_port).Connected(); }));
}

}  // namespace
}  // namespace Kavio::Vidora
