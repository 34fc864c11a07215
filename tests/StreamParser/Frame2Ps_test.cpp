#include "StreamParser/Frame2Ps.h"

#include <gtest/gtest.h>

#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/PackerUnits.h"
#include "support/StreamBytes.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

namespace {

TEST(Frame2Ps, HeadersAreAsReadersExpectThem) {
    struct Row {
        int video, audio, bit_rate, enc_type;
        const char* pack;    // behind the clock
        const char* system;  // behind the start code
        const char* map;
        const char* pes;
    };
    const Row rows[] = {
        {STREAM_KIND_H264, STREAM_KIND_MP3, 4000000, ENC_TYPE_H264, "009c47 f8", "000c 804e23 04 e1 ff b8c040 b9e200",
         "000e e0ff 0000 0008 1be00000 03c10000 00000000", "e0"},
        {STREAM_KIND_H264, STREAM_KIND_AUDIO, 4000000, ENC_TYPE_AUDIO, "009c47 f8",
         "000c 804e23 04 e1 ff b8c040 b9e200", "000e e0ff 0000 0008 1be00000 00c10000 00000000", "c1"},
        {STREAM_KIND_MPEG4, STREAM_KIND_MPEG_AUDIO, 0, ENC_TYPE_MPEG_AUDIO, "000007 f8",
         "000c 800003 00 e2 ff b8c040 b9e200", "000e e0ff 0000 0008 10e00000 00e10000 00000000", "e0"},
    };
    const Bytes frame = FromHex("00000001 6588");
    for (const Row& row : rows) {
        CFrame2Ps packer;
        packer.SetPsInfo(row.video, row.audio, 8000, row.bit_rate);
        ASSERT_EQ(0, packer.PutFrame(frame.data(), 6, row.enc_type, 1000, 0));
        const std::vector<Bytes> units = UnitsOf(packer);
        ASSERT_EQ(4u, units.size());
        // 90000 ticks.
        EXPECT_EQ(ToHex(FromHex("000001ba 440016fc8401") + FromHex(row.pack)), ToHex(units[0]));
        EXPECT_EQ(ToHex(FromHex("000001bb") + FromHex(row.system)), ToHex(units[1]));
        EXPECT_EQ(ToHex(FromHex("000001bc") + FromHex(row.map)), ToHex(units[2]));
        EXPECT_EQ(ToHex(FromHex("000001") + FromHex(row.pes) + FromHex("0013 80c00a 310005bf21 110005bf21") + frame),
                  ToHex(units[3]));
    }
    CFrame2Ps unset;
    unset.PutFrame(frame.data(), 6, ENC_TYPE_H264, 0, 0);
    EXPECT_EQ("000001ba440004000401000003f8", ToHex(UnitsOf(unset)[0]));  // no rate told
    // The 33-bit clock wraps after 26.5 hours: 28 ticks behind that in the clock reference and both time stamps.
    unset.PutFrame(frame.data(), 6, ENC_TYPE_H264, 95443718, 0);
    const std::vector<Bytes> wrapped = UnitsOf(unset);
    EXPECT_EQ("000001ba44000400e401000003f8", ToHex(wrapped[0]));
    EXPECT_EQ("31000100391100010039", ToHex(wrapped[3]).substr(18, 20));
}

TEST(Frame2Ps, FramesAreCutIntoPesPackets) {
    struct Row {
        int max_pes;
        uint32_t len;
        std::vector<size_t> parts;
    };
    const Row rows[] = {{8000, 8000, {8000}},        {8000, 8001, {8000, 1}},    {500, 1001, {1000, 1}},
                        {-5, 1001, {1000, 1}},       {70000, 65001, {65000, 1}}, {1500, 4000, {1500, 1500, 1000}},
                        {65000, 65535, {65000, 535}}};
    for (const Row& row : rows) {
        CFrame2Ps packer;
        packer.SetPsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, row.max_pes, 1000000);
        Bytes frame(row.len);
        for (uint32_t i = 0; i < row.len; ++i) {
            frame[i] = static_cast<uint8_t>(i * 7);
        }
        ASSERT_EQ(0, packer.PutFrame(frame.data(), row.len, ENC_TYPE_H264, 0, 0));
        EXPECT_EQ(static_cast<int>(row.parts.size()) + 3, packer.GetPacketCount());
        const std::vector<Bytes> units = UnitsOf(packer);
        Bytes all;
        for (size_t i = 0; i < row.parts.size(); ++i) {
            const Bytes& unit = units[3 + i];
            EXPECT_EQ(row.parts[i] + 19, unit.size()) << row.max_pes;
            EXPECT_EQ(row.parts[i] + 13, static_cast<size_t>(unit[4] << 8 | unit[5]));
            all.insert(all.end(), unit.begin() + 19, unit.end());
        }
        EXPECT_EQ(frame, all) << row.max_pes;
    }
}

TEST(Frame2Ps, RefusalsLeaveItInUse) {
    CFrame2Ps packer;
    packer.SetPsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 1000, 1000000);
    const Bytes huge(STREAM_BUFFER_LEN + 1, 7);
    // 14 + 18 + 24 bytes of headers; 514 full parts of 1019 bytes leave room for one of 447 bytes behind its header.
    const uint32_t most = 514 * 1000 + 447;
    for (const uint32_t len : {0u, most + 1, STREAM_BUFFER_LEN, STREAM_BUFFER_LEN + 1}) {
        Support::CLogCapture log;
        EXPECT_EQ(-1, packer.PutFrame(huge.data(), len, ENC_TYPE_H264, 0, 0)) << len;
        EXPECT_EQ(len > 0, log.Count("CFrame2Ps::PutFrame PsStream fail\n"));
        EXPECT_EQ(0, packer.GetPacketCount());
        EXPECT_EQ(0, packer.GetPacketSize());
        EXPECT_EQ(0, packer.GetTotalSize());
        EXPECT_EQ(-1, packer.NextPacket());
        EXPECT_EQ(0, packer.PutFrame(huge.data(), most, ENC_TYPE_H264, 0, 0));
        EXPECT_EQ(518, packer.GetPacketCount());
        EXPECT_EQ(static_cast<int>(STREAM_BUFFER_LEN), packer.GetTotalSize());
    }
    EXPECT_EQ(-1, packer.PutFrame(nullptr, 5, ENC_TYPE_H264, 0, 0));
}

}  // namespace
}  // namespace Support
}  // namespace Kavio
