// The single track over real sockets, with the pool.

#include "Vidora/RTPUdpTransmiter.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "Vidora/KXFrame.h"
#include "support/Capture.h"
#include "support/FrameBuilder.h"
#include "support/RtspText.h"
#include "support/SampleTable.h"
#include "support/TestClock.h"
#include "support/TestHandler.h"
#include "support/UdpPeer.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;
using Kavio::Flumen::CMediaFrame;

namespace {

const char TABLES[] = VIDORA_TEST_DATA "/single_track.txt";
const char H264[] = "v=0\r\nm=video 5000 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n";
const char PCMA[] = "v=0\r\nm=audio 5000 RTP/AVP 8\r\n";
const auto SEND = IRTPUdpTransmiter::SDP_TYPE_SEND;
const auto RECV = IRTPUdpTransmiter::SDP_TYPE_RECV;

CMediaFrame MakeFrame(int type, const std::string& payload, uint64_t pts = 40) {
    return BuildFrame({type, 0, pts, payload, type == 'A' ? KX_AUDIO_PCMA : KX_VIDEO_H264});
}

// A transmitter with its host: the socket, and what the callback got.
class CTrack {
public:
    CTrack() : object(IRTPUdpTransmiter::Create()) {}
    ~CTrack() { Close(); }

    // Takes the description and the socket; and starts, if there is a remote, both ways with that.
    void Open(const char* sdp, int remote_port = 0) {
        EXPECT_TRUE(object->SetSdpInfo(SEND, sdp) && object->SetSdpInfo(RECV, sdp));
        EXPECT_TRUE(object->Attach(sock.Fd()));
        EXPECT_TRUE(remote_port == 0 || (object->SetRemote("127.0.0.1", remote_port, 2) && Start()));
    }
    bool Start() { return object->StartRecv(Proc()); }
    IRTPUdpTransmiter::frame_proc_t Proc() { return {this, &CTrack::OnFrame}; }
    void Close() {
        if (IRTPUdpTransmiter* closed = object) {
            object = nullptr;
            closed->Close();
        }
    }
    void OnFrame(const CMediaFrame& frame) {
        if (on_frame) {
            on_frame();
        }
        m_bodies.Add(frame.valid() ? BodyOf(frame) : "");
    }
    std::vector<std::string> Bodies() const { return m_bodies.All(); }
    bool WaitFor(size_t count) const {
        return WaitUntil([&] { return Bodies().size() >= count; });
    }
    bool IsSockOpen() const { return ::fcntl(sock.Fd(), F_GETFD) >= 0; }
    RtpUdpStatistics Statistics() const {
        RtpUdpStatistics statistics;
        object->GetStatistics(statistics);
        return statistics;
    }

    CBoundSocket sock{SOCK_DGRAM};
    IRTPUdpTransmiter* object;
    std::function<void()> on_frame;  // set before frames can come

private:
    CGuardedList<std::string> m_bodies;
};

class CSingleTrackTest : public ::testing::Test {
protected:
    // One packet of A-law audio.
    std::string Audio(const std::string& body) {
        m_fields.payload_type = 8;
        m_fields.marker = true;
        ++m_fields.sequence;
        m_fields.timestamp += static_cast<uint32_t>(body.size());
        return ToText(MakeRtp(m_fields, FromText(body)));
    }

