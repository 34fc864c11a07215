// The receivers over real sockets, with the pool, and what they count.

#include <gtest/gtest.h>

#include "ReceptionStats.h"
#include "StreamTcpReceiver.h"
#include "StreamUdpReceiver.h"
#include "support/CollectingSink.h"
#include "support/Interleave.h"
#include "support/SampleTable.h"
#include "support/TestHandler.h"
#include "support/UdpPeer.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;

namespace {

const int TAG_KEY = 1;
const int TAG_OTHER = 5;
const Bytes KEY_SLICE = {0x65, 0x88, 0x80};
const Bytes OTHER_SLICE = {0x41, 0x9a, 0x80};

// What a receiver's procedures were given.
class CProcs {
public:
    void OnRtcp(const rtcp_digest_t&, int channel) { m_kinds.Add("rtcp" + std::to_string(channel)); }
    void OnRtsp(const char* text, int length) {
        EXPECT_EQ(text[length], 0);
        m_kinds.Add("rtsp");
    }
    int Count(const std::string& kind) const {
        return m_kinds.CountIf([&](const std::string& each) { return each.compare(0, kind.size(), kind) == 0; });
    }

private:
    CGuardedList<std::string> m_kinds;
};

// A receiver's owner, with the buffer that the receiver feeds.
class CReceiverTest : public ::testing::Test {
protected:
    CReceiverTest() {
        m_buffer.AddLevel2Buffer(&m_sink);
        m_owner = CTestHandler::Make();
        m_owner->on_message = [this](long, unsigned int msg, long) {
            (msg == 1 ? m_closed : m_failed).fetch_add(1);
            return 0;
        };
        for (int i = 0; i < RECEIVER_MAX_TRACKS; ++i) {
            m_tracks.tracks[i].rtp_channel = static_cast<uint8_t>(2 * i);
            m_tracks.tracks[i].rtcp_channel = static_cast<uint8_t>(2 * i + 1);
            m_tracks.tracks[i].payload_type = static_cast<int16_t>(i < 3 ? 96 + i : -1);
        }
        m_tracks.count = 3;
        m_tracks.tracks[0].enc_type = ENC_TYPE_H264;
    }
    ~CReceiverTest() override {
        m_buffer.DelLevel2Buffer(&m_sink);
        if (m_receiver != nullptr) {
            m_receiver->Close();
            EXPECT_TRUE(WaitUntil([this] { return m_closed.load() == 1; }));
        }
        m_owner->Close();
    }

    void Prepare(CStreamReceiver* receiver) {
        m_receiver = receiver;
        ASSERT_NE(receiver, nullptr);
        ASSERT_EQ(receiver->SetTracks(m_tracks), 0);
        receiver->SetMediaBuffer(&m_buffer);
        receiver->SetProcs({&m_procs, &CProcs::OnRtcp}, {&m_procs, &CProcs::OnRtsp});
    }
    CStreamTcpReceiver* MakeTcp(int protocol) {
        m_sock = std::make_shared<CSockStream>();
        EXPECT_TRUE(MakeSockPair(m_peer, *m_sock));
        CStreamTcpReceiver* receiver = CStreamTcpReceiver::Create(m_sock, m_owner->GetID(), protocol);
        Prepare(receiver);
        return receiver;
    }
    CStreamTcpReceiver* StartTcp(int protocol) {
        CStreamTcpReceiver* receiver = MakeTcp(protocol);
        EXPECT_EQ(receiver->Start(0, 1.0F), 0);
        return receiver;
    }
    void Send(const Bytes& bytes) {
        const unsigned int length = static_cast<unsigned int>(bytes.size());
        EXPECT_EQ(m_peer.Send(reinterpret_cast<const char*>(bytes.data()), length), static_cast<int>(length));
    }
    bool WaitForPuts(size_t count) {
        return WaitUntil([this, count] { return m_sink.Count() >= count; });
    }

    static Bytes Rtp(uint16_t seq, bool marker, const Bytes& payload, uint8_t type = 96) {
        return MakeRtp({seq, 3600, marker, type}, payload);
    }

    CPool m_pool;
    std::atomic<int> m_closed{0};
    std::atomic<int> m_failed{0};
    CTestHandler* m_owner;
    CProcs m_procs;
    CCollectingSink m_sink;
    CMediaBuffer m_buffer;
    receiver_tracks_t m_tracks;
    CSockStream m_peer;
    std::shared_ptr<CSockStream> m_sock;
    CStreamReceiver* m_receiver = nullptr;
};

const std::string REPLY = "RTSP/1.0 200 OK\r\n\r\n";

}  // namespace

