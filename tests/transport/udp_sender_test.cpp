#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>

#include "RtpUdpSender.h"
#include "UdpPortTable.h"
#include "UdpSockPair.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/SampleTable.h"
#include "support/StreamPeer.h"
#include "support/TestClock.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {
namespace {

using Support::CUdpPeer;
using Support::Interleaved;

const int TRACK_0 = 0x00000001;
const int TRACK_1 = 0x01000001;

int PutTo(CRtpUdpSender& sender, const std::string& bytes, int tag) {
    Support::CountedPacket packet(bytes);
    return sender.Put(&packet, packet.Size(), 1, tag);
}

class UdpSender : public testing::Test {
protected:
    void Open(int media_num, int min_port = 31000, int max_port = 31100) {
        const RtpPortRange range = {min_port, max_port};
        EXPECT_EQ(0, m_config.SetConfig(RTSP_SVR_CONFIG_RTP_PORT, &range, sizeof(range)));
        Prepare(m_sender, media_num);
        m_sender.SetRemote(CSockAddrStorage("127.0.0.1", 0));
    }
    // Another sender, over the same range.
    void Prepare(CRtpUdpSender& sender, int media_num) const {
        sender.SetConfig(&m_config);
        sender.Init(media_num);
    }
    // The own port of a new pair, or -1.
    static int OpenPair(CRtpUdpSender& sender, int remote_port, int channel) {
        int port = 0;
        return sender.OpenPair(&port, remote_port, channel) == 0 ? port : -1;
    }

    CRtspSvrConfig m_config;
    CRtpUdpSender m_sender;
};

TEST_F(UdpSender, FindsTheLowestFreePairWhoeverHoldsTheOthers) {
    Open(15, 31201, 31300);
    EXPECT_EQ(31202, OpenPair(m_sender, 4000, 0));  // an odd lower bound is rounded up

    auto foreign_rtcp = std::make_unique<CUdpPeer>(31205);  // another program has the upper port of the next pair
    ASSERT_TRUE(foreign_rtcp->Bound());
    CRtpUdpSender other;
    Prepare(other, 1);
    EXPECT_EQ(31206, OpenPair(other, 4000, 0));

    auto third = std::make_unique<CRtpUdpSender>();
    Prepare(*third, 2);
    EXPECT_EQ(31208, OpenPair(*third, 4000, 0));
    third.reset();  // gives its ports back
    EXPECT_EQ(31208, OpenPair(m_sender, 4000, 2));
    foreign_rtcp.reset();
    EXPECT_EQ(31204, OpenPair(m_sender, 4000, 4));

    // Ranges outside the port numbers, and one that ends with them.
    CUdpSockPair low, pair;
    int port = 0;
    EXPECT_EQ(-1, pair.OpenInRange(70000, 80000, 1, &port));
    low.OpenInRange(-5, -1, 1, &port);  // port 2, if this process may
    EXPECT_EQ(2, port);
    EXPECT_EQ(0, pair.OpenInRange(65533, 0x7fffffff, 1, &port));
    EXPECT_EQ(65534, port);
}

TEST_F(UdpSender, APairAtAFixedPortIsTakenEvenIfItCannotOpen) {
    CUdpPeer foreign(31600);
    ASSERT_TRUE(foreign.Bound());
    m_sender.Init(1);
    m_sender.SetRemote(CSockAddrStorage("239.1.2.3", 0));
    Support::CLogCapture log;
    EXPECT_EQ(0, m_sender.OpenPairAt(31600, 4000, 2));
    EXPECT_EQ(1, log.Count("channel: 2 set TTL Failed!"));  // the RTCP port of the pair is free
    EXPECT_EQ(0, log.Count("channel: 3 set TTL Failed!"));
    EXPECT_EQ(-1, m_sender.SendRaw("x", 1, 2));
    EXPECT_EQ(0, m_sender.OpenPairAt(31602, 4000, 2));
    EXPECT_EQ(1, log.Count("set TTL Failed!"));
    EXPECT_EQ(-1, m_sender.OpenPairAt(31602, 4000, 4));  // no room
}

TEST_F(UdpSender, RefusesWhenTheRangeIsTakenAndRecoversWhenAPortIsFreed) {
    Open(2, 31400, 31402);  // one pair
    auto foreign = std::make_unique<CUdpPeer>(31400);
    ASSERT_TRUE(foreign->Bound());
    {
        Support::CLogCapture log;
        EXPECT_EQ(-1, OpenPair(m_sender, 4000, 0));
        EXPECT_EQ(1, log.Count("min_local_port:31400 max_local_port:31402  error"));
    }
    foreign.reset();
    EXPECT_EQ(31400, OpenPair(m_sender, 4000, 0));
    EXPECT_EQ(-1, OpenPair(m_sender, 4000, 2));

    std::vector<std::unique_ptr<CUdpPeer>> others;
    for (int i = 0; i < 10; ++i) {
        others.push_back(std::make_unique<CUdpPeer>(31420 + 2 * i));
        ASSERT_TRUE(others.back()->Bound());
    }
    CUdpSockPair pair;
    int port = 0;
    EXPECT_EQ(-1, pair.OpenInRange(31420, 31440, 1, &port));
    EXPECT_EQ(31438, port);
    others[8].reset();
    EXPECT_EQ(0, pair.OpenInRange(31420, 31440, 1, &port));  // though it was just seen to be taken
    EXPECT_EQ(31436, port);
}

// With no descriptor left the search ends at once, and a track that is set up anew has its sockets.
TEST_F(UdpSender, DescriptorExhaustionTakesNoTracksSockets) {
    Open(1, 31500, 31598);
    CUdpPeer moved;
    const int port = OpenPair(m_sender, 4000, 0);
    rlimit former = {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &former));
    rlimit tight = former;
    tight.rlim_cur = 0;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
    const int kept = OpenPair(m_sender, moved.Port(), 0);
    CUdpSockPair pair;
    int tried = 0;
    const int result = pair.OpenInRange(port + 2, 31598, 1, &tried);
    setrlimit(RLIMIT_NOFILE, &former);
    EXPECT_EQ(port, kept);
    EXPECT_EQ(-1, result);
    EXPECT_EQ(port + 2, tried);
    PutTo(m_sender, Interleaved<std::string>(0, "moved"), TRACK_0);
    EXPECT_EQ("moved", moved.Recv());
    EXPECT_EQ(0, pair.OpenInRange(port + 2, 31598, 1, &tried));
}

