// The packetiser: how each codec is cut, the RTP header, and the time line of a day.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "StreamParser/Frame2Rtp.h"
#include "StreamParser/RtpHeader.h"
#include "support/Capture.h"

namespace Kavio {
namespace Vidora {
namespace {

typedef std::vector<unsigned char> Bytes;

struct Packet {
    Bytes bytes;
    RtpHeader header;
    Bytes payload() const {
        const auto len = static_cast<long>(header.payload_len);  // all headers stand in front
        return Bytes(bytes.end() - len, bytes.end());
    }
};

// Cuts a frame; checks that counts and sizes told beforehand are those of the bytes.
std::vector<Packet> cut(CFrame2Rtp& packer, const Bytes& frame, int enc_type, uint64_t pts = 1, uint8_t extra = 0) {
    std::vector<Packet> packets;
    if (packer.PutFrame(frame.data(), static_cast<unsigned>(frame.size()), enc_type, pts, extra) != 0) {
        EXPECT_EQ(packer.GetPacketSize(), 0);
        return packets;
    }
    const int count = packer.GetPacketCount();
    int total = packer.GetTotalSize();
    for (int size = packer.GetPacketSize(); size > 0; size = packer.GetPacketSize()) {
        Packet packet;
        packet.bytes.resize(static_cast<size_t>(size) + packer.GetExtensionSize());
        const auto room = static_cast<unsigned>(packet.bytes.size());
        EXPECT_EQ(packer.GetPacket(packet.bytes.data(), room - 1), 0);  // one byte short: nothing happens
        EXPECT_EQ(packer.GetPacket(packet.bytes.data(), room), static_cast<int>(room));
        EXPECT_TRUE(rtp_parse_header(packet.bytes.data(), packet.bytes.size(), packet.header));
        packets.push_back(packet);
        total -= size;
        EXPECT_EQ(packer.NextPacket(), packets.size() < static_cast<size_t>(count) ? 0 : -1);
        EXPECT_EQ(packer.GetTotalSize(), total);
    }
    EXPECT_EQ(packets.size(), static_cast<size_t>(count));
    EXPECT_EQ(total, 0);
    for (size_t i = 0; i < packets.size(); ++i) {
        EXPECT_EQ(packets[i].header.marker, i + 1 == packets.size());
    }
    return packets;
}

// A NAL unit of `size` bytes with no start code inside.
Bytes nal(unsigned char header, size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>(i % 251 + 2);
    }
    if (size > 0) {
        bytes[0] = header;
    }
    return bytes;
}

Bytes join(const std::vector<Bytes>& parts, bool codes = true) {
    Bytes all;
    for (const Bytes& part : parts) {
        if (codes) {
            all.insert(all.end(), {0, 0, 0, 1});
        }
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// The NAL units in the packets, by RFC 6184.
std::vector<Bytes> collect_nals(const std::vector<Packet>& packets) {
    std::vector<Bytes> nals;
    for (const Packet& packet : packets) {
        const Bytes payload = packet.payload();
        EXPECT_LE(payload.size(), 1440u);
        if ((payload[0] & 31) != 28) {
            nals.push_back(payload);
            continue;
        }
        if ((payload[1] & 0x80) != 0) {
            nals.push_back({static_cast<unsigned char>((payload[0] & 0xE0) | (payload[1] & 31))});
        }
        nals.back().insert(nals.back().end(), payload.begin() + 2, payload.end());
    }
    return nals;
}

TEST(Frame2RtpTest, H264FrameSplitsAtParameterSetsAndNotAtSlices) {
    const Bytes sps = nal(0x67, 20), pps = nal(0x68, 5), idr = nal(0x65, 3000), slice = nal(0x41, 1440);
    const Bytes sei = nal(0x06, 1441);
    const Bytes slices = join({slice, slice});
    Bytes late = {9, 9};  // a start code that isn't at the front
    const Bytes tail = join({slice});
    late.insert(late.end(), tail.begin(), tail.end());
    Bytes three = nal(0x67, 8);  // parameter set, then a slice behind a three-byte code, which isn't seen
    three.insert(three.end(), {0, 0, 1, 0x65, 7, 7});
    struct {
        const char* name;
        Bytes frame;
        std::vector<Bytes> nals;
        std::vector<size_t> sizes;
    } rows[] = {
        {"key frame", join({sps, pps, idr}), {sps, pps, idr}, {20, 5, 1440, 1440, 125}},
        {"single slice", join({slice}), {slice}, {1440}},
        {"one byte more", join({nal(0x41, 1441)}), {nal(0x41, 1441)}, {1440, 4}},
        {"FU-A boundary", join({nal(0x41, 2877)}), {nal(0x41, 2877)}, {1440, 1440}},
        {"FU-A in front of others", join({sei, pps, idr}), {sei, pps, idr}, {1440, 4, 5, 1440, 1440, 125}},
        {"all slices in one", slices, {Bytes(slices.begin() + 4, slices.end())}, {}},
        {"code not in front", late, {Bytes(late.begin() + 4, late.end())}, {}},
        {"three-byte code", join({three}), {three}, {}},
        {"no slice at all", join({sps, pps}), {sps, pps}, {20, 5}},
        {"two codes in a row", join({sps, {}, idr}), {sps, idr}, {}},
        {"last NAL of one byte", join({sps, {0x65}}), {sps, {0x65}}, {20, 1}},
    };
    CFrame2Rtp packer;
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::vector<Packet> packets = cut(packer, row.frame, ENC_TYPE_H264);
        EXPECT_EQ(collect_nals(packets), row.nals);
        for (size_t i = 0; i < row.sizes.size() && i < packets.size(); ++i) {
            EXPECT_EQ(packets[i].header.payload_len, row.sizes[i]) << i;
        }
    }
}

TEST(Frame2RtpTest, PlainAudioAndAssistFramesAreCutBySize) {
    struct {
        int enc_type;
        size_t len;
        std::vector<size_t> sizes;  // payloads, headers included
    } rows[] = {
        {ENC_TYPE_MPEG4, 1440, {1440}},
        {ENC_TYPE_MPEG4, 1441, {1440, 1}},
        {ENC_TYPE_AUDIO, 160, {160}},
        {ENC_TYPE_MPEG_AUDIO, 1436, {1440}},
        {ENC_TYPE_MPEG_AUDIO, 1437, {1440, 5}},
        {ENC_TYPE_MPEG_AUDIO, 1436 * 8, std::vector<size_t>(8, 1440)},
        {ENC_TYPE_ASSIST, 1432, {1440}},
        {ENC_TYPE_ASSIST, 1433, {1440, 1}},
        {ENC_TYPE_ASSIST, 2873, {1440, 1440, 1}},
    };
    CFrame2Rtp packer;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.enc_type) + ", " + std::to_string(row.len));
        const Bytes frame = nal(1, row.len);
        const std::vector<Packet> packets = cut(packer, frame, row.enc_type, 1, 0x42);
        ASSERT_EQ(packets.size(), row.sizes.size());
        Bytes media;
        for (size_t i = 0; i < packets.size(); ++i) {
            Bytes payload = packets[i].payload();
            EXPECT_EQ(payload.size(), row.sizes[i]);
            size_t header = 0;
            if (row.enc_type == ENC_TYPE_MPEG_AUDIO) {  // RFC 2250 3.5
                header = 4;
                EXPECT_EQ(payload[0] | payload[1], 0);
                EXPECT_EQ(static_cast<size_t>(payload[2] * 256 + payload[3]), media.size());
            } else if (row.enc_type == ENC_TYPE_ASSIST && i == 0) {
                header = 8;
                EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 8), (Bytes{0x42, 0, 0, 0, 0, 0, 0, 0}));
            }
            media.insert(media.end(), payload.begin() + static_cast<long>(header), payload.end());
        }
        EXPECT_EQ(media, frame);
    }
}

