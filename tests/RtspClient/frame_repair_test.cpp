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
#include "support/SampleTable.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;
namespace Flumen = Kavio::Flumen;

namespace {

const int RATE_OFFSET = 27;

Flumen::CMediaFrame private_frame(int type, uint64_t pts_ms, uint32_t sequence = 0, double utc = 1600000000.0) {
    return BuildFrame({type, sequence, pts_ms, "payload", KX_VIDEO_H264, utc});
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
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/frames.txt", "times", 2)) {
        CFrameTimeRepair repair;
        for (const std::string& step : SplitText(row[1], ',')) {
            const std::vector<uint64_t> times = Numbers<uint64_t>(step.substr(1));
            Flumen::CMediaFrame frame = private_frame(step[0], times.at(0));
            repair.Modify(frame);
            EXPECT_EQ(pts_of(frame), times.at(1)) << row[0];
            EXPECT_EQ(header_of(frame).time_stamp, static_cast<uint16_t>(times[1])) << row[0];
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
    const CLogCapture log;
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/frames.txt", "rates", 4)) {
        SCOPED_TRACE(row[0]);
        const std::vector<uint64_t> pts = Numbers<uint64_t>(row[1]);
        const std::vector<uint32_t> sequences = Numbers<uint32_t>(row[2]);
        const std::vector<size_t> expected = Numbers<size_t>(row[3]);
        CFrameRateRepair repair;
        std::vector<Flumen::CMediaFrame> out;
        for (size_t i = 0; i < pts.size(); ++i) {
            Flumen::CMediaFrame frame = private_frame('I', pts[i], sequences.at(i));
            repair.Modify(frame);
            if (frame.valid()) {
                out.push_back(frame);
            }
        }
        EXPECT_EQ(out.size(), expected.at(1));
        repair.End();
        for (Flumen::CMediaFrame frame = repair.Release(); frame.valid(); frame = repair.Release()) {
            out.push_back(frame);
        }
        EXPECT_EQ(out.size(), expected[1] + expected.at(2));
        const int rate = static_cast<int>(expected[0]);
        EXPECT_EQ(repair.Rate(), rate);
        for (const Flumen::CMediaFrame& frame : out) {
            EXPECT_EQ(frame.getBuffer()[RATE_OFFSET], rate);
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
    const Bytes bytes = BytesOf(frame);
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
    return FrameOf(all);
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
                    frames.push_back(BytesOf(frame));
                }
            }
        };
        put(std::vector<Bytes>(packets.begin(), packets.begin() + static_cast<long>(cut)));
        put({packets[cut - 1]});
        if (cut < packets.size()) {
            put(std::vector<Bytes>(packets.begin() + static_cast<long>(cut), packets.end()));
        }
        EXPECT_EQ(frames, (std::vector<Bytes>{BytesOf(one), BytesOf(two)})) << cut;
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
                out.push_back(BytesOf(joiner.Take()));
            }
        }
        std::vector<Bytes> expected;
        for (size_t i = 0; i < 3; ++i) {
            if (i != owner[lost]) {
                expected.push_back(BytesOf(frames[i]));
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
    EXPECT_EQ(BytesOf(joiner.Take()), BytesOf(audio));
    EXPECT_EQ(joiner.Put(run_of(std::vector<Bytes>(one.begin() + 1, one.end()))), 1);
    EXPECT_EQ(BytesOf(joiner.Take()), BytesOf(video));
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