    CPool m_pool;
    CUdpPeer m_peer;
    RtpFields m_fields;
};

TEST_F(CSingleTrackTest, FramesTravelBothWays) {
    struct Row {
        const char* sdp;
        std::vector<CMediaFrame> frames;
    };
    const Row rows[] = {
        {H264, {MakeFrame('I', H264Picture(true, 30000, 1)), MakeFrame('P', H264Picture(false, 300, 2), 80)}},
        {PCMA, {MakeFrame('A', std::string(160, 'a')), MakeFrame('A', std::string(320, 'b'), 60)}},
    };
    for (const Row& row : rows) {
        CTrack tracks[2];
        for (int i = 0; i < 2; ++i) {
            tracks[i].Open(row.sdp, tracks[1 - i].sock.Port());
        }
        for (CTrack& track : tracks) {
            for (const CMediaFrame& frame : row.frames) {
                EXPECT_TRUE(track.object->Put(frame));
            }
        }
        for (CTrack& track : tracks) {
            ASSERT_TRUE(track.WaitFor(row.frames.size())) << row.sdp;
            for (size_t i = 0; i < row.frames.size(); ++i) {
                EXPECT_EQ(BodyOf(row.frames[i]), track.Bodies()[i]);
            }
            EXPECT_EQ(0u, track.Statistics().damaged + track.Statistics().foreign);
        }
        // The socket that comes back gives its host one packet after the other.
        EXPECT_EQ(tracks[0].sock.Fd(), tracks[0].object->Detach());
        EXPECT_TRUE(tracks[1].object->Put(row.frames[0]));
        char packet[65536];
        ssize_t sum = 0, largest = 0;
        EXPECT_TRUE(WaitUntil([&] {
            const ssize_t size = ::recv(tracks[0].sock.Fd(), packet, sizeof(packet), 0);
            largest = std::max(largest, size);
            return (sum += std::max<ssize_t>(size, 0)) >= static_cast<ssize_t>(BodyOf(row.frames[0]).size());
        }));
        EXPECT_LT(largest, 1500);
    }
}

TEST_F(CSingleTrackTest, ADescriptionIsReadWholeOrRefused) {
    CTrack track;
    for (const auto& row : ReadTable(TABLES, "descriptions", 2)) {
        for (const auto direction : {SEND, RECV}) {
            EXPECT_EQ(row[1] == "read", track.object->SetSdpInfo(direction, Crlf(row[0]).c_str())) << row[0];
        }
    }
    EXPECT_FALSE(track.object->SetSdpInfo(static_cast<IRTPUdpTransmiter::SDP_TYPE>(2), H264));
    EXPECT_FALSE(track.object->SetSdpInfo(SEND, nullptr));
}

TEST_F(CSingleTrackTest, ARemoteIsAnAddressAndAPort) {
    CTrack track;
    for (const auto& row : ReadTable(TABLES, "remotes", 3)) {
        for (int mode = 0; mode < 3; ++mode) {
            EXPECT_EQ(row[2].find(std::to_string(mode)) != std::string::npos,
                      track.object->SetRemote(row[0].c_str(), std::stoi(row[1]), mode))
                << row[0] << " " << row[1] << " " << mode;
        }
    }
    EXPECT_FALSE(track.object->SetRemote(nullptr, 9, 1));
    EXPECT_FALSE(track.object->SetRemote("127.0.0.1", 9, 3));
    EXPECT_FALSE(track.object->SetRemote("127.0.0.1", 9, -1));
}

TEST_F(CSingleTrackTest, WhatCantBeSentIsToldAndNothingIsLeftOfIt) {
    const CMediaFrame frame = MakeFrame('A', "audio");
    CTrack track;
    CLogCapture log;
    EXPECT_FALSE(track.object->Put(CMediaFrame()));
    EXPECT_FALSE(track.object->Put(frame));
    EXPECT_LE(1, log.Count("MediaFrame Input fail"));
    EXPECT_TRUE(track.object->SetSdpInfo(SEND, PCMA));
    EXPECT_FALSE(track.object->Put(frame));  // no socket
    EXPECT_TRUE(track.object->Attach(track.sock.Fd()));
    EXPECT_FALSE(track.object->Put(frame));  // no remote
    EXPECT_TRUE(track.object->SetRemote("127.0.0.1", m_peer.Port(), 0));
    EXPECT_TRUE(track.object->Put(MakeFrame('A', "more", 80)));
    EXPECT_EQ("more", m_peer.Recv(20000).substr(12));
    EXPECT_EQ(track.sock.Fd(), track.object->Detach());
    EXPECT_FALSE(track.object->Put(frame));
    EXPECT_EQ(-1, track.object->Detach());
}

TEST_F(CSingleTrackTest, OnlyAUdpSocketIsTakenAndItIsNeverClosed) {
    CTrack track;
    const CBoundSocket tcp(SOCK_STREAM);
    EXPECT_FALSE(track.Start());
    EXPECT_FALSE(track.object->Attach(-1));
    track.Open(PCMA);
    EXPECT_FALSE(track.object->Attach(tcp.Fd()));
    EXPECT_FALSE(track.object->StartRecv(IRTPUdpTransmiter::frame_proc_t()));
    EXPECT_TRUE(track.object->Attach(m_peer.Fd()));
    EXPECT_TRUE(track.IsSockOpen());
    EXPECT_TRUE(track.object->Attach(track.sock.Fd()));
    EXPECT_TRUE(track.object->Attach(track.sock.Fd()));
    EXPECT_TRUE(track.Start());
    track.Close();
    EXPECT_TRUE(track.IsSockOpen());
    EXPECT_TRUE(::fcntl(m_peer.Fd(), F_GETFD) >= 0);
    EXPECT_TRUE((::fcntl(track.sock.Fd(), F_GETFL) & O_NONBLOCK) != 0);
}

TEST_F(CSingleTrackTest, StrangersAndDamageAreDroppedAndCounted) {
    CTrack track;
    CUdpPeer stranger;
    track.Open(PCMA);
    EXPECT_TRUE(track.object->SetRemote("127.0.0.1", m_peer.Port(), 1));
    EXPECT_TRUE(track.Start());
    const std::string good = Audio("good");
    const std::string bad[] = {good.substr(0, 11),          good.substr(0, 1),       std::string("$\0\0\5audio", 9),
                               "\x80\x60" + good.substr(2), "\x40" + good.substr(1), std::string(60000, '\xff')};
    stranger.Send(good, track.sock.Port());
    m_peer.Send("", track.sock.Port());
    for (const std::string& datagram : bad) {
        m_peer.Send(datagram, track.sock.Port());
    }
    m_peer.Send(good, track.sock.Port());
    ASSERT_TRUE(track.WaitFor(1));
    EXPECT_EQ(std::vector<std::string>{"good"}, track.Bodies());
    const RtpUdpStatistics statistics = track.Statistics();
    EXPECT_EQ(1u, statistics.packets);
    EXPECT_EQ(good.size(), statistics.bytes);
    EXPECT_EQ(1u, statistics.foreign);
    EXPECT_EQ(std::size(bad), statistics.damaged);

    EXPECT_TRUE(track.object->SetRemote("127.0.0.1", -1, 1));
    stranger.Send(Audio("any"), track.sock.Port());
    ASSERT_TRUE(track.WaitFor(2));
    EXPECT_TRUE(track.object->SetRemote("127.0.0.2", -1, 1));
    stranger.Send(Audio("none"), track.sock.Port());
    EXPECT_TRUE(WaitUntil([&] { return track.Statistics().foreign == 2; }));
    EXPECT_EQ(2u, track.Bodies().size());
}

// What happens to one frame's packets costs no other frame, however long nothing comes in between.
TEST_F(CSingleTrackTest, LossRepetitionAndSilenceCostNoOtherFrame) {
    const std::vector<size_t> in_order = {0, 1, 2, 3, 4};
    for (const auto& row : ReadTable(TABLES, "orders", 2)) {
        SCOPED_TRACE(row[0]);
        CTrack sender, receiver;
        sender.Open(H264);
        receiver.Open(H264);
        EXPECT_TRUE(sender.object->SetRemote("127.0.0.1", m_peer.Port(), 0));
        EXPECT_TRUE(receiver.Start());
        std::vector<std::string> expected;
        for (uint8_t i = 1; i <= 4; ++i) {
            const CMediaFrame frame = MakeFrame('I', H264Picture(true, 3500, i), 40u * i);
            ASSERT_TRUE(sender.object->Put(frame));
            std::vector<std::string> packets;
            for (bool last = false; !last; last = (packets.back().at(1) & 0x80) != 0) {
                packets.push_back(m_peer.Recv(20000));
            }
            ASSERT_EQ(5u, packets.size());  // two parameter sets, and the slice in three
            for (const size_t packet : i == 2 ? Numbers<size_t>(row[0]) : in_order) {
                m_peer.Send(packets[packet], receiver.sock.Port());
            }
            if (i != 2 || row[1] == "whole") {
                expected.push_back(BodyOf(frame));
            }
            AdvanceClock(3600000);
        }
        ASSERT_TRUE(receiver.WaitFor(expected.size()));
        EXPECT_EQ(expected, receiver.Bodies());
    }
}

TEST_F(CSingleTrackTest, AFailedSocketEndsReceivingWithOneEmptyFrame) {
    CTrack track;
    track.Open(PCMA);
    const sockaddr_in to = LoopbackAddress(m_peer.Port());
    ASSERT_EQ(0, ::connect(track.sock.Fd(), reinterpret_cast<const sockaddr*>(&to), sizeof(to)));
    EXPECT_TRUE(track.Start());
    ASSERT_EQ(0, ::shutdown(track.sock.Fd(), SHUT_RDWR));
    ASSERT_TRUE(track.WaitFor(1));
    EXPECT_TRUE(track.Start());
    ASSERT_TRUE(track.WaitFor(2));
    EXPECT_EQ(track.sock.Fd(), track.object->Detach());
    EXPECT_EQ(std::vector<std::string>(2), track.Bodies());
}

// Nobody has the peer's port at first: what its system answers is not the end of the socket. The address is one that no
// other program takes.
TEST_F(CSingleTrackTest, RefusedPacketsAreNoFailure) {
    sockaddr_in late = LoopbackAddress(m_peer.Port());
    late.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
    CTrack track;
    track.Open(PCMA);
    ASSERT_EQ(0, ::connect(track.sock.Fd(), reinterpret_cast<const sockaddr*>(&late), sizeof(late)));
    const int queues = 1;
    ASSERT_EQ(0, ::setsockopt(track.sock.Fd(), IPPROTO_IP, IP_RECVERR, &queues, sizeof(queues)));
    EXPECT_TRUE(track.Start());
    for (uint64_t i = 1; i <= 100; ++i) {
        track.object->Put(MakeFrame('A', "refused", 20 * i));
    }
    Kavio::Tramel::CSockDgram peer;
    const Kavio::Tramel::CSockAddrIPv4 at("127.0.0.2", static_cast<unsigned short>(m_peer.Port()));
    const Kavio::Tramel::CSockAddrIPv4 to("127.0.0.1", static_cast<unsigned short>(track.sock.Port()));
    ASSERT_EQ(0, peer.Open(&at));
    const std::string answer = Audio("answer");
    EXPECT_LT(0, peer.Send(answer.data(), static_cast<unsigned int>(answer.size()), &to));
    ASSERT_TRUE(track.WaitFor(1));
    EXPECT_EQ("answer", track.Bodies()[0]);
    // Nothing is left that would be told without an end.
    pollfd state = {track.sock.Fd(), 0, 0};
    EXPECT_TRUE(WaitUntil([&] { return ::poll(&state, 1, 0) == 0; }));
}

// What a host may do with an object, here inside its callback.
struct EndRow {
    const char* name;
    void (*run)(CTrack& track);
    bool ends;  // no callback comes any more
};

const EndRow ENDS[] = {
    {"Detach", [](CTrack& track) { EXPECT_EQ(track.sock.Fd(), track.object->Detach()); }, true},
    {"Close", [](CTrack& track) { track.Close(); }, true},
    {"Attach", [](CTrack& track) { EXPECT_TRUE(track.object->Attach(track.sock.Fd())); }, true},
    {"StartRecv", [](CTrack& track) { EXPECT_TRUE(track.Start()); }, false},
    {"SetSdpInfo", [](CTrack& track) { EXPECT_TRUE(track.object->SetSdpInfo(RECV, PCMA)); }, false},
    {"Put", [](CTrack& track) { EXPECT_TRUE(track.object->Put(MakeFrame('A', "back"))); }, false},
};

TEST_F(CSingleTrackTest, AnyCallMayComeFromTheCallback) {
    for (const EndRow& row : ENDS) {
        CTrack track;
        std::atomic<int> calls{0};
        track.on_frame = [&] {
            if (++calls == 1) {
                row.run(track);
            }
        };
        track.Open(PCMA, m_peer.Port());
        m_peer.Send(Audio("one"), track.sock.Port());
        ASSERT_TRUE(track.WaitFor(1)) << row.name;
        m_peer.Send(Audio("two"), track.sock.Port());
        EXPECT_TRUE(row.ends || track.WaitFor(2)) << row.name;
        track.Close();
        EXPECT_EQ(row.ends ? 1u : 2u, track.Bodies().size()) << row.name;
        EXPECT_TRUE(track.IsSockOpen()) << row.name;
    }
}

TEST_F(CSingleTrackTest, OtherThreadsWaitForTheCallback) {
    for (const EndRow& row : ENDS) {
        if (!row.ends && std::string(row.name) != "StartRecv") {
            continue;
        }
        CTrack track;
        track.Open(PCMA);
        std::atomic<bool> entered{false};
        std::atomic<bool> may_return{false};
        std::atomic<bool> returned{false};
        track.on_frame = [&] {
            entered = true;
            WaitUntil([&] { return may_return.load(); });
            returned = true;
        };
        EXPECT_TRUE(track.Start());
        m_peer.Send(Audio("slow"), track.sock.Port());
        ASSERT_TRUE(WaitUntil([&] { return entered.load(); })) << row.name;
        std::atomic<bool> calling{false};
        std::thread ender([&] {
            calling = true;
            row.run(track);
            EXPECT_TRUE(returned.load()) << row.name;
        });
        WaitUntil([&] { return calling.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for a wrong return
        may_return = true;
        ender.join();
    }
}

// One thread waits for the callback in which the object ends.
TEST_F(CSingleTrackTest, CloseInTheCallbackMeetsADetachThatWaitsForIt) {
    CTrack track;
    std::atomic<bool> entered{false};
    track.on_frame = [&] {
        entered = true;
        // Once nothing can be sent the other thread is inside Detach.
        EXPECT_TRUE(WaitUntil([&] { return !track.object->Put(MakeFrame('A', "still there")); }));
        track.Close();
    };
    track.Open(PCMA, m_peer.Port());
    m_peer.Send(Audio("last"), track.sock.Port());
    ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
    IRTPUdpTransmiter* object = track.object;
    EXPECT_EQ(track.sock.Fd(), object->Detach());
    EXPECT_TRUE(track.WaitFor(1));
    EXPECT_TRUE(track.IsSockOpen());
}

TEST_F(CSingleTrackTest, EverythingAtOnce) {
    CTrack track;
    track.Open(PCMA);
    const std::function<void(IRTPUdpTransmiter&, int)> calls[] = {
        [](auto& object, int) { object.Detach(); },
        [&](auto& object, int) { object.Attach(track.sock.Fd()); },
        [&](auto& object, int step) { object.SetRemote("127.0.0.1", m_peer.Port(), step % 3); },
        [](auto& object, int step) { object.SetSdpInfo(step % 2 == 0 ? SEND : RECV, PCMA); },
        [](auto& object, int) { object.Put(MakeFrame('A', "media")); },
        [&](auto&, int) { track.Start(); },
        [&](auto&, int) { track.Statistics(); },
    };
    std::atomic<int> next{0};
    std::atomic<bool> done{false};
    std::thread sender([&] {
        while (!done) {
            m_peer.Send(Audio("media"), track.sock.Port());
            std::this_thread::yield();
        }
    });
    RunTogether(4, [&] {
        for (int step = next++; step < 800; step = next++) {
            calls[static_cast<size_t>(step) % std::size(calls)](*track.object, step);
        }
    });
    track.object->Attach(track.sock.Fd());
    EXPECT_TRUE(track.object->SetRemote("", -1, 1));
    const size_t before = track.Bodies().size();
    EXPECT_TRUE(track.Start());
    EXPECT_TRUE(track.WaitFor(before + 1));
    track.Close();
    const size_t after = track.Bodies().size();
    done = true;
    sender.join();
    EXPECT_EQ(after, track.Bodies().size());
}

}  // namespace