TEST_F(CReceiverTest, TcpHandlesTheFormerReadersBytesWithoutFurtherOnes) {
    CStreamTcpReceiver* receiver = MakeTcp(RECEIVER_PROTOCOL_RTP);
    std::string replies;
    for (int i = 0; i < 200; ++i) {
        replies += REPLY;
    }
    EXPECT_EQ(receiver->Feed(replies.data(), static_cast<int>(replies.size()) - 3), 0);
    EXPECT_EQ(receiver->Feed(replies.data() + replies.size() - 3, 3), 0);
    EXPECT_EQ(receiver->Feed(replies.data(), 32768), -1);
    EXPECT_EQ(receiver->Start(0, 1.0F), 0);
    EXPECT_TRUE(WaitUntil([this] { return m_procs.Count("rtsp") == 200; }));
}

TEST_F(CReceiverTest, TcpComesBackForWhatItsTurnsLeftInTheSocket) {
    CStreamTcpReceiver* receiver = MakeTcp(RECEIVER_PROTOCOL_RTP);
    EXPECT_EQ(m_peer.SetSockSendBuf(1 << 20), 0);
    const Bytes frame = Interleaved(0, Rtp(1, true, Bytes(8000, 0x41)));
    size_t sent = 0;
    while (m_peer.Send(reinterpret_cast<const char*>(frame.data()), static_cast<unsigned int>(frame.size())) ==
           static_cast<int>(frame.size())) {
        ++sent;
    }
    EXPECT_EQ(receiver->Start(0, 1.0F), 0);
    EXPECT_TRUE(WaitForPuts(sent)) << sent;
}

TEST_F(CReceiverTest, TcpPutsFramesWithTheirKindAndTrack) {
    CStreamTcpReceiver* receiver = StartTcp(RECEIVER_PROTOCOL_RTP);
    const Bytes parameter_sets = {0x78, 0, 2, 0x09, 0xf0, 0, 2, 0x67, 1};  // aggregated behind a delimiter
    const struct {
        Bytes run;
        int tag;
    } rows[] = {
        {Interleaved(0, Rtp(1, true, KEY_SLICE)), TAG_KEY},
        {Interleaved(0, Rtp(2, true, OTHER_SLICE)), TAG_OTHER},
        {Interleaved(0, Rtp(3, false, {0x06, 5})) + Interleaved(0, Rtp(4, true, KEY_SLICE)), TAG_KEY},
        {Interleaved(0, Rtp(5, true, parameter_sets)), TAG_KEY},
        {Interleaved(0, Rtp(6, false, {0x7c, 0x85, 1})) + Interleaved(0, Rtp(8, true, {0x7c, 0x45, 1})), TAG_KEY},
        {Interleaved(0, Rtp(9, true, {0x7c, 0x45, 1})), TAG_OTHER},
        {Interleaved(2, Rtp(1, true, {1})), 1 << 24 | TAG_KEY},
        {Interleaved(4, Rtp(1, false, {1})), 2 << 24 | TAG_KEY},
    };
    Bytes stream = Interleaved(1, FromHex("80c80001 11223344")) + FromText(REPLY) + Interleaved(0, {1, 2, 3});
    for (const auto& row : rows) {
        stream = stream + row.run;
    }
    Send(stream + Interleaved(9, Rtp(1, true, {1})));
    ASSERT_TRUE(WaitForPuts(8));
    const auto items = m_sink.Items();
    for (size_t i = 0; i < items.size(); ++i) {
        EXPECT_EQ(ToHex(items[i].bytes), ToHex(rows[i].run)) << i;
        EXPECT_EQ(items[i].channel, rows[i].tag) << i;
        EXPECT_EQ(items[i].flag, 1) << i;
    }
    EXPECT_EQ(m_procs.Count("rtcp1"), 1);
    EXPECT_TRUE(WaitUntil([&] { return receiver->GetStats(0, false).packets == 8; }));
    const reception_stats_t stats = receiver->GetStats(0, true);
    EXPECT_EQ(stats.lost, 1u);
    EXPECT_EQ(stats.dropped, 1u);
    EXPECT_EQ(receiver->GetStats(0, false).lost, 0u);
    EXPECT_EQ(receiver->GetStats(0, false).lost_total, 1u);
    EXPECT_EQ(receiver->GetStats(8, false).packets, 0u);
    EXPECT_EQ(receiver->GetLife().units, 10u);
}

