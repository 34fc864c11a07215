// The parts of a client's conversation by themselves.

#include <gtest/gtest.h>

#include "RtspClient/ClientBackChannel.h"
#include "RtspClient/ClientConversation.h"
#include "RtspClient/ClientKeepAlive.h"
#include "RtspClient/ClientPorts.h"
#include "RtspClient/ClientReceive.h"
#include "RtspClient/ClientReports.h"
#include "StreamTcpReceiver.h"
#include "support/Loopback.h"
#include "support/TestHandler.h"

namespace Kavio::Vidora {
namespace {

uint32_t Word(const unsigned char* bytes) {
    return static_cast<uint32_t>(bytes[0]) << 24 | static_cast<uint32_t>(bytes[1]) << 16 |
           static_cast<uint32_t>(bytes[2]) << 8 | bytes[3];
}

TEST(ClientBackChannel, SendsAudioWithAClockOfItsOwn) {
    const Support::CBoundSocket device(SOCK_DGRAM);
    const CSockAddrStorage peer("127.0.0.1", 0);
    client_track track;
    track.transport.transport = RTP_OVER_UDP;
    ASSERT_EQ(0, OpenClientPorts(track, peer));
    EXPECT_EQ(0, track.transport.rtp_port % 2);
    track.transport.server_rtp_port = device.Port();
    CClientBackChannel back;
    back.Put("nobody");  // not open yet
    ASSERT_EQ(0, back.Open(track, peer));
    unsigned char packets[2][512];
    for (auto& packet : packets) {
        back.Put(std::string(160, 'a'));
        ASSERT_TRUE(Support::WaitUntil([&] { return ::recv(device.Fd(), packet, 512, MSG_DONTWAIT) == 172; }));
    }
    EXPECT_EQ(8, packets[0][1] & 0x7f);
    EXPECT_EQ(1, static_cast<uint16_t>((Word(packets[1]) & 0xffff) - (Word(packets[0]) & 0xffff)));
    EXPECT_EQ(160u, Word(packets[1] + 4) - Word(packets[0] + 4));
}

TEST(ClientReports, ByConformanceHoldTheWholeBlockOfTheMedia) {
    reception_stats_t stats;
    stats.have_seq = 1;
    stats.ssrc = 0x11223344;
    stats.last_seq = 7;
    stats.highest_seq = 0x10007;
    stats.lost = 3;
    stats.lost_total = 5;
    stats.fraction = 9;
    stats.cumulative_lost = -2;
    stats.jitter = 77;
    stats.last_sr = 88;
    stats.delay_last_sr = 99;
    for (const bool conformance : {false, true}) {
        CClientReports reports;
        reports.SetConformance(conformance);
        ASSERT_EQ(0, reports.Add(3, stats.ssrc));
        EXPECT_EQ(-1, reports.Add(32, 0));
        unsigned char packet[512];
        unsigned int length = sizeof(packet);
        ASSERT_NE(nullptr, reports.Write(3, stats, packet, &length));
        EXPECT_EQ(0x81c90007, Word(packet));  // one block
        EXPECT_NE(stats.ssrc, Word(packet + 4));
        EXPECT_EQ(conformance ? stats.ssrc : Word(packet + 4), Word(packet + 8));
        EXPECT_EQ(conformance ? 0x09fffffeu : 0x03000005u, Word(packet + 12));
        EXPECT_EQ(conformance ? 0x10007u : 7u, Word(packet + 16));
        EXPECT_EQ(conformance ? 77u : 0u, Word(packet + 20));
        EXPECT_EQ(conformance ? 99u : 0u, Word(packet + 28));
    }
}

TEST(ClientKeepAlive, KeepsWithinTheServersTimeoutAndGivesUpWhatIsRefused) {
    const auto due = [](CClientKeepAlive& clock, int ticks) {
        int count = 0;
        for (int i = 0; i < ticks; ++i) {
            clock.Tick();
            count += clock.IsDue() ? 1 : 0;
        }
        return count;
    };
    CClientKeepAlive usual;
    EXPECT_EQ(2, due(usual, 60));
    CClientKeepAlive hurried;
    hurried.SetServerTimeout(10);
    EXPECT_EQ(12, due(hurried, 60));
    CClientKeepAlive off;
    off.SetMethod(RTSP_METHOD_PAUSE);
    EXPECT_EQ(0, due(off, 60));
    usual.Offer(RTSP_METHOD_GET_PARAMETER);
    EXPECT_EQ(RTSP_METHOD_GET_PARAMETER, usual.Method());
    usual.Refuse();
    usual.Offer(RTSP_METHOD_GET_PARAMETER);
    EXPECT_EQ(RTSP_METHOD_OPTIONS, usual.Method());
}

// A handler whose work the test does, and whom its receiver tells its end.
class CIdleStrand final : public CClientHandler {
public:
    explicit CIdleStrand(std::atomic<int>& ended) : m_ended(ended) {}
    int handle_message(long, unsigned int msg, long) override {
        m_ended += msg == MSG_SOURCE_CLOSED ? 1 : 0;
        return 0;
    }
    int handle_close(CNetHandler*) override {
        std::atomic<int>& ended = m_ended;
        delete this;
        ++ended;
        return 0;
    }

private:
    std::atomic<int>& m_ended;
};

struct CCountingUser final : IReceiveUser {
    void OnReceivedReply(const std::string&) override { ++replies; }
    void OnReceivedBye(const rtcp_digest_t&, int) override { ++byes; }
    void OnReplyFlood() override { ++floods; }

