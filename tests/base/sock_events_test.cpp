#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "Tramel/MediaStreamReceiver.h"
#include "Tramel/Reactor.h"
#include "Tramel/SockAcceptor.h"
#include "Tramel/SockDgram.h"
#include "support/TestHandler.h"

namespace Kavio::Tramel {
namespace {

using Support::CPool;
using Support::CTestHandler;
using Support::WaitUntil;

// Two connected sockets and a handler on the heap that is closed at the end of the test.
class SockEvents : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Support::MakeSockPair(m_sock, m_peer)); }
    void TearDown() override {
        m_handler->Close();
        EXPECT_TRUE(WaitUntil([&] { return m_closed.load() == 1; }));
    }
    int read_some(unsigned int count) {
        char bytes[64];
        return m_sock.Recv(bytes, count);
    }
    // Runs `code` as a callback of the handler and waits for its end.
    void run_in_handler(const std::function<void()>& code = [] {}) {
        std::atomic<bool> done{false};
        m_handler->on_message = [&](long, unsigned int, long) {
            code();
            done.store(true);
            return 0;
        };
        CReactor::Instance().Post(0, m_handler->GetID(), 0, 0);
        EXPECT_TRUE(WaitUntil([&] { return done.load(); }));
    }
    // The other thread polls, and asks for the next timer's sake after what is due for the handler was queued.
    static void let_others_poll() {
        CTestHandler* other = CTestHandler::Make();
        std::atomic<int> fired{0};
        other->on_timeout = [&](long) { return fired.fetch_add(1); };
        other->SetTimer(2000);
        EXPECT_TRUE(WaitUntil([&] { return fired.load() > 3; }));
        other->Close();
    }

    CPool m_pool{2};
    std::atomic<int> m_closed{0};
    CTestHandler* m_handler = CTestHandler::Make(&m_closed);
    CSockStream m_sock, m_peer;
};

// Input that is left in the socket is told again, but never while the handler is still busy with it: one call a byte.
TEST_F(SockEvents, EachInputIsToldOnceUntilItWasHandled) {
    std::atomic<int> calls{0}, bytes{0};
    m_handler->on_input = [&](int fd) {
        EXPECT_EQ(m_sock.GetHandle(), fd);
        calls.fetch_add(1);
        std::this_thread::yield();
        bytes.fetch_add(read_some(1));
        return -1;  // no order to unregister
    };
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 0));
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 0));
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(20, m_peer.Send("01234567890123456789", 20));
    }
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 200; }));
    EXPECT_EQ(200, calls.load());
    EXPECT_EQ(0, m_handler->UnregisterSock(m_sock, SOCK_EVENT_READ));
    EXPECT_EQ(-1, m_handler->UnregisterSock(m_sock, SOCK_EVENT_READ));
    EXPECT_EQ(-1, m_handler->RemoveSock(m_sock));
}

// One whose reader says that it drains it tells each arrival once, also one that comes while the reader is busy, and
// the end of the connection that came with the last bytes.
TEST_F(SockEvents, DrainedSocketLosesNoArrivalAndNoEnd) {
    CReactor& reactor = CReactor::Instance();
    std::atomic<int> calls{0}, bytes{0}, wanted{64};
    std::atomic<bool> has_ended{false};
    m_handler->on_input = [&](int) {
        const int got = read_some(static_cast<unsigned int>(wanted.load()));
        bytes.fetch_add(std::max(got, 0));
        has_ended.store(got < 0);
        return calls.fetch_add(1) == 0 && m_peer.Send("de", 2);
    };
    EXPECT_EQ(-1, reactor.Drain(*m_handler, m_sock.GetHandle()));
    m_peer.Send("abc", 3);
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 0));
    EXPECT_EQ(0, reactor.Drain(*m_handler, m_sock.GetHandle()));
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 5; }));
    run_in_handler([&] {
        m_peer.Send("f", 1);
        let_others_poll();
        m_peer.Send("ghi", 3);
        let_others_poll();
        wanted.store(1);
    });
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 7; }));
    run_in_handler([] { let_others_poll(); });
    EXPECT_EQ(7, bytes.load());  // what it leaves isn't told once more
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 0));
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 9; }));
    wanted.store(64);
    EXPECT_EQ(0, reactor.Drain(*m_handler, m_sock.GetHandle()));
    CTestHandler* other = CTestHandler::Make();
    std::atomic<bool> is_held{false}, is_sent{false};
    other->on_message = [&](long, unsigned int, long) {
        is_held.store(true);
        return WaitUntil([&] { return is_sent.load(); });
    };
    run_in_handler([&] {  // on both threads: nobody polls between the byte and the end
        CReactor::Instance().Post(0, other->GetID(), 0, 0);
        WaitUntil([&] { return is_held.load(); });
        m_peer.Send("j", 1);
        m_peer.Close();
        is_sent.store(true);
    });
    other->Close();
    EXPECT_TRUE(WaitUntil([&] { return has_ended.load(); }));
    EXPECT_EQ(10, bytes.load());
    run_in_handler([&] { m_handler->RemoveSock(m_sock); });
}

