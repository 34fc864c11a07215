#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>

#include "Tramel/SockAcceptor.h"
#include "Tramel/SockDgram.h"
#include "Tramel/SockStream.h"
#include "support/SampleTable.h"
#include "support/StreamPeer.h"

namespace Kavio::Tramel {
namespace {

using Support::WaitUntil;

template <typename Address>
std::string text_of(const Address& addr) {
    char text[64];
    return addr.GetIpStr(text, sizeof(text));
}

TEST(SockAddr, TextsOfAllForms) {
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/base.txt", "socket addresses", 5)) {
        SCOPED_TRACE(row[0]);
        CSockAddrStorage addr(row[0].c_str(), 554);
        EXPECT_EQ(row[1], addr.IsValid() ? text_of(addr) : "invalid");
        EXPECT_EQ(row[2], std::to_string(addr.GetType()));
        EXPECT_EQ(row[3], std::to_string(addr.GetRealType()));
        EXPECT_EQ(row[4], addr.IsMulticast() ? "group" : "");
        if (addr.IsValid()) {
            EXPECT_EQ(554, addr.GetPort());
            CSockAddrStorage copy;
            EXPECT_EQ(0, copy.SetSockAddr(addr.Native(), static_cast<unsigned int>(addr.GetAddrLen())));
            EXPECT_TRUE(copy == addr);
            EXPECT_EQ(-1, CSockAddrStorage().SetSockAddr(addr.Native(), 8));
            copy.SetPort(555);
            EXPECT_TRUE(copy != addr);
            EXPECT_EQ(0, copy.SetIp("10.1.1.1"));
            EXPECT_EQ(555, copy.GetPort());
        }
    }
    EXPECT_EQ("::", text_of(CSockAddrStorage(nullptr, 554)));
    CSockAddrStorage named("localhost", 80);
    EXPECT_TRUE(text_of(named) == "127.0.0.1" || text_of(named) == "::1");
}

TEST(SockAddr, ClassesOfOneFamily) {
    EXPECT_EQ("10.0.0.1", text_of(CSockAddrIPv4("::ffff:10.0.0.1", 1)));
    EXPECT_EQ("0.0.0.0", text_of(CSockAddrIPv4(nullptr, 1)));
    char text[8];
    EXPECT_STREQ("", CSockAddrIPv4("10.0.0.1", 1).GetIpStr(text, sizeof(text)));
    for (const char* bad : {"::1", "256.0.0.1"}) {
        EXPECT_FALSE(CSockAddrIPv4(bad, 1).IsValid()) << bad;
    }
    EXPECT_EQ(0, CSockAddrIPv4().GetAddrLen());
    EXPECT_EQ("::1", text_of(CSockAddrIPv6("[0:0::1]", 1)));
    EXPECT_FALSE(CSockAddrIPv6("10.0.0.1", 1).IsValid());
    const CSockAddrStorage plain("10.0.0.1", 7);
    EXPECT_EQ(2, plain.ForFamily(SOCK_ADDR_IPV6).GetType());
    EXPECT_TRUE(plain.ForFamily(SOCK_ADDR_IPV6).ForFamily(SOCK_ADDR_IPV4) == plain);
    EXPECT_EQ(2, CSockAddrStorage("::1", 7).ForFamily(SOCK_ADDR_IPV4).GetType());
}

TEST(SockStream, ZeroMeansNothingThereAndMinusOneTheEnd) {
    CSockStream one, other;
    ASSERT_TRUE(Support::MakeSockPair(one, other));
    EXPECT_NE(0, fcntl(one.GetHandle(), F_GETFL) & O_NONBLOCK);
    EXPECT_NE(0, fcntl(one.GetHandle(), F_GETFD) & FD_CLOEXEC);
    char bytes[16];
    EXPECT_EQ(0, one.Recv(bytes, sizeof(bytes)));
    EXPECT_EQ(3, other.Send("abc", 3));
    EXPECT_EQ(0, one.Recv(bytes, 0));
    EXPECT_EQ(3, one.Recv(bytes, sizeof(bytes)));
    std::vector<char> block(1 << 20);
    while (one.Send(block.data(), 1 << 20) > 0) {
    }
    EXPECT_EQ(0, one.Send("x", 1));  // full
    other.Close();
    EXPECT_EQ(-1, one.Recv(bytes, sizeof(bytes)));
    EXPECT_EQ(-1, one.Send("x", 1));  // no SIGPIPE
    EXPECT_EQ(-1, other.Recv(bytes, sizeof(bytes)));
    EXPECT_EQ(-1, other.Attach(-1) & other.Attach(1 << 20) & other.Close());
}

TEST(SockStream, ConnectsToADualStackListener) {
    CSockAcceptor acceptor;
    ASSERT_EQ(0, acceptor.Open(CSockAddrStorage("", 0)));
    CSockAddrStorage at;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&at));
    for (const char* ip : {"127.0.0.1", "::1", "::ffff:127.0.0.1"}) {
        SCOPED_TRACE(ip);
        CSockStream client, server;
        ASSERT_EQ(0, client.Connect(CSockAddrStorage(ip, at.GetPort()), nullptr));
        EXPECT_TRUE(WaitUntil([&] { return client.GetConnectStatus() == 0; }));
        CSockAddrStorage peer;
        EXPECT_TRUE(WaitUntil([&] { return acceptor.Accept(server, &peer) == 0; }));
        EXPECT_STREQ(ip[0] == ':' && ip[2] == '1' ? "::1" : "127.0.0.1", text_of(peer).c_str());
        CSockAddrStorage remote;
        EXPECT_EQ(0, server.GetRemoteAddr(&remote));
        EXPECT_TRUE(remote == peer);
        EXPECT_EQ(0, server.SetSockSendBuf(204800));
        EXPECT_EQ(-1, acceptor.Accept(server, nullptr));  // none waits
    }
    CSockAcceptor second;
    EXPECT_EQ(-1, second.Open(at));
    EXPECT_EQ(EADDRINUSE, errno);
    EXPECT_FALSE(second.IsValid());
    CSockStream none;
    EXPECT_EQ(-1, none.Connect(CSockAddrStorage(), nullptr));
}