    int replies = 0;
    int byes = 0;
    int floods = 0;
};

// While its strand has no turn, as on a machine with much to do.
TEST(ClientReceive, KeepsARoomForTheReplyToEachRequestHoweverManyByesCome) {
    const Support::CPool pool;
    std::atomic<int> ended{0};
    CIdleStrand* strand = new CIdleStrand(ended);
    CCountingUser user;
    CClientReceive receive(*strand, CClientConversation::MSG_REPLIES, user);
    int fds[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds));
    const auto sock = std::make_shared<CSockStream>();
    ASSERT_EQ(0, sock->Attach(fds[0]));
    CStreamTcpReceiver* receiver = CStreamTcpReceiver::Create(sock, strand->GetID(), RECEIVER_PROTOCOL_RTP);
    receiver_tracks_t tracks;
    tracks.count = 1;
    ASSERT_EQ(0, receive.Begin(receiver, tracks, PACKET_TYPE_RTP, ""));
    const std::string bye("$\x01\0\x10\x80\xc9\0\x01\0\0\0\x05\x81\xcb\0\x01\0\0\0\x05", 20);
    const auto reply = [](size_t body) {
        return "RTSP/1.0 200 OK\r\nCSeq: 1\r\nContent-Length: " + std::to_string(body) + "\r\n\r\n" +
               std::string(body, 'x');
    };
    std::string bytes;
    for (unsigned int i = 0; i < CLIENT_MAX_REQUESTS; ++i) {
        bytes += bye + reply(i < CLIENT_MAX_PENDING ? 4000 : 400);
    }
    bytes += std::string("$\0\0\x0d\x80\xe0", 6) + std::string(11, '\1');
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t count = ::send(fds[1], bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        ASSERT_GT(count, 0);
        sent += static_cast<size_t>(count);
    }
    ASSERT_TRUE(Support::WaitUntil([&] { return receiver->GetLife().units == 1; }));
    receive.RunWork();
    EXPECT_EQ(static_cast<int>(CLIENT_MAX_REQUESTS), user.replies);
    EXPECT_EQ(32, user.byes);
    EXPECT_EQ(0, user.floods);
    receive.End();
    EXPECT_TRUE(Support::WaitUntil([&] { return ended == 1; }));
    strand->EndHandler();
    EXPECT_TRUE(Support::WaitUntil([&] { return ended == 2; }));
    ::close(fds[1]);
}

}  // namespace
}  // namespace Kavio::Vidora
