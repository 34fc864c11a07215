#include <gtest/gtest.h>

#include "Tramel/MediaCounters.h"
#include "Tramel/SockDgram.h"
#include "support/Interleave.h"
#include "support/TestHandler.h"

using namespace Kavio::Tramel;
using Kavio::Support::WaitUntil;

namespace {

typedef std::vector<std::string> Datagrams;

std::string Payload(size_t number, size_t size) {
    std::string bytes(size, static_cast<char>('a' + number % 26));
    if (size >= 2) {
        bytes[0] = static_cast<char>(number >> 8);
        bytes[1] = static_cast<char>(number & 0xff);
    }
    return bytes;
}

Datagrams Make(const std::vector<std::pair<size_t, size_t>>& runs) {
    Datagrams packets;
    for (const auto& run : runs) {
        for (size_t i = 0; i < run.first; ++i) {
            packets.push_back(Payload(packets.size(), run.second));
        }
    }
    return packets;
}

std::string Merge(const Datagrams& packets) {
    std::string merged;
    for (const std::string& packet : packets) {
        merged += Kavio::Support::Interleaved(0, packet);
    }
    return merged;
}

class DgramBatchTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(Kavio::Support::MakeDgramPair(m_sender, m_receiver)); }

    Datagrams Receive(size_t count) {
        Datagrams packets;
        std::vector<unsigned char> room(4 * 65536);
        WaitUntil(
            [&] {
                DgramSlice slices[4];
                for (int i = 0; i < 4; ++i) {
                    slices[i] = {&room[static_cast<size_t>(i) * 65536], 65536};
                }
                unsigned int segments[4] = {65536, 65536, 65536, 65536};
                const int received = m_receiver.RecvBatch(slices, 4, nullptr, m_joined ? segments : nullptr);
                for (int i = 0; i < received; ++i) {
                    const std::string joined(reinterpret_cast<char*>(slices[i].data), slices[i].length);
                    size_t done = 0;
                    do {
                        packets.push_back(joined.substr(done, segments[i]));
                        done += segments[i];
                    } while (done < joined.size());
                    ++m_reads;
                }
                return packets.size() >= count && received == 0;
            },
            2000);
        return packets;
    }

    // What `send` sends has to arrive. It is sent anew when some is lost, as happens while others flood the loopback.
    template <typename Send>
    void ExpectArrival(const Datagrams& packets, Send send) {
        const size_t reads = m_reads;
        Datagrams received;
        for (int attempt = 0; attempt < 10 && received != packets; ++attempt) {
            m_reads = reads;
            EXPECT_EQ(static_cast<int>(packets.size()), send());
            received = Receive(packets.size());
        }
        EXPECT_EQ(packets, received);
    }

    void SendAndCompare(const Datagrams& packets) {
        const std::string merged = Merge(packets);
        const CMediaCounters& counters = CMediaCounters::Instance();
        ExpectArrival(packets, [&] {
            const uint64_t packets_before = counters.Packets();
            const uint64_t bytes_before = counters.Bytes();
            const int sent = m_sender.SendMerged(reinterpret_cast<const unsigned char*>(merged.data()),
                                                 static_cast<unsigned int>(merged.size()));
            EXPECT_EQ(packets.size(), counters.Packets() - packets_before);
            EXPECT_EQ(merged.size() - 4 * packets.size(), counters.Bytes() - bytes_before);
            return sent;
        });
        std::vector<DgramSlice> slices;
        for (const std::string& packet : packets) {
            slices.push_back({reinterpret_cast<unsigned char*>(const_cast<char*>(packet.data())),
                              static_cast<unsigned int>(packet.size())});
        }
        ExpectArrival(packets,
                      [&] { return m_sender.SendBatch(slices.data(), static_cast<unsigned int>(slices.size())); });
    }

    CSockDgram m_receiver, m_sender;
    bool m_joined = false;  // the system may join what is received
    size_t m_reads = 0;
};