TEST_F(CReceiverTest, TcpPutsPrivateFramesBehindTheirHeader) {
    StartTcp(RECEIVER_PROTOCOL_KX);
    const Bytes key = FromText("KXAV") + Bytes{0xFD} + Ramp(40000);
    const Bytes other = FromText("KXAV") + Bytes{0xFC} + Ramp(40);
    const auto header = [](const Bytes& frame) {
        return Bytes{'$', 2, 0, 0, static_cast<uint8_t>(frame.size() >> 8), static_cast<uint8_t>(frame.size())};
    };
    Send(header(key) + key + FromText(REPLY) + header(other) + other);
    ASSERT_TRUE(WaitForPuts(4));
    const auto items = m_sink.Items();
    const Bytes expected[] = {header(key), key, header(other), other};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(items[i].bytes, expected[i]) << i;
        EXPECT_EQ(items[i].flag, static_cast<int>(i % 2)) << i;
        EXPECT_EQ(items[i].channel, 1 << 24 | (i < 2 ? TAG_KEY : TAG_OTHER)) << i;
    }
    EXPECT_EQ(m_procs.Count("rtsp"), 1);
}

TEST_F(CReceiverTest, TcpTellsABrokenConnectionOnceAndKeepsItsSocketToTheEnd) {
    StartTcp(RECEIVER_PROTOCOL_RTP);
    Send(FromText(REPLY));
    m_peer.Close();
    EXPECT_TRUE(WaitUntil([this] { return m_failed.load() == 1; }));
    EXPECT_EQ(m_procs.Count("rtsp"), 1);
    EXPECT_EQ(m_closed.load(), 0);
    EXPECT_TRUE(m_sock->IsValid());
    const std::weak_ptr<CSockStream> sock = m_sock;
    m_sock.reset();
    EXPECT_FALSE(sock.expired());
    m_receiver->Close();
    EXPECT_TRUE(WaitUntil([this] { return m_closed.load() == 1; }));
    EXPECT_TRUE(sock.expired());
    EXPECT_EQ(m_failed.load(), 1);
    m_receiver = nullptr;
}

TEST_F(CReceiverTest, TcpHandsOutWhatStandsInFrontOfAFault) {
    StartTcp(RECEIVER_PROTOCOL_RTP);
    Send(FromText(REPLY) + Interleaved(0, Rtp(1, true, KEY_SLICE)) + Interleaved(0, {}));
    EXPECT_TRUE(WaitUntil([this] { return m_failed.load() == 1; }));
    EXPECT_EQ(m_procs.Count("rtsp"), 1);
    EXPECT_EQ(m_sink.Count(), 1u);
}

TEST_F(CReceiverTest, TakingTheBufferAwayWaitsForAPutOnAnotherThreadOnly) {
    std::atomic<int> entered{0};
    std::atomic<bool> go{false};
    m_sink.on_put = [&] {
        if (entered.fetch_add(1) == 0) {
            EXPECT_TRUE(WaitUntil([&] { return go.load(); }));
        } else {
            m_receiver->SetMediaBuffer(nullptr);  // inside its own call
        }
    };
    CStreamTcpReceiver* receiver = StartTcp(RECEIVER_PROTOCOL_RTP);
    Send(Interleaved(0, Rtp(1, true, KEY_SLICE)));
    ASSERT_TRUE(WaitUntil([&] { return entered.load() == 1; }));
    EXPECT_TRUE(receiver->GetLife().busy);
    std::thread taker([&] {
        receiver->SetMediaBuffer(nullptr);
        EXPECT_TRUE(go.load());
    });
    // The packet behind it must not reach the buffer any more; the one after the buffer came back does.
    Send(Interleaved(0, Rtp(2, true, KEY_SLICE)));
    go.store(true);
    taker.join();
    EXPECT_TRUE(WaitUntil([&] { return receiver->GetStats(0, false).packets == 2; }));
    const size_t before = m_sink.Count();
    receiver->SetMediaBuffer(&m_buffer);
    Send(Interleaved(0, Rtp(3, true, KEY_SLICE)));
    EXPECT_TRUE(WaitForPuts(before + 1));
    Send(Interleaved(0, Rtp(4, true, KEY_SLICE)));
    EXPECT_TRUE(WaitUntil([&] { return receiver->GetStats(0, false).packets == 4; }));
    EXPECT_LE(m_sink.Count(), before + 1);
    m_sink.on_put = nullptr;
}