// With no descriptor left the listener hangs up on who waits, so that it doesn't stay readable, and recovers.
TEST(SockAcceptor, DescriptorExhaustionEmptiesTheBacklog) {
    rlimit former = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
    CSockAcceptor acceptor;
    ASSERT_EQ(0, acceptor.Open(CSockAddrIPv4("127.0.0.1", 0)));
    CSockAddrStorage at;
    ASSERT_EQ(0, acceptor.GetLocalAddr(&at));
    CSockStream clients[3], server;
    for (CSockStream& client : clients) {
        ASSERT_EQ(0, client.Connect(at, nullptr));
        ASSERT_TRUE(WaitUntil([&] { return client.GetConnectStatus() == 0; }));
    }
    rlimit tight = former;
    // No number at all, also not the spare one, which is lost then: the listener waits a little, and has it again after
    // the first connection that it can take.
    tight.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(-1, acceptor.Accept(server, nullptr));
    }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(25)) << "it must not spin";
    setrlimit(RLIMIT_NOFILE, &former);
    CSockStream served, taken;
    ASSERT_EQ(0, served.Connect(at, nullptr));
    EXPECT_EQ(0, acceptor.Accept(taken, nullptr));
    // Every new number is above the limit; the spare one alone stays usable below it.
    const int lowest_free = dup(0);
    close(lowest_free);
    tight.rlim_cur = static_cast<rlim_t>(lowest_free);
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(-1, acceptor.Accept(server, nullptr));
        EXPECT_EQ(EMFILE, errno);
    }
    EXPECT_EQ(-1, acceptor.Accept(server, nullptr));
    const int last_error = errno;
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_TRUE(last_error == EAGAIN || last_error == EMFILE);
    char byte = 0;
    taken.Close();  // whose client came first
    for (CSockStream& client : clients) {
        EXPECT_TRUE(WaitUntil([&] { return client.Recv(&byte, 1) == -1; }));
    }
    ASSERT_EQ(0, clients[0].Connect(at, nullptr));
    EXPECT_TRUE(WaitUntil([&] { return acceptor.Accept(server, nullptr) == 0; }));
}