const std::vector<std::pair<size_t, size_t>> SHAPES[] = {
    {{1, 100}},
    {{6, 1448}, {1, 1200}},                              // a merged frame
    {{3, 500}, {4, 700}, {2, 10}},                       // sizes grow, then shrink twice
    {{130, 200}},                                        // more than 64 segments
    {{60, 1400}},                                        // more than one message's bytes
    {{300, 40}, {1, 39}},                                // more than one system call's parts
    {{2, 300}, {1, 0}, {2, 300}},                        // an empty datagram stands alone
    {{2, 30000}, {1, 65507}, {1, 1}, {70, 8}, {1, 9}}};  // the largest datagram

}  // namespace

TEST_F(DgramBatchTest, EveryShapeOfRunArrivesPacketByPacket) {
    for (const auto& shape : SHAPES) {
        SCOPED_TRACE(shape.size());
        SendAndCompare(Make(shape));
    }
}

TEST_F(DgramBatchTest, EveryShapeIsTakenApartAgainWhereTheSystemJoinsIt) {
    if (m_receiver.JoinReceived() != 0) {
        GTEST_SKIP() << "the system can't";
    }
    m_joined = true;
    size_t packets = 0;
    const int on = 1;
    for (const int option : {0, SO_TIMESTAMP, SO_TIMESTAMPNS}) {  // a host's own socket may bring more than we ask for
        ASSERT_TRUE(option == 0 || ::setsockopt(m_receiver.GetHandle(), SOL_SOCKET, option, &on, sizeof(on)) == 0);
        for (const auto& shape : SHAPES) {
            SCOPED_TRACE(shape.size());
            SendAndCompare(Make(shape));
            packets += 2 * Make(shape).size();
        }
    }
    EXPECT_LT(m_reads, packets / 2);
}

TEST_F(DgramBatchTest, RefusedOffloadFallsBack) {
    const int on = 1;
    ASSERT_EQ(0, ::setsockopt(m_sender.GetHandle(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof(on)));
    SendAndCompare(Make({{6, 1448}, {1, 1200}}));
    SendAndCompare(Make({{100, 300}, {3, 200}}));
    EXPECT_GT(300u, m_sender.MaxSegment());
    CSockAddrStorage to;
    EXPECT_EQ(0, m_receiver.GetLocalAddr(&to) + m_sender.SetRemote(&to));
    EXPECT_LT(300u, m_sender.MaxSegment()) << "another way is tried anew";
}

TEST_F(DgramBatchTest, CutRunsSendWhatIsWholeAndFail) {
    const Datagrams packets = Make({{3, 100}});
    const std::string merged = Merge(packets);
    const unsigned char* data = reinterpret_cast<const unsigned char*>(merged.data());
    for (unsigned int length = 0; length <= merged.size(); ++length) {
        const size_t whole = length / 104;
        EXPECT_EQ(length % 104 == 0 ? static_cast<int>(whole) : -1, m_sender.SendMerged(data, length)) << length;
        EXPECT_EQ(Datagrams(packets.begin(), packets.begin() + static_cast<std::ptrdiff_t>(whole)), Receive(whole));
    }
}

TEST_F(DgramBatchTest, FailuresAndPeersThatHaveGone) {
    CSockDgram closed;
    const std::string merged = Merge(Make({{2, 100}}));
    const unsigned char* data = reinterpret_cast<const unsigned char*>(merged.data());
    EXPECT_EQ(-1, closed.SendMerged(data, 208));
    EXPECT_EQ(-1, m_sender.SendMerged(nullptr, 208));
    // The ICMP answers of a closed port don't cost the packets that follow them.
    m_receiver.Close();
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(2, m_sender.SendMerged(data, 208)) << i;
    }
    // A datagram that no datagram can be.
    std::vector<unsigned char> huge(65508 + 4, 0);
    huge[2] = 0xff;
    huge[3] = 0xe4;
    EXPECT_EQ(-1, m_sender.SendMerged(huge.data(), static_cast<unsigned int>(huge.size())));
    DgramSlice slice = {huge.data(), 10};
    EXPECT_EQ(0, m_sender.RecvBatch(&slice, 1));
}
