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
    const struct {
        int video, audio, bit_rate, enc_type;
        const char* pack;    // behind the clock
        const char* system;  // behind the start code
        const char* map;
        const char* pes;
    } rows[] = {
        {STREAM_KIND_H264, STREAM_KIND_MP3, 4000000, ENC_TYPE_H264, "009c47 f8", "000c 804e23 04 e1 ff b8c040 b9e200",
         "000e e0ff 0000 0008 1be00000 03c10000 00000000", "e0"},
        {STREAM_KIND_H264, STREAM_KIND_AUDIO, 4000000, ENC_TYPE_AUDIO, "009c47 f8",
         "000c 804e23 04 e1 ff b8c040 b9e200", "000e e0ff 0000 0008 1be00000 00c10000 00000000", "c1"},
        {STREAM_KIND_MPEG4, STREAM_KIND_MPEG_AUDIO, 0, ENC_TYPE_MPEG_AUDIO, "000007 f8",
         "000c 800003 00 e2 ff b8c040 b9e200", "000e e0ff 0000 0008 10e00000 00e10000 00000000", "e0"},
    };
    const Bytes frame = FromHex("00000001 6588");
    for (const auto& row : rows) {
        CFrame2Ps packer;
        packer.SetPsInfo(row.video, row.audio, 8000, row.bit_rate);
        const std::vector<Bytes> units = Pack(packer, frame, row.enc_type, 1000);
        ASSERT_EQ(4u, units.size());
        // 90000 ticks.
        EXPECT_EQ(ToHex(FromHex("000001ba 440016fc8401") + FromHex(row.pack)), ToHex(units[0]));
        EXPECT_EQ(ToHex(FromHex("000001bb") + FromHex(row.system)), ToHex(units[1]));
        EXPECT_EQ(ToHex(FromHex("000001bc") + FromHex(row.map)), ToHex(units[2]));
        EXPECT_EQ(ToHex(FromHex("000001") + FromHex(row.pes) + FromHex("0013 80c00a 310005bf21 110005bf21") + frame),
                  ToHex(units[3]));
    }
    CFrame2Ps unset;
    EXPECT_EQ("000001ba440004000401000003f8", ToHex(Pack(unset, frame, ENC_TYPE_H264, 0)[0]));  // no rate told
}

TEST(Frame2Ps, FramesAreCutIntoPesPackets) {
    const struct {
        int max_pes;
        uint32_t len;
        std::vector<size_t> parts;
    } rows[] = {{8000, 8000, {8000}},        {8000, 8001, {8000, 1}},    {500, 1001, {1000, 1}},
                {-5, 1001, {1000, 1}},       {70000, 65001, {65000, 1}}, {1500, 4000, {1500, 1500, 1000}},
                {65000, 65535, {65000, 535}}};
    for (const auto& row : rows) {
        CFrame2Ps packer;
        packer.SetPsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, row.max_pes, 1000000);
        const Bytes frame = Ramp(row.len);
        const std::vector<Bytes> units = Pack(packer, frame, ENC_TYPE_H264);
        ASSERT_EQ(row.parts.size() + 3, units.size());
        for (size_t i = 0; i < row.parts.size(); ++i) {
            EXPECT_EQ(row.parts[i] + 19, units[3 + i].size()) << row.max_pes;
            EXPECT_EQ(row.parts[i] + 13, static_cast<size_t>(units[3 + i][4] << 8 | units[3 + i][5]));
        }
    }
}

TEST(Frame2Ps, RefusalsLeaveItInUse) {
    CFrame2Ps packer;
    packer.SetPsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 1000, 1000000);
    // 14 + 18 + 24 bytes of headers; 514 full parts of 1019 bytes leave room for one of 447 bytes behind its header.
    const uint32_t most = 514 * 1000 + 447;
    for (const uint32_t len : {0u, most + 1, STREAM_BUFFER_LEN, STREAM_BUFFER_LEN + 1}) {
        CLogCapture log;
        EXPECT_TRUE(Pack(packer, Bytes(len, 7), ENC_TYPE_H264).empty()) << len;
        EXPECT_EQ(len > 0, log.Count("CFrame2Ps::PutFrame PsStream fail\n"));
        EXPECT_EQ(0, packer.PutFrame(Bytes(most, 7).data(), most, ENC_TYPE_H264, 0, 0));
        EXPECT_EQ(518, packer.GetPacketCount());
        EXPECT_EQ(static_cast<int>(STREAM_BUFFER_LEN), packer.GetTotalSize());
    }
    EXPECT_EQ(-1, packer.PutFrame(nullptr, 5, ENC_TYPE_H264, 0, 0));
}

}  // namespace
}  // namespace Support
}  // namespace Kavio