TEST(SockDgram, SendsToEitherFormOfAnAddress) {
    static const struct {
        const char* local;
        const char* remote;
    } ROWS[] = {{"127.0.0.1", "127.0.0.1"}, {"0.0.0.0", "::ffff:127.0.0.1"}, {"::", "127.0.0.1"}, {"::", "::1"}};
    for (const auto& row : ROWS) {
        SCOPED_TRACE(std::string(row.local) + " to " + row.remote);
        CSockDgram sender, receiver;
        const CSockAddrStorage any(row.local, 0);
        ASSERT_EQ(0, sender.Open(&any));
        ASSERT_EQ(0, receiver.Open(&any));
        CSockAddrStorage to, from, own;
        ASSERT_EQ(0, receiver.GetLocalAddr(&to));
        ASSERT_EQ(0, sender.GetLocalAddr(&own));
        to.SetIp(row.remote);
        char bytes[16];
        EXPECT_EQ(0, receiver.Recv(bytes, sizeof(bytes), &from));
        EXPECT_EQ(3, sender.Send("abc", 3, &to));
        EXPECT_EQ(0, sender.SetRemote(&to));
        EXPECT_EQ(2, sender.Send("de", 2, nullptr));
        EXPECT_EQ(3, receiver.Recv(bytes, sizeof(bytes), &from));
        EXPECT_EQ(own.GetPort(), from.GetPort());
        EXPECT_EQ(2, receiver.Recv(bytes, sizeof(bytes), nullptr));
        EXPECT_EQ(0, sender.SetMulticastTTL(5));
    }
    CSockDgram unbound;
    ASSERT_EQ(0, unbound.Open(nullptr));
    EXPECT_EQ(-1, unbound.Send("x", 1, nullptr));
    const CSockAddrStorage invalid;
    EXPECT_EQ(-1, unbound.Send("x", 1, &invalid));
    EXPECT_EQ(-1, unbound.Open(&invalid));
}

TEST(SockDgram, JoinsTheGroupItIsOpenedOn) {
    const CSockAddrIPv4 group("239.255.77.77", 0);
    CSockDgram receivers[2], sender;
    ASSERT_EQ(0, receivers[0].Open(&group));
    CSockAddrStorage at;
    ASSERT_EQ(0, receivers[0].GetLocalAddr(&at));
    ASSERT_EQ(0, receivers[1].Open(&at));  // the same port again
    int size = 0;
    socklen_t length = sizeof(size);
    ASSERT_EQ(0, getsockopt(receivers[0].GetHandle(), SOL_SOCKET, SO_RCVBUF, &size, &length));
    EXPECT_GE(size, 200000);  // 1 MiB, or what the system allows without the privilege
    ASSERT_EQ(0, sender.Open(nullptr));
    EXPECT_EQ(0, sender.SetMulticastIF("127.0.0.1"));
    EXPECT_EQ(-1, sender.SetMulticastIF("not an address"));
    EXPECT_EQ(-1, sender.SetMulticastIF(nullptr));
    EXPECT_EQ(0, sender.SetMulticastTTL(1));
    char byte = 0;
    for (CSockDgram& receiver : receivers) {
        EXPECT_EQ(0, receiver.SetMulticastIF("127.0.0.1"));
    }
    EXPECT_EQ(1, sender.Send("x", 1, &at));
    for (CSockDgram& receiver : receivers) {
        EXPECT_TRUE(WaitUntil([&] { return receiver.Recv(&byte, 1, nullptr) == 1; }, 2000));
    }
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

// In a network of the thread's own, whose only link goes down while nothing is under way, and while bytes are.
TEST(PeerWatch, APeerWhoseLinkHasGoneBreaksTheConnection) {
    bool skipped = false;
    std::thread([&] {
        if (unshare(CLONE_NEWNET) != 0 || !switch_loopback(true)) {
            skipped = true;
            return;
        }
        Support::TcpPair pairs[2];
        CSockStream quiet, sending;
        quiet.Attach(pairs[0].near_fd);
        sending.Attach(pairs[1].near_fd);
        EXPECT_EQ(0, quiet.WatchPeer(1, true) + sending.WatchPeer(1, true));
        ASSERT_TRUE(switch_loopback(false));
        sending.Send("x", 1);
        char byte = 0;
        EXPECT_TRUE(WaitUntil([&] { return quiet.Recv(&byte, 1) < 0; }));
        EXPECT_TRUE(WaitUntil([&] { return sending.Recv(&byte, 1) < 0; }));
    }).join();
    if (skipped) {
        GTEST_SKIP() << "needs the right to make a network namespace";
    }
}

}  // namespace
}  // namespace Kavio::Tramel
