// The packetiser: how each codec is cut, the RTP header and the time line.
#include <gtest/gtest.h>

#include "StreamParser/Frame2Rtp.h"
#include "StreamParser/RtpHeader.h"
#include "support/Capture.h"
#include "support/PackerUnits.h"

namespace Kavio::Support {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/frames.txt";

struct Packet {
    Bytes bytes, payload;
    RtpHeader header;
};

// Cuts a frame into well-formed packets, the last of which has the marker if there is to be one.
std::vector<Packet> cut(CFrame2Rtp& packer, const Bytes& frame, int enc_type, uint64_t pts = 1, uint8_t extra = 0,
                        bool marked = true) {
    std::vector<Packet> packets;
    if (packer.PutFrame(frame.data(), static_cast<unsigned>(frame.size()), enc_type, pts, extra) != 0) {
        EXPECT_EQ(packer.GetPacketSize() + packer.GetTotalSize(), 0);
        return packets;
    }
    const std::vector<Bytes> units = UnitsOf(packer, packer.GetExtensionSize());
    for (const Bytes& unit : units) {
        Packet packet;
        packet.bytes = unit;
        EXPECT_TRUE(rtp_parse_header(unit.data(), unit.size(), packet.header));
        EXPECT_EQ(packet.header.marker, marked && &unit == &units.back());
        packet.payload = Part(unit, unit.size() - packet.header.payload_len);  // all headers stand in front
        packets.push_back(packet);
    }
    return packets;
}

// The NAL units in the packets, by RFC 6184.
std::vector<Bytes> collect_nals(const std::vector<Packet>& packets) {
    std::vector<Bytes> nals;
    for (const Packet& packet : packets) {
        const Bytes& payload = packet.payload;
        EXPECT_LE(payload.size(), 1440u);
        if ((payload[0] & 31) != 28) {
            nals.push_back(payload);
            continue;
        }
        if ((payload[1] & 0x80) != 0) {
            nals.push_back({static_cast<uint8_t>((payload[0] & 0xE0) | (payload[1] & 31))});
        }
        nals.back() = nals.back() + Part(payload, 2);
    }
    return nals;
}

TEST(Frame2Rtp, NalUnitsAreToldApartIfTheyAreToBe) {
    CFrame2Rtp packer;
    packer.SetNalUnits(true);
    const Bytes frame = FromHex("000001 67 ~19 00000001 7f ~9 00000001 65 ~3000 00000001 000001 65 ~6 000000");
    EXPECT_EQ(collect_nals(cut(packer, frame, ENC_TYPE_H264)), UnitsFromHex("67 ~19, 65 ~3000, 65 ~6"));
    EXPECT_TRUE(cut(packer, Bytes{1, 2, 3, 4, 5}, ENC_TYPE_H264).empty());
}

TEST(Frame2Rtp, H264FrameSplitsAtParameterSetsAndNotAtSlices) {
    CFrame2Rtp packer;
    for (const auto& row : ReadTable(TABLES, "h264", 4)) {
        SCOPED_TRACE(row[0]);
        const std::vector<Packet> packets = cut(packer, FromHex(row[1]), ENC_TYPE_H264);
        EXPECT_EQ(collect_nals(packets), UnitsFromHex(row[2]));
        const std::vector<size_t> sizes = Numbers<size_t>(row[3]);
        for (size_t i = 0; i < sizes.size() && i < packets.size(); ++i) {
            EXPECT_EQ(packets[i].header.payload_len, sizes[i]) << i;
        }
    }
}

// RFC 3551 4.1: no marker within a talkspurt, and each packet has the time of its first sample.
TEST(Frame2Rtp, PiecesOfSoundHaveTimesOfTheirOwn) {
    CFrame2Rtp packer;
    packer.SetRtpInfo(1, 11, 0, 5000, 44100);
    packer.SetSound(false, 2);
    for (const uint32_t start : {5000u, 5000u + 441 * 4}) {
        const std::vector<Packet> packets = cut(packer, Ramp(3528), ENC_TYPE_AUDIO, start == 5000 ? 1 : 41, 0, false);
        ASSERT_EQ(3u, packets.size());
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(start + 720 * i, packets[i].header.timestamp);
        }
    }
}

TEST(Frame2Rtp, PlainAudioAndAssistFramesAreCutBySize) {
    CFrame2Rtp packer;
    for (const auto& row : ReadTable(TABLES, "cuts", 3)) {
        SCOPED_TRACE(row[0]);
        const std::vector<int> codec_and_size = Numbers(row[0]), sizes = Numbers(row[2]);
        const int enc_type = codec_and_size[0];
        const Bytes frame = Ramp(static_cast<size_t>(codec_and_size[1]));
        const std::vector<Packet> packets = cut(packer, frame, enc_type, 1, 0x42);
        ASSERT_EQ(packets.size(), sizes.size());
        Bytes media;
        for (size_t i = 0; i < packets.size(); ++i) {
            const Bytes& payload = packets[i].payload;
            EXPECT_EQ(payload.size(), static_cast<size_t>(sizes[i]));
            Bytes header = i == 0 ? FromHex(row[1]) : Bytes();
            if (enc_type == ENC_TYPE_MPEG_AUDIO) {  // RFC 2250 3.5
                header = {0, 0, static_cast<uint8_t>(media.size() >> 8), static_cast<uint8_t>(media.size())};
            }
            EXPECT_EQ(Part(payload, 0, header.size()), header);
            media = media + Part(payload, header.size());
        }
        EXPECT_EQ(media, frame);
    }
}