TEST_F(CReceiverTest, UdpTakesAllTracksFromTheServersAddressOnly) {
    m_tracks.count = RECEIVER_MAX_TRACKS;
    udp_receiver_socks_t socks;
    socks.count = RECEIVER_MAX_TRACKS;
    int ports[2 * RECEIVER_MAX_TRACKS];
    const CSockAddrIPv4 any("0.0.0.0", 0);
    const auto open = [&](std::shared_ptr<CSockDgram>& sock, int& port) {
        sock = std::make_shared<CSockDgram>();
        CSockAddrStorage local;
        ASSERT_EQ(sock->Open(&any), 0);
        ASSERT_EQ(sock->GetLocalAddr(&local), 0);
        port = local.GetPort();
    };
    for (int i = 0; i < RECEIVER_MAX_TRACKS; ++i) {
        open(socks.tracks[i].rtp_sock, ports[2 * i]);
        open(socks.tracks[i].rtcp_sock, ports[2 * i + 1]);
        socks.tracks[i].source = CSockAddrStorage("127.0.0.1", 1);
    }
    socks.tracks[1].source = CSockAddrStorage("127.0.0.7", 1);
    socks.tracks[2].source = CSockAddrStorage();  // judged by version and payload type
    Prepare(CStreamUdpReceiver::Create(socks, m_owner->GetID()));
    ASSERT_EQ(m_receiver->Start(0, 1.0F), 0);

    CUdpPeer server;
    const auto send = [&](const Bytes& bytes, int place) { server.Send(ToText(bytes), ports[place]); };
    const Bytes rtcp = FromHex("80c80001 11223344");
    send(rtcp, 3);                    // a stranger to track 1
    send(Rtp(1, true, {1}), 2);       // as well
    send(Rtp(1, true, {1}, 120), 4);  // not the payload type of the group
    send(FromHex("0062000100000001000000ff"), 4);
    send({1, 2, 3}, 0);  // too short
    send({}, 1);         // as well
    send(rtcp, 1);
    send(rtcp, 5);
    send(Rtp(1, true, {1}, 98), 4);
    send(Rtp(1, true, {1}), 2 * RECEIVER_MAX_TRACKS - 2);
    for (uint16_t i = 0; i < 300; ++i) {
        send(Rtp(i, i % 3 == 2, Ramp(i)), 0);
    }
    ASSERT_TRUE(WaitUntil([&] { return m_receiver->GetStats(0, false).packets == 300; }));
    EXPECT_TRUE(WaitForPuts(102));
    size_t bytes = 0;
    for (const CCollectingSink::Item& item : m_sink.Items()) {
        bytes += item.channel < 1 << 24 ? item.bytes.size() : 0;
    }
    EXPECT_EQ(bytes, 300u * 16 + 299 * 300 / 2);
    EXPECT_TRUE(WaitUntil([&] { return m_procs.Count("rtcp") == 2; }));
    EXPECT_EQ(m_procs.Count("rtcp3"), 0);
    EXPECT_EQ(m_receiver->GetStats(0, false).dropped, 1u);
    EXPECT_EQ(m_receiver->GetStats(2, false).packets, 0u);
    EXPECT_EQ(m_receiver->GetStats(4, false).packets, 1u);
    EXPECT_EQ(m_receiver->GetLife().units, 302u);

    EXPECT_EQ(m_receiver->Stop(), 0);
    send(Rtp(300, true, {1}), 0);
    ASSERT_EQ(m_receiver->Start(0, 1.0F), 0);
    EXPECT_TRUE(WaitUntil([&] { return m_receiver->GetStats(0, false).packets == 301; }));
}

namespace {

const uint32_t SSRC = 0x1234;
const uint32_t CLOCK = 90000;
const uint64_t OCTETS = 3000000000;  // two of these are more than 32 bits hold

reception_stats_t stats_of(const std::vector<uint16_t>& numbers, CReceptionStats& stats) {
    for (const uint16_t number : numbers) {
        stats.Count(number, 0, SSRC, OCTETS, 0, 0);
    }
    return stats.Get(0);
}

}  // namespace