TEST(UdpPortTable, PassesOverWhatOthersHaveForAShortTimeAndByFamily) {
    CUdpPortTable table;
    const auto reserve = [&table](int first, int limit, int family, uint64_t now_ms, int retries) {
        return table.Reserve(first, limit, family, now_ms, &retries);
    };
    for (int port = 5000; port < 5400; port += 2) {  // others have 200 pairs
        ASSERT_EQ(port, reserve(5000, 6000, 1, 1000, 0));
        table.ReleaseTaken(port, 1, 1000);
    }
    for (const auto& row : Support::ReadTable(VIDORA_TEST_DATA "/transport.txt", "port tables", 2)) {
        SCOPED_TRACE(row[0]);
        const std::vector<int> n = Support::Numbers(row[0]);
        const int port = reserve(n[0], n[1], n[2], static_cast<uint64_t>(n[3]), n[4]);
        EXPECT_EQ(row[1], std::to_string(port));
        if (port >= 0) {
            EXPECT_EQ(-1, reserve(port, port, n[2], static_cast<uint64_t>(n[3]), 1)) << "not held";
            table.Release(port);
        }
    }
}

TEST_F(UdpSender, SendsEachPacketOfAMergedFrameToItsTracksPort) {
    Open(2);
    CUdpPeer video, audio;
    ASSERT_LT(0, OpenPair(m_sender, video.Port(), 0));
    const int audio_port = OpenPair(m_sender, audio.Port(), 2);
    ASSERT_LT(0, audio_port);
    ASSERT_EQ(-1, OpenPair(m_sender, 4000, 4));  // no room

    const std::string frame = Interleaved(0, std::string(1400, 'a')) + Interleaved(0, std::string(1400, 'b')) +
                              Interleaved<std::string>(0, "end");
    EXPECT_EQ(static_cast<int>(frame.size()), PutTo(m_sender, frame, TRACK_0));
    EXPECT_EQ(std::string(1400, 'a'), video.Recv());
    EXPECT_EQ(std::string(1400, 'b'), video.Recv());
    EXPECT_EQ("end", video.Recv());
    EXPECT_EQ(17, PutTo(m_sender, Interleaved<std::string>(2, "audio packet!"), TRACK_1));
    int from = 0;
    EXPECT_EQ("audio packet!", audio.Recv(5000, &from));
    EXPECT_EQ(audio_port, from);

    // A channel that no socket has, packets that are cut, and no packet at all.
    EXPECT_EQ(-1, PutTo(m_sender, Interleaved<std::string>(9, "x"), TRACK_0));
    EXPECT_EQ(-1, PutTo(m_sender, std::string("$\0\0\x20short", 9), TRACK_0));
    EXPECT_EQ(-1, PutTo(m_sender, "$", TRACK_0));
    EXPECT_EQ(-1, m_sender.Put(nullptr, 10, 1, TRACK_0));
    m_sender.DisableTrack(0);
    EXPECT_EQ(0, PutTo(m_sender, frame, TRACK_0));
    const Support::CAssertCapture asserts;
    m_sender.DisableTrack(8);
    m_sender.Init(16);
    EXPECT_EQ((std::vector<std::string>{"channel <= 7 && channel >= 0", "media_num < 16"}), asserts.Texts());
}