// The usual end of a connection: taken out and deleted inside its own callback, while the number of its descriptor goes
// to a new one at once, which must get its own events and none of the old one's.
TEST_F(SockEvents, SocketRemovedAndDeletedInItsOwnCallback) {
    std::unique_ptr<CSockStream> sock;
    std::unique_ptr<CSockStream> peer;
    std::atomic<int> rounds{0}, faults{0};
    int reused = 0;
    const auto renew = [&] {
        const int former = sock == nullptr ? -1 : sock->GetHandle();
        sock = std::make_unique<CSockStream>();  // closes the former one
        peer = std::make_unique<CSockStream>();
        faults.fetch_add(Support::MakeSockPair(*sock, *peer) ? 0 : 1);
        reused += sock->GetHandle() == former ? 1 : 0;
        faults.fetch_add(m_handler->RegisterSock(*sock, SOCK_EVENT_READ | SOCK_EVENT_EXCEPTION, 0) == 0 ? 0 : 1);
    };
    m_handler->on_exception = [&](int) { return faults.fetch_add(1); };
    m_handler->on_input = [&](int fd) {
        char byte = 0;
        faults.fetch_add(fd == sock->GetHandle() && sock->Recv(&byte, 1) == 1 ? 0 : 1);
        if (rounds.load() % 2 == 0) {
            m_handler->RemoveSock(*sock);  // every other time closing alone must do
        }
        renew();
        rounds.fetch_add(1);
        return 0;
    };
    run_in_handler(renew);
    for (int round = 0; round < 200; ++round) {
        ASSERT_EQ(1, peer->Send("x", 1));
        ASSERT_TRUE(WaitUntil([&] { return rounds.load() == round + 1; }));
    }
    EXPECT_EQ(0, faults.load());
    EXPECT_GT(reused, 0);
    run_in_handler([&] { m_handler->RemoveSock(*sock); });
}

// What is due for a socket when it is removed isn't delivered any more, even if it was queued long before.
TEST_F(SockEvents, NothingStartsAfterRemoval) {
    std::atomic<int> calls{0};
    m_handler->on_input = m_handler->on_output = [&](int) {
        calls.fetch_add(1);
        m_handler->RemoveSock(m_sock);
        return 0;
    };
    m_handler->on_input_timeout = [&](int) { return calls.fetch_add(1); };
    run_in_handler([&] {
        EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 1));
        m_peer.Send("x", 1);
        let_others_poll();
        EXPECT_EQ(0, m_handler->RemoveSock(m_sock));
    });
    run_in_handler();
    EXPECT_EQ(0, calls.load());
    // Both kinds are due: the first callback removes the socket, so the second doesn't come.
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ | SOCK_EVENT_WRITE, 0));
    EXPECT_TRUE(WaitUntil([&] { return calls.load() > 0; }));
    run_in_handler();
    EXPECT_EQ(1, calls.load());
}

TEST_F(SockEvents, TimeoutsRepeatAfterEveryQuietPeriodAndOnlyThen) {
    constexpr int64_t TIMEOUT_US = 20000;
    std::atomic<int> timeouts{0}, inputs{0};
    std::atomic<bool> is_active{true};
    m_handler->on_input_timeout = [&](int) { return -1 - timeouts.fetch_add(1); };
    m_handler->on_input = [&](int) {
        inputs.fetch_add(read_some(64));
        if (is_active.load()) {
            m_peer.Send("x", 1);
        }
        return 0;
    };
    // Never quiet: there is always a byte on its way or being handled.
    m_peer.Send("x", 1);
    const uint64_t start = CEpollPoller::Now();
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, TIMEOUT_US));
    EXPECT_TRUE(WaitUntil([&] { return CEpollPoller::Now() > start + 5 * TIMEOUT_US; }));
    EXPECT_EQ(0, timeouts.load());
    EXPECT_GT(inputs.load(), 0);
    is_active.store(false);
    EXPECT_TRUE(WaitUntil([&] { return timeouts.load() >= 3; }));
    EXPECT_GE(CEpollPoller::Now(), start + 8 * TIMEOUT_US);
    // 0 ends it.
    run_in_handler([&] { EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 0)); });
    EXPECT_EQ(CTimerQueue::NO_DEADLINE, CReactor::Instance().Timers().FirstDeadline());
    run_in_handler([&] { m_handler->RemoveSock(m_sock); });
}