// A baseline image with these segments in front of the scan.
Bytes jpeg(unsigned width, unsigned height, const Bytes& extra, size_t scan_len) {
    Bytes image = {0xFF, 0xD8, 0xFF, 0xC0, 0, 11, 8};
    for (const unsigned side : {height, width}) {
        image.push_back(static_cast<unsigned char>(side >> 8));
        image.push_back(static_cast<unsigned char>(side));
    }
    image.insert(image.end(), {1, 1, 0x11, 0});
    image.insert(image.end(), extra.begin(), extra.end());
    image.insert(image.end(), {0xFF, 0xDA, 0, 8, 1, 1, 0, 0, 63, 0});
    const Bytes scan = nal(1, scan_len);
    image.insert(image.end(), scan.begin(), scan.end());
    return image;
}

Bytes dqt(unsigned length, unsigned char destination, size_t present) {
    Bytes segment = {0xFF, 0xDB, static_cast<unsigned char>(length >> 8), static_cast<unsigned char>(length),
                     destination};
    for (size_t i = 0; i < present; ++i) {
        segment.push_back(static_cast<unsigned char>(i < 64 ? i : 100 + i % 65));
    }
    return segment;
}

TEST(Frame2RtpTest, JpegHeadersFollowTheImage) {
    const Bytes both = dqt(132, 0, 129);
    const Bytes restart = join({both, {0xFF, 0xDD, 0, 4, 1, 2}}, false);
    const Bytes split = join({dqt(67, 1, 64), dqt(67, 0, 64)}, false);
    struct {
        const char* name;
        Bytes image;
        Bytes head;  // main and restart header
        size_t scan_len;
    } rows[] = {
        {"both tables in one segment", jpeg(640, 480, both, 3000), {0, 0, 0, 0, 1, 128, 80, 60}, 3000},
        {"a table a segment", jpeg(640, 480, split, 10), {0, 0, 0, 0, 1, 128, 80, 60}, 10},
        {"one table for all", jpeg(640, 480, dqt(67, 0, 64), 10), {0, 0, 0, 0, 1, 128, 80, 60}, 10},
        {"2048 wide", jpeg(2048, 1084, both, 1), {0, 0, 0, 0, 1, 128, 255, 135}, 1},
        {"restart markers", jpeg(64, 48, restart, 3000), {0, 0, 0, 0, 65, 128, 8, 6, 1, 2, 0xFF, 0xFF}, 3000},
    };
    CFrame2Rtp packer;
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::vector<Packet> packets = cut(packer, row.image, ENC_TYPE_JPEG);
        ASSERT_FALSE(packets.empty());
        Bytes scan;
        for (const Packet& packet : packets) {
            Bytes payload = packet.payload();
            size_t header = row.head.size();
            row.head[1] = static_cast<unsigned char>(scan.size() >> 16);
            row.head[2] = static_cast<unsigned char>(scan.size() >> 8);
            row.head[3] = static_cast<unsigned char>(scan.size());
            EXPECT_EQ(Bytes(payload.begin(), payload.begin() + static_cast<long>(header)), row.head);
            if (scan.empty()) {
                const Bytes quant(payload.begin() + static_cast<long>(header),
                                  payload.begin() + static_cast<long>(header) + 4 + 128);
                EXPECT_EQ(Bytes(quant.begin(), quant.begin() + 5), (Bytes{0, 0, 0, 128, 0}));
                header += 4 + 128;
            }
            EXPECT_LE(packet.bytes.size(), 12u + 1440);
            scan.insert(scan.end(), payload.begin() + static_cast<long>(header), payload.end());
        }
        EXPECT_EQ(scan, nal(1, row.scan_len));
    }
    // Sizes of the pieces: 1428 bytes of scan a packet, less the tables in the first.
    const std::vector<Packet> packets = cut(packer, rows[0].image, ENC_TYPE_JPEG);
    EXPECT_EQ(packets[0].header.payload_len, 8u + 132 + 1296);
    EXPECT_EQ(packets[1].header.payload_len, 8u + 1428);
}