// The packets of two tracks arrive, each in its order, while other threads switch them, pause them, open one anew and
// take the sender off and put it back.
TEST_F(UdpSender, IsSwitchedMovedAndRemovedWhileItsBufferSends) {
    const Support::CPool pool(2);
    Open(2, 31800, 31900);
    CUdpPeer video, audio;
    ASSERT_LT(0, OpenPair(m_sender, video.Port(), 0));
    ASSERT_LT(0, OpenPair(m_sender, audio.Port(), 2));
    std::vector<std::unique_ptr<CRtpUdpSender>> others;
    CMediaBuffer buffer;
    buffer.EnableAutoSend();
    buffer.AddLevel2Buffer(&m_sender);
    for (int i = 0; i < 20; ++i) {  // so that the pool sends
        others.push_back(std::make_unique<CRtpUdpSender>());
        Prepare(*others.back(), 1);
        buffer.AddLevel2Buffer(others.back().get());
    }
    const auto put = [&buffer](int track, unsigned int number) {
        const std::string bytes = Interleaved(2 * track, std::to_string(1000000 + number));
        auto* packet = new Support::CountedPacket(bytes);
        buffer.Put(packet, packet->Size(), 1, track == 0 && number % 8 == 0 ? TRACK_0 : track << 24 | 5);
    };
    const auto all_of = [](CUdpPeer& peer, const std::string& last) {
        std::string before;
        while (before.empty() || before != last) {
            const std::string next = peer.Recv(last.empty() ? 0 : 5000);
            if (next.empty()) {
                break;
            }
            EXPECT_LT(before, next);
            before = next;
        }
        return before;
    };
    unsigned int number = 0;
    for (int round = 0; round < 40; ++round) {
        std::thread source([&] {
            for (int i = 0; i < 50; ++i) {
                put(0, number);
                put(1, number++);
            }
        });
        Support::RunTogether(1, [&] {
            m_sender.PauseTrack(0);
            m_sender.DisableTrack(1);
            EXPECT_LT(0, OpenPair(m_sender, audio.Port(), 2));
            m_sender.EnableTrack(0);
            m_sender.EnableTrack(1);
            buffer.DelLevel2Buffer(&m_sender);
            EXPECT_LT(0, OpenPair(m_sender, video.Port(), 0));
            buffer.AddLevel2Buffer(&m_sender);
        });
        source.join();
        all_of(video, "");
        all_of(audio, "");
    }
    number = 2001;
    put(0, number - 1);  // a key frame
    put(1, number);
    EXPECT_EQ("1002000", all_of(video, "1002000"));
    EXPECT_EQ("1002001", all_of(audio, "1002001"));
    buffer.DelLevel2Buffer(&m_sender);
}

TEST_F(UdpSender, ReportsRepeatedFailuresOnceASecond) {
    Open(1);
    ASSERT_LT(0, OpenPair(m_sender, 4000, 0));
    Support::CLogCapture log;
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(-1, PutTo(m_sender, std::string("$\0\x10\0cut", 7), TRACK_0));
    }
    EXPECT_EQ(1, log.Count("udp send failed "));
}

}  // namespace
}  // namespace Kavio::Vidora