TEST(ReceptionStats, CountsGapsLateRepeatedAndWrappedNumbers) {
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/transport.txt", "sequences", 3)) {
        SCOPED_TRACE(row[0]);
        const auto numbers = Numbers<uint16_t>(row[1]);
        CReceptionStats running;
        const reception_stats_t stats = stats_of(numbers, running);
        EXPECT_EQ((std::vector<int64_t>{stats.lost_total, stats.cumulative_lost, stats.highest_seq}),
                  Numbers<int64_t>(row[2]));
        EXPECT_EQ(stats.packets, numbers.size());
        EXPECT_EQ(stats.octets, OCTETS * numbers.size());
        EXPECT_EQ(stats.last_seq, numbers.back());
    }
}

TEST(ReceptionStats, TellsTheLossOfAnInterval) {
    CReceptionStats running;
    CReceptionStats shown;
    stats_of({1, 2, 3, 4, 6}, running);
    shown.Follow(running);
    EXPECT_EQ(shown.Get(0).fraction, 256 / 6);
    EXPECT_EQ(shown.Get(0).lost, 1u);
    shown.Clear();
    stats_of({7, 9}, running);
    shown.Follow(running);
    EXPECT_EQ(shown.Get(0).fraction, 256 / 3);
    EXPECT_EQ(shown.Get(0).lost, 1u);
    EXPECT_EQ(shown.Get(0).lost_total, 2u);
    // Another source begins anew: its numbers are no gap.
    running.Count(500, 0, SSRC + 1, 100, 0, 0);
    running.Count(502, 0, SSRC + 1, 100, 0, 0);
    shown.Follow(running);
    EXPECT_EQ(shown.Get(0).fraction, 256 / 3);
    EXPECT_EQ(shown.Get(0).cumulative_lost, 1);
    EXPECT_EQ(shown.Get(0).ssrc, SSRC + 1);
}

TEST(ReceptionStats, MeasuresJitter) {
    CReceptionStats stats;
    // Each second packet comes 10 ms late, that is 900 ticks: the mean settles there.
    for (uint16_t i = 0; i < 400; ++i) {
        stats.Count(i, i * 3600u, SSRC, 1, uint64_t{i} * 40000 + (i % 2) * 10000, CLOCK);
    }
    EXPECT_NEAR(stats.Get(0).jitter, 900, 1);
}

// A report may come before the media, also one about something else, and in pieces.
TEST(ReceptionStats, MapsTheSendersClock) {
    for (const bool early : {true, false}) {
        for (const bool known : {true, false}) {
            const std::string ssrc = known ? "00001234" : "00001235";
            const Bytes report = FromHex("80c80006 " + ssrc + " e1234567 89abcdef 00000e10 00000000 00000000");
            CReceptionStats stats;
            const auto take = [&stats](const Bytes& compound, uint64_t arrival_us) {
                rtcp_digest_t digest;
                ReadRtcp(compound.data(), compound.size(), digest);
                stats.TakeReport(digest, arrival_us);
            };
            if (early) {
                take(report, 1000000);
            }
            stats.Count(1, 0, SSRC, 1, 0, CLOCK);
            for (size_t length = 0; length < report.size(); ++length) {
                take(Part(report, 0, length), 1500000);
            }
            if (!early) {
                EXPECT_EQ(stats.Get(2000000).last_sr, 0u);
                take(report, 1000000);
            }
            const reception_stats_t now = stats.Get(2500000);
            EXPECT_EQ(now.last_sr, known ? 0x456789abu : 0u);
            EXPECT_EQ(now.delay_last_sr, known ? 65536u * 3 / 2 : 0u);
            EXPECT_EQ(now.sr_ntp, known ? 0xe123456789abcdefu : 0u);
            EXPECT_EQ(now.sr_rtp, known ? 3600u : 0u);
        }
    }
}

TEST(RtcpDigest, FindsTheByeAndWhomItNames) {
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/transport.txt", "reports", 2)) {
        SCOPED_TRACE(row[0]);
        const Bytes bytes = FromHex(row[0]);
        const auto says = [&row](const char* what) { return row[1].find(what) != std::string::npos; };
        rtcp_digest_t digest;
        EXPECT_EQ(ReadRtcp(bytes.data(), bytes.size(), digest), says("one"));
        EXPECT_EQ(digest.has_bye, says("bye"));
        EXPECT_EQ(digest.has_report ? digest.rtp : 0, bytes.size() == 28 ? 3600u : 0u);
        EXPECT_EQ(digest.Ends(0x11223344), says("ends"));
    }
}
