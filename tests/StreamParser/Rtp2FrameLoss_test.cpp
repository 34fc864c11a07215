// Packets lost, doubled, moved and cut at every position of a small H.264 stream: frames that the fault doesn't touch
// come out whole, and with damaged frames dropped none holds another one's bytes.

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "support/Depacketiser.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

namespace {

const Bytes CODE = FromHex("00000001");
const Bytes SPS = FromHex("6742c01eda0280be40");
const Bytes PPS = FromHex("68ce3c80");

struct Piece {
    size_t frame;
    Bytes packet;
};

struct Stream {
    std::vector<Piece> pieces;
    std::vector<Bytes> frames;  // as they have to come out
};

// Seven frames. The bytes of a picture carry its number, from 0xE0 on, and no other byte is as high.
Stream make_stream() {
    struct Plan {
        bool key, sets;
        int fragments;  // 0: one packet
        int slices;
    };
    const Plan plans[] = {{true, true, 3, 1},   {false, false, 0, 1}, {false, false, 3, 1}, {true, true, 2, 1},
                          {false, false, 0, 2}, {false, false, 2, 1}, {true, false, 0, 1}};
    Stream stream;
    uint16_t sequence = 65529;  // wraps inside the stream
    for (const Plan& plan : plans) {
        const size_t frame = stream.frames.size();
        const uint8_t tag = static_cast<uint8_t>(0xE0 + frame), type = plan.key ? 5 : 1;
        std::vector<Bytes> payloads;
        Bytes whole = plan.key ? CODE + SPS + CODE + PPS : Bytes();
        if (plan.sets) {
            payloads = {SPS, PPS};
        }
        for (int slice = 0; slice < plan.slices; ++slice) {
            whole = whole + CODE + Bytes{static_cast<uint8_t>(0x60 | type)};
            for (int i = 0; i < std::max(plan.fragments, 1); ++i) {
                const int bits = i == 0 ? 0x80 : i + 1 == plan.fragments ? 0x40 : 0;
                const Bytes body(static_cast<size_t>(5 + i), tag);
                payloads.push_back((plan.fragments > 0 ? Bytes{0x7C, static_cast<uint8_t>(bits | type)}
                                                       : Bytes{static_cast<uint8_t>(0x60 | type)}) +
                                   body);
                whole = whole + body;
            }
        }
        stream.frames.push_back(whole);
        for (const Bytes& payload : payloads) {
            RtpSpec spec;
            spec.sequence = sequence++;
            spec.timestamp = 0xFFFFE000 + static_cast<uint32_t>(frame) * 3600;
            spec.marker = &payload == &payloads.back();
            stream.pieces.push_back({frame, MakeRtp(spec, payload)});
        }
    }
    return stream;
}

// Feeds the pieces. `touched` are the frames that may come out damaged, more than once or not at all. Gives the number
// of notifications.
size_t check(const Stream& stream, const std::vector<Piece>& pieces, const std::set<size_t>& touched,
             const std::string& what) {
    size_t events = 0;
    for (const bool drop : {true, false}) {
        SCOPED_TRACE(what + (drop ? " drop" : " keep"));
        Depacketiser in(ENC_TYPE_H264, drop);
        in.Engine().SetH264Config(SPS.data(), static_cast<int>(SPS.size()), PPS.data(), static_cast<int>(PPS.size()));
        for (const Piece& piece : pieces) {
            in.Put(piece.packet);
        }
        for (size_t i = 0; i < stream.frames.size(); ++i) {
            const long count = std::count(in.m_frames.begin(), in.m_frames.end(), stream.frames[i]);
            EXPECT_TRUE(count == 1 || touched.count(i) != 0) << i;
        }
        for (const Bytes& frame : in.m_frames) {
            std::set<uint8_t> tags;
            std::copy_if(frame.begin(), frame.end(), std::inserter(tags, tags.end()),
                         [](uint8_t byte) { return byte >= 0xE0; });
            EXPECT_TRUE(!drop || tags.size() <= 1) << ToHex(frame);
        }
        events = in.m_events.size();
    }
    return events;
}

// The frames beside the place in front of `at`: what ends there, and what begins there.
std::set<size_t> around(const std::vector<Piece>& pieces, size_t at) {
    std::set<size_t> frames;
    if (at > 0) {
        frames.insert(pieces[at - 1].frame);
    }
    if (at < pieces.size()) {
        frames.insert(pieces[at].frame);
    }
    return frames;
}

TEST(Rtp2FrameLoss, LostDoubledAndMovedAtEveryPosition) {
    const Stream stream = make_stream();
    const std::vector<Piece>& all = stream.pieces;
    EXPECT_EQ(1u, check(stream, all, {}, "whole"));  // the SSRC of the first packet
    for (size_t i = 0; i < all.size(); ++i) {
        std::vector<Piece> lost = all;
        lost.erase(lost.begin() + static_cast<long>(i));
        std::set<size_t> hurt = around(lost, i);
        hurt.insert(all[i].frame);
        const size_t events = check(stream, lost, hurt, "lost " + std::to_string(i));
        EXPECT_TRUE(events == 2 || hurt.size() > 1 || i == 0) << i;  // a gap inside a frame is told once
        for (size_t j = 0; j <= lost.size(); ++j) {
            const std::string place = std::to_string(i) + " to " + std::to_string(j);
            std::set<size_t> touched = around(lost, j);
            touched.insert(hurt.begin(), hurt.end());
            std::vector<Piece> changed = lost;
            changed.insert(changed.begin() + static_cast<long>(j), all[i]);
            if (j != i) {
                check(stream, changed, touched, "moved " + place);
            }
            touched = around(all, j);
            touched.insert(all[i].frame);
            changed = all;
            changed.insert(changed.begin() + static_cast<long>(j), all[i]);
            check(stream, changed, touched, "doubled " + place);
        }
    }
}

TEST(Rtp2FrameLoss, CutBeforeThePayload) {
    const Stream stream = make_stream();
    for (size_t i = 0; i < stream.pieces.size(); ++i) {
        std::vector<Piece> pieces = stream.pieces;
        for (long len = 0; len <= 13; ++len) {  // with 13 the one byte makes the whole frame fail
            pieces[i].packet = Bytes(stream.pieces[i].packet.begin(), stream.pieces[i].packet.begin() + len);
            check(stream, pieces, around(pieces, i + 1), "cut " + std::to_string(i) + " to " + std::to_string(len));
        }
    }
}

}  // namespace
}  // namespace Support
}  // namespace Kavio