TEST(Frame2RtpTest, BadFramesFailWithALogLineAndLeaveThePackerUsable) {
    Bytes cut_image = jpeg(64, 48, dqt(132, 0, 129), 0);
    cut_image.resize(cut_image.size() - 4);
    struct {
        const char* name;
        int enc_type;
        Bytes frame;
        const char* log;
    } rows[] = {
        {"H.264 without a start code", ENC_TYPE_H264, nal(0x65, 100), "error (enc type = 1)"},
        {"H.264 that ends in its start code", ENC_TYPE_H264, {0, 0, 0, 1}, "error (enc type = 1)"},
        {"empty audio", ENC_TYPE_AUDIO, {}, "error (enc type = 6)"},
        {"MPEG audio of nine pieces", ENC_TYPE_MPEG_AUDIO, nal(1, 1436 * 8 + 1), "error (enc type = 5)"},
        {"metadata", ENC_TYPE_ONVIF_METADATA, {1, 2}, "enc_type[8] unknown!"},
        {"not a JPEG", ENC_TYPE_JPEG, nal(1, 100), "parse jpeg failed."},
        {"JPEG cut in SOS", ENC_TYPE_JPEG, cut_image, "parse jpeg failed."},
        {"JPEG without tables", ENC_TYPE_JPEG, jpeg(64, 48, {}, 10), "parse jpeg failed."},
        {"JPEG table longer than its segment", ENC_TYPE_JPEG, jpeg(64, 48, dqt(80, 0, 129), 10), "parse jpeg failed."},
        {"JPEG segment longer than the rest", ENC_TYPE_JPEG, jpeg(64, 48, {0xFF, 0xE0, 0xFF, 0xFF}, 10), "parse jpeg"},
        {"JPEG segment of length 1", ENC_TYPE_JPEG, jpeg(64, 48, {0xFF, 0xE0, 0, 1}, 10), "parse jpeg failed."},
        {"JPEG of fill bytes", ENC_TYPE_JPEG, Bytes(100, 0xFF), "parse jpeg failed."},
        {"JPEG scan beyond 24 bits", ENC_TYPE_JPEG, jpeg(64, 48, dqt(132, 0, 129), 0x1000000), "parse jpeg failed."},
    };
    CFrame2Rtp packer;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Support::CLogCapture log;
        EXPECT_TRUE(cut(packer, row.frame, row.enc_type).empty());
        EXPECT_EQ(log.Count(row.log), 1);
        EXPECT_EQ(log.Count("CFrame2Rtp::PutFrame error (enc type = " + std::to_string(row.enc_type) + ")\n"), 1);
        EXPECT_EQ(packer.GetTotalSize(), 0);
        EXPECT_EQ(cut(packer, {1, 2, 3}, ENC_TYPE_AUDIO).size(), 1u);
    }
    EXPECT_EQ(packer.PutFrame(nullptr, 5, ENC_TYPE_AUDIO, 0, 0), -1);
    Support::CLogCapture log;
    EXPECT_EQ(packer.PutFrame(nullptr, 5, ENC_TYPE_JPEG, 0, 0), -1);
    EXPECT_EQ(log.Count(", INVALID PARAMETER.\n"), 1);
}