// A time-out that is due when the socket is registered anew isn't told by the new one's leave.
TEST_F(SockEvents, RegisteringAnewTakesADueTimeoutBack) {
    std::atomic<int> timeouts{0};
    m_handler->on_input_timeout = [&](int) { return timeouts.fetch_add(1); };
    run_in_handler([&] {
        EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 1000));
        let_others_poll();  // the time-out has been queued meanwhile
        EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 60000000));
    });
    run_in_handler();
    EXPECT_EQ(0, timeouts.load());
    run_in_handler([&] { m_handler->RemoveSock(m_sock); });
}

// The ICMP answers to what is sent to a peer that has gone wake the reader, which takes them away, but the peer is
// silent.
TEST_F(SockEvents, RefusalsAreNoSignOfLife) {
    CSockDgram sender, gone;
    ASSERT_TRUE(Support::MakeDgramPair(sender, gone));
    gone.Close();
    std::atomic<int> inputs{0}, timeouts{0};
    m_handler->on_input = [&](int) {
        char byte = 0;
        inputs.fetch_add(1);
        EXPECT_EQ(0, sender.Recv(&byte, 1, nullptr)) << "nothing is there, and nothing is broken";
        return 0;
    };
    m_handler->on_input_timeout = [&](int) { return timeouts.fetch_add(1); };
    EXPECT_EQ(0, m_handler->RegisterSock(sender, SOCK_EVENT_READ, 50000));
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_EQ(1, sender.Send("x", 1, nullptr));
        return timeouts.load() > 1;
    }));
    EXPECT_GT(inputs.load(), 0);
    run_in_handler([&] { m_handler->RemoveSock(sender); });
}

// A pool whose threads are all held up, so that none could poll, must not take its own delay for the peer's silence.
TEST_F(SockEvents, InputThatCameWhileNobodyCouldPollIsNoSilence) {
    constexpr int64_t TIMEOUT_US = 20000;
    std::atomic<bool> is_released{false};
    std::atomic<int> blocked{0}, inputs{0}, timeouts_before{-1}, timeouts{0};
    m_handler->on_input_timeout = [&](int) { return timeouts.fetch_add(1); };
    m_handler->on_input = [&](int) {
        timeouts_before.store(timeouts.load());
        return inputs.fetch_add(read_some(64));
    };
    std::atomic<int> closed{0};
    for (int i = 0; i < 2; ++i) {
        CTestHandler* blocker = CTestHandler::Make(&closed);
        blocker->on_message = [&, blocker](long, unsigned int, long) {
            blocked.fetch_add(1);
            WaitUntil([&] { return is_released.load(); });
            blocker->Close();
            return 0;
        };
        CReactor::Instance().Post(0, blocker->GetID(), 0, 0);
    }
    EXPECT_TRUE(WaitUntil([&] { return blocked.load() == 2; }));
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, TIMEOUT_US));
    m_peer.Send("x", 1);
    const uint64_t late = CEpollPoller::Now() + 2 * TIMEOUT_US;
    EXPECT_TRUE(WaitUntil([&] { return CEpollPoller::Now() > late; }));
    is_released.store(true);
    EXPECT_TRUE(WaitUntil([&] { return inputs.load() == 1 && closed.load() == 2; }));
    EXPECT_EQ(0, timeouts_before.load());
    run_in_handler([&] { m_handler->RemoveSock(m_sock); });
}

// A session reads the socket on which a sender waits to write: neither disturbs the other, nor the other's time-out.
TEST_F(SockEvents, TwoHandlersOnOneDescriptor) {
    std::atomic<int> closed{0}, inputs{0}, outputs{0}, timeouts{0};
    CTestHandler* writer = CTestHandler::Make(&closed);
    const int fd = m_sock.GetHandle();
    m_handler->on_input = [&](int) { return inputs.fetch_add(read_some(64)); };
    m_handler->on_output_timeout = [&](int) { return timeouts.fetch_add(1); };
    m_handler->on_output = writer->on_output = [&](int) { return outputs.fetch_add(1); };
    EXPECT_EQ(0, m_handler->RegisterSock(m_sock, SOCK_EVENT_READ, 2000));
    std::vector<char> block(65536);
    while (m_sock.Send(block.data(), 65536) > 0) {
    }
    CReactor& reactor = CReactor::Instance();
    EXPECT_EQ(0, reactor.RequestOutput(*writer, fd));
    EXPECT_EQ(0, reactor.RequestOutput(*m_handler, fd));
    m_peer.Send("x", 1);
    EXPECT_TRUE(WaitUntil([&] { return inputs.load() == 1; }));
    EXPECT_EQ(0, outputs.load());
    while (m_peer.Recv(block.data(), 65536) > 0) {
    }
    EXPECT_TRUE(WaitUntil([&] { return outputs.load() == 2; }));
    m_peer.Send("x", 1);
    EXPECT_TRUE(WaitUntil([&] { return inputs.load() == 2; }));
    EXPECT_EQ(2, outputs.load());  // once each, though the socket is still writable
    EXPECT_EQ(0, timeouts.load());
    // The end of one leaves the other's registration alone.
    EXPECT_EQ(0, writer->RegisterSock(m_sock, SOCK_EVENT_READ, 0));
    writer->Close();
    EXPECT_TRUE(WaitUntil([&] { return closed.load() == 1; }));
    m_peer.Send("x", 1);
    EXPECT_TRUE(WaitUntil([&] { return inputs.load() == 3; }));
    run_in_handler([&] { m_handler->RemoveSock(m_sock); });
}

