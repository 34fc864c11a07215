// What the frame buffer does to frames: time stamps, frame rate, facts, frames in pieces.

#include <gtest/gtest.h>

#include "RtspClient/FrameRateRepair.h"
#include "RtspClient/FrameTimeRepair.h"
#include "RtspClient/PrivateFrameFacts.h"
#include "RtspClient/PrivateFrameRun.h"
#include "Vidora/KXFrame.h"
#include "support/Capture.h"
#include "support/FrameBuilder.h"
#include "support/Interleave.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;
namespace Flumen = Kavio::Flumen;

namespace {

const int RATE_OFFSET = 27;

Flumen::CMediaFrame private_frame(int type, uint64_t pts_ms, uint32_t sequence = 0, double utc = 1600000000.0) {
    FrameSpec fields;
    fields.type = type;
    fields.pts_ms = pts_ms;
    fields.sequence = sequence;
    fields.utc = utc;
    fields.payload = "payload";
    return BuildFrame(fields);
}

uint64_t pts_of(const Flumen::CMediaFrame& frame) {
    return frame.getPts(Flumen::PTS_TYPE_MS);
}

KXHeader header_of(const Flumen::CMediaFrame& frame) {
    KXHeader header;
    EXPECT_TRUE(kx_read_header(frame.getBuffer(), frame.size(), header));
    EXPECT_EQ(header.checksum, kx_header_checksum(frame.getBuffer()));
    return header;
}

}  // namespace

TEST(FrameTimeRepair, KeepsAudioNearVideoAndStampsInOrder) {
    struct Step {
        char type;
        uint64_t in;
        uint64_t out;
    };
    const struct {
        const char* name;
        std::vector<Step> steps;
    } rows[] = {
        {"audio 101 ms off is moved, 100 ms off isn't", {{'I', 5000, 5000}, {'A', 4899, 5000}}},
        {"audio 100 ms off stays", {{'I', 5000, 5000}, {'A', 5100, 5100}}},
        {"audio alone keeps its own time", {{'A', 20, 20}, {'A', 40, 40}, {'A', 400, 400}, {'A', 3000, 3000}}},
        {"audio after a second without video is free", {{'A', 0, 0}, {'I', 0, 0}, {'A', 90, 90}, {'A', 1001, 1001}}},
        {"audio far off the video follows it", {{'I', 100, 100}, {'A', 9000, 100}, {'P', 140, 140}, {'A', 9040, 140}}},
        {"audio that steps back", {{'A', 300, 300}, {'A', 290, 345}}},
        {"video that steps back", {{'I', 300, 300}, {'P', 299, 345}, {'P', 360, 360}}},
        {"50 frames a second over the wrap",
         {{'I', 65510, 65510}, {'A', 65520, 65520}, {'P', 65530, 65530}, {'P', 65550, 65550}, {'A', 65560, 65560}}},
        {"a new beginning", {{'I', 20000, 20000}, {'P', 1000, 1000}, {'P', 1040, 1040}}},
    };
    for (const auto& row : rows) {
        CFrameTimeRepair repair;
        for (const Step& step : row.steps) {
            Flumen::CMediaFrame frame = private_frame(step.type, step.in);
            repair.Modify(frame);
            EXPECT_EQ(pts_of(frame), step.out) << row.name;
            EXPECT_EQ(header_of(frame).time_stamp, static_cast<uint16_t>(step.out)) << row.name;
        }
    }
}

TEST(FrameTimeRepair, LeavesOtherBytesAlone) {
    CFrameTimeRepair repair;
    for (const size_t size : {5u, 23u, 60u}) {
        Flumen::CMediaFrame frame(static_cast<unsigned int>(size));
        std::fill_n(frame.getBuffer(), size, KX_TYPE_AUDIO);
        repair.Modify(frame);
        EXPECT_EQ(std::count(frame.getBuffer(), frame.getBuffer() + size, KX_TYPE_AUDIO), static_cast<long>(size));
    }
}

