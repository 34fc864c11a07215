// A UDP stream on a network that drops, repeats and reorders: what the session counts, and what comes out of it.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <string>
#include <vector>

#include "Vidora/RtspClientBuffer.h"
#include "support/ClientHost.h"
#include "support/FrameBuilder.h"
#include "support/ScriptedServer.h"
#include "support/TrackSender.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {
namespace {

using namespace Support;

const size_t FRAMES = 1500;
const size_t PICTURE_SIZE = 4000;  // some three packets
const size_t KEY_INTERVAL = 10;
const size_t SENT_AT_ONCE = 30;  // packets, so that no socket's buffer overflows

// A packet on its way, and the frame that it belongs to.
struct Packet {
    size_t frame;
    std::string bytes;
};

struct Stream {
    std::vector<std::string> frames;
    std::vector<Packet> packets;
};

Stream make_stream() {
    CTrackSender sender(ENC_TYPE_H264, 96, 90000, 0);
    Stream stream;
    for (size_t i = 0; i < FRAMES; ++i) {
        const bool key = i % KEY_INTERVAL == 0;
        FrameSpec fields;
        fields.type = key ? 'I' : 'P';
        fields.pts_ms = 1000 + i * 40;
        fields.payload = H264Picture(key, PICTURE_SIZE, static_cast<uint8_t>(1 + i % 251));
        stream.frames.push_back(fields.payload);
        for (const std::string& packet : PacketsOf(sender.Make(BuildFrame(fields)))) {
            stream.packets.push_back({i, packet.substr(4)});
        }
    }
    return stream;
}

// What a bad network makes of a stream.
struct Arrival {
    std::vector<Packet> packets;
    std::vector<bool> touched;  // by frame
    size_t dropped = 0;
    size_t repeated = 0;
    size_t moved = 0;
};

// Drops one packet of a hundred, repeats another, and lets a third one change places with the next. The first frame
// and the last ones stay whole.
Arrival spoil(const Stream& stream) {
    Arrival arrival;
    arrival.touched.resize(FRAMES);
    std::mt19937 random(1);
    for (size_t i = 0; i < stream.packets.size(); ++i) {
        const Packet& packet = stream.packets[i];
        const unsigned int fate = packet.frame == 0 || packet.frame + KEY_INTERVAL > FRAMES ? 99 : random() % 100;
        if (fate > 2) {
            arrival.packets.push_back(packet);
            continue;
        }
        arrival.touched[packet.frame] = true;
        if (fate == 0) {
            ++arrival.dropped;
        } else if (fate == 1) {
            ++arrival.repeated;
            arrival.packets.insert(arrival.packets.end(), 2, packet);
        } else {
            ++arrival.moved;
            const Packet& next = stream.packets[++i];
            arrival.touched[next.frame] = true;
            arrival.packets.insert(arrival.packets.end(), {next, packet});
        }
    }
    return arrival;
}

uint16_t number_of(const Packet& packet) {
    return static_cast<uint16_t>(static_cast<unsigned char>(packet.bytes[2]) << 8 |
                                 static_cast<unsigned char>(packet.bytes[3]));
}

// How the numbers go from one packet to the next.
struct Steps {
    uint64_t to_next = 1;   // packets that follow the one before; the first one does
    uint64_t skipped = 0;   // numbers that are missing in between
    uint64_t distance = 0;  // over the gaps
};

Steps steps_of(const std::vector<Packet>& packets) {
    Steps steps;
    for (size_t i = 1; i < packets.size(); ++i) {
        const int step = static_cast<int16_t>(number_of(packets[i]) - number_of(packets[i - 1]));
        steps.to_next += step == 1 ? 1 : 0;
        steps.skipped += step > 1 ? static_cast<uint64_t>(step - 1) : 0;
        steps.distance += step > 1 ? static_cast<uint64_t>(step) : 0;
    }
    return steps;
}

// A sink that keeps the frames.
struct FrameKeeper {
    CGuardedList<std::string> frames;
    CRtspClientBuffer sink{[](const unsigned char* data, unsigned int size, void* user) {
                               const std::string bytes(reinterpret_cast<const char*>(data), size);
                               static_cast<FrameKeeper*>(user)->frames.Add(bytes);
                           },
                           nullptr, this};
};

// Sends all, never more than fits, and waits until the session has counted it.
bool send_all(const std::vector<Packet>& packets, int port, const CClientHost& host) {
    CUdpPeer peer;
    for (size_t i = 0; i < packets.size();) {
        const size_t end = std::min(i + SENT_AT_ONCE, packets.size());
        for (; i < end; ++i) {
            peer.Send(packets[i].bytes, port);
        }
        if (!WaitUntil([&] { return host.Statistics().packets >= end; })) {
            return false;
        }
    }
    return true;
}

// The numbers of the sent frames that came out, in order; FRAMES for one that wasn't sent like that.
std::vector<size_t> identify(const std::vector<std::string>& out, const std::vector<std::string>& sent) {
    std::vector<size_t> numbers;
    auto next = sent.begin();
    for (const std::string& frame : out) {
        const auto found = std::find(next, sent.end(), frame);
        numbers.push_back(static_cast<size_t>(found - sent.begin()));
        next = found != sent.end() ? found + 1 : next;
    }
    return numbers;
}

TEST(CLossTest, NoDamagedFrameComesOutAndTheStreamGoesOn) {
    const Stream stream = make_stream();
    const Arrival arrival = spoil(stream);
    ASSERT_GT(arrival.dropped, 20u);
    ASSERT_GT(arrival.repeated, 20u);
    ASSERT_GT(arrival.moved, 20u);
    const CPool pool;
    std::atomic<int> port{0};
    CScriptedServer server([&](const ServerRequest& request) {
        port = request.method == "SETUP" ? request.ClientPort() : port.load();
        return CScriptedServer::Answer(request);
    });
    FrameKeeper kept;
    CClientHost host;
    host.play_at_ready = false;
    ASSERT_EQ(0, host.Start(server.Url(), RTP_OVER_UDP));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_SETUP_READY));
    kept.sink.GetFrameBuffer().SetFrameMode(1);
    ASSERT_EQ(0, kept.sink.GetFrameBuffer().Init(host.session->GetSdpInfo(), 0, 0));
    host.session->GetMediaBuffer()->AddLevel2Buffer(&kept.sink);
    host.session->Play(0.0F, 0.0F, 1.0F, false);
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));

    ASSERT_TRUE(send_all(arrival.packets, port, host));
    EXPECT_EQ(arrival.packets.size(), host.Statistics().packets);
    EXPECT_EQ(steps_of(arrival.packets).skipped, host.Statistics().lost);
    EXPECT_TRUE(
        WaitUntil([&] { return !kept.frames.All().empty() && kept.frames.All().back() == stream.frames.back(); }));
    host.session->GetMediaBuffer()->DelLevel2Buffer(&kept.sink);
    TFrameBufferStatis video;
    TFrameBufferStatis audio;
    kept.sink.GetFrameBuffer().GetStatis(video, audio);
    EXPECT_EQ(steps_of(arrival.packets).to_next, video.received);
    EXPECT_EQ(steps_of(arrival.packets).distance, video.lost);

    const std::vector<size_t> numbers = identify(kept.frames.All(), stream.frames);
    EXPECT_EQ(0, std::count(numbers.begin(), numbers.end(), FRAMES)) << "damaged frames";
    for (size_t i = 1; i + 1 < FRAMES; ++i) {
        const bool near_fault = arrival.touched[i - 1] || arrival.touched[i] || arrival.touched[i + 1];
        EXPECT_TRUE(near_fault || std::binary_search(numbers.begin(), numbers.end(), i)) << "frame " << i;
    }
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
}

}  // namespace
}  // namespace Kavio::Vidora
