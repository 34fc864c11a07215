#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>

#include <thread>

#include "support/Loopback.h"
#include "support/TestHandler.h"

namespace Kavio {
namespace Tramel {

namespace {

int option_of(const CSock& sock, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    getsockopt(sock.GetHandle(), level, name, &value, &length);
    return value;
}

// Switches the loopback interface of this thread's network on or off. False without the right to.
bool switch_loopback(bool on) {
    const Support::CBoundSocket any(SOCK_DGRAM);
    ifreq request = {};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = on ? IFF_UP : 0;
    return ioctl(any.Fd(), SIOCSIFFLAGS, &request) == 0;
}

struct TcpPair {
    CSockStream one, other;

    TcpPair() {
        const Support::CBoundSocket listener(SOCK_STREAM);
        listen(listener.Fd(), 1);
        const CSockAddrIPv4 to("127.0.0.1", static_cast<unsigned short>(listener.Port()));
        EXPECT_EQ(0, one.Connect(to, nullptr));
        EXPECT_EQ(0, other.Attach(accept4(listener.Fd(), nullptr, nullptr, SOCK_CLOEXEC)));
    }
};

TEST(PeerWatch, SetsTheSystemsOptions) {
    TcpPair pair;
    const struct {
        unsigned int seconds;
        bool acknowledged;
        int user_ms, idle, interval;
    } rows[] = {
        {60, true, 60000, 30, 10}, {60, false, 0, 30, 10}, {0, true, 1000, 1, 1}, {9999, true, 3600000, 1800, 600}};
    for (const auto& row : rows) {
        EXPECT_EQ(0, pair.one.WatchPeer(row.seconds, row.acknowledged));
        EXPECT_EQ(1, option_of(pair.one, SOL_SOCKET, SO_KEEPALIVE));
        EXPECT_EQ(row.user_ms, option_of(pair.one, IPPROTO_TCP, TCP_USER_TIMEOUT));
        EXPECT_EQ(row.idle, option_of(pair.one, IPPROTO_TCP, TCP_KEEPIDLE));
        EXPECT_EQ(row.interval, option_of(pair.one, IPPROTO_TCP, TCP_KEEPINTVL));
        EXPECT_EQ(3, option_of(pair.one, IPPROTO_TCP, TCP_KEEPCNT));
    }
    CSockStream closed;
    EXPECT_EQ(-1, closed.WatchPeer(60, true));
}

// In a network of the thread's own, whose only link goes down while nothing is under way, and while bytes are.
TEST(PeerWatch, APeerWhoseLinkHasGoneBreaksTheConnection) {
    bool skipped = false;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) != 0 || !switch_loopback(true)) {
            skipped = true;
            return;
        }
        TcpPair quiet, sending;
        for (CSockStream* sock : {&quiet.one, &sending.one}) {
            EXPECT_EQ(0, sock->WatchPeer(2, true));
        }
        ASSERT_TRUE(switch_loopback(false));
        sending.one.Send("x", 1);
        char byte = 0;
        EXPECT_TRUE(Support::WaitUntil([&] { return quiet.one.Recv(&byte, 1) < 0; }));
        EXPECT_TRUE(Support::WaitUntil([&] { return sending.one.Recv(&byte, 1) < 0; }));
    }).join();
    if (skipped) {
        GTEST_SKIP() << "needs the right to make a network namespace";
    }
}

}  // namespace
}  // namespace Tramel
}  // namespace Kavio