TEST(FrameRateRepair, MeasuresOnTheFirstFrames) {
    struct Row {
        const char* name;
        std::vector<uint64_t> pts;
        std::vector<uint32_t> sequences;
        int rate;         // 0: not known yet
        size_t given;     // frames that came out by Modify
        size_t released;  // and by Release
    };
    const Row rows[] = {
        {"25 a second", {0, 40, 80, 120}, {1, 2, 3, 4}, 25, 1, 3},
        {"60 a second, uneven", {0, 17, 33, 50, 67}, {1, 2, 3, 4, 5}, 59, 2, 3},
        {"three frames don't tell", {0, 40, 80}, {1, 2, 3}, 0, 0, 0},
        {"a frame is missing", {0, 40, 120, 160}, {1, 2, 4, 5}, 25, 1, 3},
        {"the first is missing its next", {0, 80, 120, 160}, {1, 3, 4, 5}, 25, 1, 3},
        {"no time passes", {7, 7, 7, 7}, {1, 2, 3, 4}, 25, 1, 3},
        {"time runs back", {120, 80, 40, 0}, {1, 2, 3, 4}, 25, 1, 3},
        {"one a second, the frame in hand is dropped", {0, 1000, 2000}, {1, 2, 3}, 1, 1, 1},
        {"one in an hour", {0, 3600000}, {1, 2}, 25, 1, 0},
    };
    const CLogCapture log;
    for (const Row& row : rows) {
        CFrameRateRepair repair;
        std::vector<Flumen::CMediaFrame> out;
        for (size_t i = 0; i < row.pts.size(); ++i) {
            Flumen::CMediaFrame frame = private_frame('I', row.pts[i], row.sequences[i]);
            repair.Modify(frame);
            if (frame.valid()) {
                out.push_back(frame);
            }
        }
        EXPECT_EQ(out.size(), row.given) << row.name;
        for (Flumen::CMediaFrame frame = repair.Release(); frame.valid(); frame = repair.Release()) {
            out.push_back(frame);
        }
        EXPECT_EQ(out.size(), row.given + row.released) << row.name;
        EXPECT_EQ(repair.Rate(), row.rate) << row.name;
        for (const Flumen::CMediaFrame& frame : out) {
            EXPECT_EQ(frame.getBuffer()[RATE_OFFSET], row.rate) << row.name;
        }
    }
}

TEST(FrameRateRepair, WritesAKnownRateIntoKeyFramesOnly) {
    CFrameRateRepair repair;
    repair.SetRate(12);
    Flumen::CMediaFrame key = private_frame('I', 0);
    repair.Modify(key);
    EXPECT_EQ(key.getBuffer()[RATE_OFFSET], 12);
    Flumen::CMediaFrame other = private_frame('P', 0);
    repair.Modify(other);
    EXPECT_EQ(other.getBuffer()[RATE_OFFSET], private_frame('P', 0).getBuffer()[RATE_OFFSET]);
    Flumen::CMediaFrame bare(40);
    bare.setType('I');
    std::fill_n(bare.getBuffer(), 40, uint8_t{0x81});
    repair.Modify(bare);
    EXPECT_EQ(bare.getBuffer()[RATE_OFFSET], 0x81);
}

TEST(PrivateFrameFacts, UnwrapsTheStampAgainstTheFrameBefore) {
    const uint64_t start_s = 1600000000;
    CPrivateFrameFacts facts;
    const auto fill = [&](int type, uint64_t stamp, uint64_t seconds) {
        Flumen::CMediaFrame frame = private_frame(type, stamp, 5, static_cast<double>(seconds));
        frame.setPts(0, Flumen::PTS_TYPE_MS);
        frame.setType(0);
        facts.Fill(frame);
        EXPECT_EQ(frame.getType(), type);
        EXPECT_EQ(frame.getSequence(), 5);
        EXPECT_EQ(frame.getUtc(), static_cast<double>(seconds));
        return pts_of(frame);
    };
    const uint64_t first = fill('I', 1000, start_s);
    EXPECT_EQ(first & 0xFFFF, 1000u);
    EXPECT_LT(start_s * 1000 - first + 1000, 65536u + 1000);
    // The second of the wall clock turns at another moment than the stamp, and the stamp wraps.
    for (uint64_t i = 1; i < 4000; ++i) {
        ASSERT_EQ(fill(i % 2 == 0 ? 'P' : 'A', 1000 + i * 40, start_s + (i * 40 + 300) / 1000), first + i * 40) << i;
    }
    const uint64_t later_s = start_s + 160 + 31;
    const uint64_t later = fill('I', 7, later_s);
    EXPECT_EQ(later & 0xFFFF, 7u);
    EXPECT_GT(later + 65536, later_s * 1000);
    EXPECT_LE(later, later_s * 1000 + 999);
}

namespace {

// Packets of a private frame, each behind its header.
std::vector<Bytes> pieces_of(const Flumen::CMediaFrame& frame, uint16_t first_seq, size_t piece = 20, int channel = 0) {
    const Bytes bytes(frame.getBuffer(), frame.getBuffer() + frame.size());
    std::vector<Bytes> packets;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        RtpFields fields;
        fields.sequence = static_cast<uint16_t>(first_seq + packets.size());
        fields.marker = at + piece >= bytes.size();
        packets.push_back(Interleaved(channel, MakeRtp(fields, Part(bytes, at, piece))));
    }
    return packets;
}