TEST_F(SockEvents, ConnectEndsInOutputOrInOneException) {
    CSockAcceptor acceptor;
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    CSockAddrStorage address;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&address));
    for (const bool listens : {true, false}) {
        if (!listens) {
            acceptor.Close();
        }
        CSockStream client;
        std::atomic<int> outputs{0}, exceptions{0}, status{9};
        m_handler->on_output = [&](int) {
            m_handler->UnregisterSock(client, SOCK_EVENT_WRITE);
            status.store(client.GetConnectStatus());
            return outputs.fetch_add(1);
        };
        m_handler->on_exception = [&](int) {
            status.store(client.GetConnectStatus());
            return exceptions.fetch_add(1);  // leaves the socket: the error must not come back for ever
        };
        run_in_handler([&] {
            ASSERT_EQ(0, client.Connect(address, nullptr));
            EXPECT_EQ(0, m_handler->RegisterSock(client, SOCK_EVENT_WRITE | SOCK_EVENT_EXCEPTION, 5000000));
        });
        EXPECT_TRUE(WaitUntil([&] { return outputs.load() + exceptions.load() > 0; }));
        for (int i = 0; i < 10; ++i) {
            run_in_handler();
        }
        EXPECT_EQ(listens ? 1 : 0, outputs.load());
        EXPECT_EQ(listens ? 0 : 1, exceptions.load());
        EXPECT_EQ(listens ? 0 : -1, status.load());
        run_in_handler([&] { m_handler->RemoveSock(client); });
    }
}

// A receiver whose connection breaks tells its owner once, and neither then nor while it is stopped does the readable
// socket keep a thread spinning.
TEST_F(SockEvents, ReceiverReportsABrokenInputOnceAndRests) {
    class CReceiver : public CMediaStreamReceiver {
    public:
        explicit CReceiver(CSockStream& sock) : m_sock(sock) {}
        int handle_stream_input() override {
            char byte = 0;
            calls.fetch_add(1);
            return m_sock.Recv(&byte, 1);
        }
        int64_t handle_passive_input() override { return passive.fetch_add(1) < 2 ? 0 : -1; }
        int handle_input(int fd) override {
            events.fetch_add(1);
            return CMediaStreamReceiver::handle_input(fd);
        }
        int handle_close(CNetHandler*) override {
            delete this;
            return 0;
        }
        using CNetHandler::RegisterSock;
        std::atomic<int> calls{0}, passive{0}, events{0};

    private:
        CSockStream& m_sock;
    };
    const long alive = CReactor::Instance().CountHandlers();
    CReceiver* receiver = new CReceiver(m_sock);
    std::atomic<int> told{0};
    m_handler->on_message = [&](long sender_id, unsigned int msg, long) {
        EXPECT_EQ(receiver->GetID(), sender_id);
        EXPECT_EQ(2U, msg);
        return told.fetch_add(1);
    };
    receiver->WaitException(m_handler->GetID());
    receiver->StartReceive(1000, 1.0F);
    EXPECT_TRUE(WaitUntil([&] { return told.load() == 1; }));
    EXPECT_EQ(3, receiver->passive.load());
    m_peer.Send("ab", 2);
    EXPECT_EQ(0, receiver->RegisterSock(m_sock, SOCK_EVENT_READ, 0));
    EXPECT_TRUE(WaitUntil([&] { return receiver->events.load() == 1; }));
    EXPECT_EQ(0, receiver->calls.load());
    receiver->StartReceive(0, 1.0F);
    EXPECT_TRUE(WaitUntil([&] { return receiver->calls.load() == 2; }));
    m_peer.Close();
    EXPECT_TRUE(WaitUntil([&] { return told.load() == 2; }));
    EXPECT_EQ(3, receiver->calls.load());
    EXPECT_EQ(4, receiver->events.load());
    receiver->StartReceive(0, 1.0F);
    EXPECT_TRUE(WaitUntil([&] { return told.load() == 3; }));
    receiver->Close();
    EXPECT_TRUE(WaitUntil([&] { return CReactor::Instance().CountHandlers() == alive; }));
    EXPECT_EQ(3, told.load());
}

}  // namespace
}  // namespace Kavio::Tramel