TEST(Frame2Rtp, JpegHeadersFollowTheImage) {
    CFrame2Rtp packer;
    for (const auto& row : ReadTable(TABLES, "jpeg", 4)) {
        SCOPED_TRACE(row[0]);
        const std::vector<Packet> packets = cut(packer, FromHex(row[1] + " " + row[3]), ENC_TYPE_JPEG);
        ASSERT_FALSE(packets.empty());
        Bytes scan, header = FromHex(row[2]);
        for (const Packet& packet : packets) {
            header[2] = static_cast<uint8_t>(scan.size() >> 8);
            header[3] = static_cast<uint8_t>(scan.size());
            // Behind the first header stand the tables: 128 bytes, the first one's zeroth among them.
            const Bytes head = header + (scan.empty() ? Bytes{0, 0, 0, 128, 2} : Bytes());
            EXPECT_EQ(Part(packet.payload, 0, head.size()), head);
            EXPECT_TRUE(packet.payload.size() == header.size() + 1428 || packet.header.marker);
            scan = scan + Part(packet.payload, head.size() + (scan.empty() ? 127 : 0));
        }
        EXPECT_EQ(scan, FromHex(row[3]));
    }
}

TEST(Frame2Rtp, BadFramesFailWithALogLineAndLeaveThePackerUsable) {
    CFrame2Rtp packer;
    for (const auto& row : ReadTable(TABLES, "bad frames", 4)) {
        SCOPED_TRACE(row[0]);
        CLogCapture log;
        EXPECT_TRUE(cut(packer, FromHex(row[2]), std::stoi(row[1])).empty());
        EXPECT_EQ(log.Count(row[3]), 1);
        EXPECT_EQ(log.Count("CFrame2Rtp::PutFrame error (enc type = " + row[1] + ")\n"), 1);
        EXPECT_EQ(cut(packer, {1, 2, 3}, ENC_TYPE_AUDIO).size(), 1u);
    }
    EXPECT_EQ(packer.PutFrame(nullptr, 5, ENC_TYPE_AUDIO, 0, 0), -1);
    CLogCapture log;
    EXPECT_EQ(packer.PutFrame(nullptr, 5, ENC_TYPE_JPEG, 0, 0), -1);
    EXPECT_EQ(log.Count(", INVALID PARAMETER.\n"), 1);
}

TEST(Frame2Rtp, HeaderExtensionRidesOnTheFirstPacketOfEachFrame) {
    const uint8_t extension[RTP_EXTENSION_LEN] = {0xAB, 0xAC, 0, 3, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    CFrame2Rtp packer;
    packer.SetRtpInfo(0x01020304, 96 | 0x80, 65535, 0xFFFFFFFF, 90000);
    packer.SetRtpFlags(0, extension);
    EXPECT_EQ(cut(packer, Ramp(10), ENC_TYPE_MPEG4, 1)[0].bytes.size(), 22u);
    packer.SetRtpFlags(RTP_FLAG_EXTENSION, extension);
    packer.SetRtpFlags(0, extension);  // flags are only added
    std::vector<Packet> packets = cut(packer, Ramp(1441), ENC_TYPE_MPEG4, 2);
    ASSERT_EQ(packets.size(), 2u);
    // Sequence 0 behind 65535; a millisecond is 90 ticks.
    EXPECT_EQ(Part(packets[0].bytes, 0, 28),
              FromHex("9060 0000 00000059 01020304") + Bytes(extension, extension + RTP_EXTENSION_LEN));
    EXPECT_EQ(packets[0].header.payload_len, 1440u);
    EXPECT_EQ(packets[1].bytes[0], 0x80);
    // A JPEG picture's extension is a word longer.
    const std::string image = "ffd8 ffc0 000b 08 0030 0040 01011100 ffdb 0084 00 ~129 ffda 0008 0101 0000 3f00 ~10";
    packets = cut(packer, FromHex(image), ENC_TYPE_JPEG, 3);
    EXPECT_EQ(Part(packets[0].bytes, 12, 4), FromHex("abac0004"));
    EXPECT_EQ(Part(packets[0].bytes, 28, 4), FromHex("ffd80002"));
    EXPECT_EQ(packets[0].header.payload_len, 8u + 132 + 10);
}

TEST(Frame2Rtp, TimeLineBeginsAnewAndReportsWhereItStands) {
    CFrame2Rtp packer;
    packer.SetRtpInfo(7, 8, 100, 5000, 44100);  // 441 ticks in ten milliseconds
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 1700000001000)[0].header.timestamp, 5000u);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 1700000001010)[0].header.timestamp, 5441u);
    RtpEncParam param;
    packer.GetRtpInfo(param);
    EXPECT_EQ(param.timestamp, 5441u);
    EXPECT_EQ(param.sequence, 102);
    EXPECT_EQ(param.ssrc, 7u);
    EXPECT_EQ(param.clock_rate, 44100u);
    for (int i = 0; i < 2; ++i) {  // an owner reads the state and sets it again, with no frame in between
        packer.SetRtpInfo(param.ssrc, 8, param.sequence, param.timestamp, 8000);
        packer.GetRtpInfo(param);
        EXPECT_EQ(param.timestamp, 5441u);
    }
    packer.SetRtpInfo(7, 8, 200, 9000, 8000);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 77777)[0].header.timestamp, 9000u);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 77776)[0].header.timestamp, 9000u - 8);  // a step back
    // A first frame at 0 doesn't begin the time line.
    packer.SetRtpInfo(7, 8, 200, 9000, 8000);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 0)[0].header.timestamp, 9000u);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 40)[0].header.timestamp, 9000u);
}

}  // namespace
}  // namespace Kavio::Support