Flumen::CMediaFrame run_of(const std::vector<Bytes>& packets) {
    Bytes all;
    for (const Bytes& packet : packets) {
        all = all + packet;
    }
    Flumen::CMediaFrame frame(static_cast<unsigned int>(all.size()));
    std::copy(all.begin(), all.end(), frame.getBuffer());
    return frame;
}

Bytes bytes_of(const Flumen::CMediaFrame& frame) {
    return Bytes(frame.getBuffer(), frame.getBuffer() + frame.size());
}

}  // namespace

TEST(PrivateFrameRun, JoinsFramesAndKeepsWhatFollowsAMarker) {
    const Flumen::CMediaFrame one = private_frame('I', 1);
    const Flumen::CMediaFrame two = private_frame('P', 2);
    std::vector<Bytes> packets = pieces_of(one, 65535);
    const size_t first = packets.size();
    for (const Bytes& packet : pieces_of(two, static_cast<uint16_t>(65535 + first))) {
        packets.push_back(packet);
    }
    // Cut anywhere into two runs, with packets that come again in between.
    for (size_t cut = 1; cut <= packets.size(); ++cut) {
        CPrivateFrameRun joiner;
        std::vector<Bytes> frames;
        const auto put = [&](const std::vector<Bytes>& run) {
            if (joiner.Put(run_of(run)) == 1) {
                for (Flumen::CMediaFrame frame = joiner.Take(); frame.valid(); frame = joiner.Take()) {
                    frames.push_back(bytes_of(frame));
                }
            }
        };
        put(std::vector<Bytes>(packets.begin(), packets.begin() + static_cast<long>(cut)));
        put({packets[cut - 1]});
        if (cut < packets.size()) {
            put(std::vector<Bytes>(packets.begin() + static_cast<long>(cut), packets.end()));
        }
        EXPECT_EQ(frames, (std::vector<Bytes>{bytes_of(one), bytes_of(two)})) << cut;
        EXPECT_FALSE(joiner.TakeDamage());
    }
}

TEST(PrivateFrameRun, DropsAFrameThatLacksAPacket) {
    const Flumen::CMediaFrame frames[] = {private_frame('I', 1), private_frame('P', 2), private_frame('P', 3)};
    std::vector<Bytes> packets;
    std::vector<size_t> owner;
    for (size_t i = 0; i < 3; ++i) {
        for (const Bytes& packet : pieces_of(frames[i], static_cast<uint16_t>(packets.size()))) {
            packets.push_back(packet);
            owner.push_back(i);
        }
    }
    for (size_t lost = 0; lost < packets.size(); ++lost) {
        CPrivateFrameRun joiner;
        std::vector<Bytes> out;
        for (size_t i = 0; i < packets.size(); ++i) {
            if (i != lost && joiner.Put(run_of({packets[i]})) == 1) {
                out.push_back(bytes_of(joiner.Take()));
            }
        }
        std::vector<Bytes> expected;
        for (size_t i = 0; i < 3; ++i) {
            if (i != owner[lost]) {
                expected.push_back(bytes_of(frames[i]));
            }
        }
        EXPECT_EQ(out, expected) << lost;
    }
}

TEST(PrivateFrameRun, KeepsChannelsApartAndItsMemoryBounded) {
    const Flumen::CMediaFrame video = private_frame('I', 1);
    const Flumen::CMediaFrame audio = private_frame('A', 1);
    const std::vector<Bytes> one = pieces_of(video, 1);
    const std::vector<Bytes> two = pieces_of(audio, 900, 1000, 2);
    CPrivateFrameRun joiner;
    EXPECT_EQ(joiner.Put(run_of({one[0]})), 0);
    EXPECT_EQ(joiner.Put(run_of(two)), 1);
    EXPECT_EQ(bytes_of(joiner.Take()), bytes_of(audio));
    EXPECT_EQ(joiner.Put(run_of(std::vector<Bytes>(one.begin() + 1, one.end()))), 1);
    EXPECT_EQ(bytes_of(joiner.Take()), bytes_of(video));
    EXPECT_EQ(joiner.Put(run_of({Bytes{'$', 0, 0, 3, 1, 2, 3}})), -1);
    EXPECT_EQ(joiner.Put(run_of({Part(one[0], 0, 15)})), -1);

    RtpFields fields;
    fields.sequence = 2000;
    const Bytes magic = {'K', 'X', 'A', 'V'};
    for (uint32_t size = 0; size <= CPrivateFrameRun::MAX_FRAME; size += 65000) {
        EXPECT_FALSE(joiner.TakeDamage());
        EXPECT_EQ(joiner.Put(run_of({Interleaved(0, MakeRtp(fields, magic + Bytes(64996)))})), 0);
        ++fields.sequence;
    }
    EXPECT_TRUE(joiner.TakeDamage());
}