TEST(Frame2RtpTest, HeaderExtensionRidesOnTheFirstPacketOfEachFrame) {
    const uint8_t extension[RTP_EXTENSION_LEN] = {0xAB, 0xAC, 0, 3, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    CFrame2Rtp packer;
    packer.SetRtpInfo(0x01020304, 96 | 0x80, 65535, 0xFFFFFFFF, 90000);
    packer.SetRtpFlags(0, extension);
    EXPECT_EQ(cut(packer, nal(1, 10), ENC_TYPE_MPEG4, 1)[0].bytes.size(), 22u);
    packer.SetRtpFlags(RTP_FLAG_EXTENSION, extension);
    packer.SetRtpFlags(0, extension);  // flags are only added
    std::vector<Packet> packets = cut(packer, nal(1, 1441), ENC_TYPE_MPEG4, 2);
    ASSERT_EQ(packets.size(), 2u);
    Bytes head = {0x90, 0x60, 0, 0, 0, 0, 0, 89, 1, 2, 3, 4};  // sequence 0 behind 65535; a millisecond is 90 ticks
    head.insert(head.end(), extension, extension + RTP_EXTENSION_LEN);
    EXPECT_EQ(Bytes(packets[0].bytes.begin(), packets[0].bytes.begin() + 28), head);
    EXPECT_EQ(packets[0].header.payload_len, 1440u);
    EXPECT_EQ(packets[1].bytes[0], 0x80);
    // A JPEG picture's extension is a word longer.
    packets = cut(packer, jpeg(64, 48, dqt(132, 0, 129), 10), ENC_TYPE_JPEG, 3);
    EXPECT_EQ(Bytes(packets[0].bytes.begin() + 12, packets[0].bytes.begin() + 16), (Bytes{0xAB, 0xAC, 0, 4}));
    EXPECT_EQ(Bytes(packets[0].bytes.begin() + 28, packets[0].bytes.begin() + 32), (Bytes{0xFF, 0xD8, 0, 2}));
    EXPECT_EQ(packets[0].header.payload_len, 8u + 132 + 10);
}

TEST(Frame2RtpTest, TimeLineBeginsAnewAndReportsWhereItStands) {
    CFrame2Rtp packer;
    packer.SetRtpInfo(7, 8, 100, 5000, 44100);  // 44 ticks a millisecond
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 1000)[0].header.timestamp, 5000u);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 1010)[0].header.timestamp, 5440u);
    RtpEncParam param;
    packer.GetRtpInfo(param);
    EXPECT_EQ(param.timestamp, 5440u);
    EXPECT_EQ(param.sequence, 102);
    EXPECT_EQ(param.ssrc, 7u);
    EXPECT_EQ(param.clock_rate, 44100u);
    for (int i = 0; i < 2; ++i) {  // an owner reads the state and sets it again, with no frame in between
        packer.SetRtpInfo(param.ssrc, 8, param.sequence, param.timestamp, 8000);
        packer.GetRtpInfo(param);
        EXPECT_EQ(param.timestamp, 5440u);
    }
    packer.SetRtpInfo(7, 8, 200, 9000, 8000);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 77777)[0].header.timestamp, 9000u);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 77776)[0].header.timestamp, 9000u - 8);  // a step back
    // A first frame at 0 doesn't begin the time line.
    packer.SetRtpInfo(7, 8, 200, 9000, 8000);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 0)[0].header.timestamp, 9000u);
    EXPECT_EQ(cut(packer, {1}, ENC_TYPE_AUDIO, 40)[0].header.timestamp, 9000u);
}

TEST(Frame2RtpTest, ADayOfFramesCountsThroughEveryWrap) {
    constexpr uint64_t FRAMES = 24 * 3600 * 25;
    CFrame2Rtp packer;
    packer.SetRtpInfo(1, 96, 65000, 0xF0000000, 90000);
    const Bytes frame = join({nal(0x41, 3)});
    unsigned char buffer[64];
    RtpHeader header;
    for (uint64_t i = 0; i < FRAMES; ++i) {
        // Milliseconds as a source has them: since 1970, 40 apart.
        ASSERT_EQ(packer.PutFrame(frame.data(), 7, ENC_TYPE_H264, 1700000000000 + i * 40, 0), 0);
        ASSERT_EQ(packer.GetPacket(buffer, sizeof(buffer)), 15);
        ASSERT_TRUE(rtp_parse_header(buffer, 15, header));
        ASSERT_EQ(header.sequence, static_cast<uint16_t>(65000 + i));
        ASSERT_EQ(header.timestamp, static_cast<uint32_t>(0xF0000000 + i * 3600));
    }
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
