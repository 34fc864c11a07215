// The private frame: layout, checksums, and the functions that read it.
#include <gtest/gtest.h>

#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/SampleTable.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/frames.txt";

Bytes write_frame(CKXFrame& frame, const Bytes& payload) {
    uint32_t offset = 0;
    Bytes out(frame.GetFrameSize(static_cast<uint32_t>(payload.size()), offset), 0xEE);
    std::copy(payload.begin(), payload.end(), out.begin() + offset);
    EXPECT_EQ(frame.WriteFrame(out.data(), static_cast<uint32_t>(out.size())), 0);
    return out;
}

TEST(KXFrame, ExtensionFollowsTypeAndSize) {
    for (const auto& row : ReadTable(TABLES, "extensions", 2)) {
        SCOPED_TRACE(row[0] + " " + row[1]);
        const std::vector<int> sizes = Numbers(row[1]);
        CKXFrame frame;
        frame.SetFrameType(row[0][0]);
        frame.SetImageSize(static_cast<uint16_t>(sizes[0]), static_cast<uint16_t>(sizes[1]));
        const Bytes out = write_frame(frame, {1, 0, 0, 0, 2});
        ASSERT_EQ(out.size(), 24u + static_cast<size_t>(sizes[2]) + 5 + 8);
        EXPECT_EQ(out[22], sizes[2]);
        int remaining = 0;
        EXPECT_EQ(get_frame_body(out.data(), static_cast<int>(out.size()), remaining), 24 + sizes[2]);
        EXPECT_EQ(remaining, 5);
        // The block with the payload's checksum is the last one; behind the payload the trailer repeats the length.
        const Bytes trailer = FromHex("6b786176") + Part(out, 12, 4);
        EXPECT_EQ(Part(out, out.size() - 21), FromHex("88030000 00000000 0100000002") + trailer);
    }
}

// The example of docs/private-frame.md.
TEST(KXFrame, BytesOfAKeyFrameAndOfAnAudioFrame) {
    CKXFrame frame;
    frame.SetFrameType('I');
    frame.SetChannel(1);
    frame.SetSequence(7);
    frame.SetDateTime(1714979289);
    frame.SetTimeStamp(0x1234);
    frame.SetEncodeType(KX_VIDEO_H264);
    frame.SetFrameRate(25);
    frame.SetImageType(1);
    frame.SetImageSize(640, 480);
    EXPECT_EQ(write_frame(frame, {0, 0, 0, 1, 0x65, 0x88, 0x84}),
              FromHex("4b584156 fd000100 07000000 37000000 09724c61 341210f4 81010219 8001503c 8865888401000000"
                      "00000001 658884 6b786176 37000000"));

    CKXFrame audio;
    audio.SetFrameType('A');
    audio.SetEncodeType(KX_AUDIO_PCMA);
    audio.SetAudioInfo(1, 2);
    EXPECT_EQ(Part(write_frame(audio, {7}), 24, 4), (Bytes{0x83, 1, 14, 2}));
    EXPECT_EQ(audio.GetEncodeType(), KX_AUDIO_PCMA);
}

TEST(KXFrame, WriteRefusesAnotherLengthThanWasSettled) {
    CKXFrame frame;
    unsigned char buffer[64] = {};
    uint32_t offset = 0;
    EXPECT_EQ(frame.WriteFrame(buffer, 0), -1);  // nothing settled yet
    const uint32_t size = frame.GetFrameSize(4, offset);
    EXPECT_EQ(frame.WriteFrame(buffer, size + 1), -1);
    frame.SetFrameType('I');  // changes the extension
    EXPECT_EQ(frame.WriteFrame(buffer, size), -1);
    EXPECT_EQ(frame.GetFrameSize(0xFFFFFFF0, offset), 0u);
}

TEST(KXFrame, ChecksumsAndTables) {
    const unsigned char payload[] = {0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0};
    EXPECT_EQ(kx_payload_checksum(payload, sizeof(payload)), 1u);
    for (const int letter : {'I', 'P', 'B', 'A', 'W'}) {
        EXPECT_EQ(kx_letter_of_type(kx_type_of_letter(letter)), letter);
    }
    EXPECT_EQ(kx_letter_of_type(kx_type_of_letter('J')), 0);  // one-way, and to stay so
    for (int code = 1; code <= 9; ++code) {
        EXPECT_EQ(kx_sample_rate_code(kx_sample_rate(code)), code);
    }
    EXPECT_EQ(kx_sample_rate(10) + kx_sample_rate_code(12345) + kx_sample_rate_code(0), 0);
    EXPECT_EQ(kx_audio_code("pcma"), 14);
    EXPECT_EQ(kx_audio_code("OPUS"), 10);
    EXPECT_EQ(kx_audio_code(nullptr), 10);
    for (const uint64_t time : {CTime(2000, 1, 1, 0, 0, 0).makeTime(), CTime(2063, 12, 31, 23, 59, 59).makeTime()}) {
        EXPECT_EQ(kx_unpack_date_time(kx_pack_date_time(time)), time);
    }
}

TEST(KXFrame, BodyOfBareShortAndLyingBuffers) {
    for (const auto& row : ReadTable(TABLES, "bodies", 3)) {
        SCOPED_TRACE(row[0]);
        const Bytes data = FromHex(row[0]);
        int remaining = -5;
        EXPECT_EQ(std::to_string(get_frame_body(data.data(), static_cast<int>(data.size()), remaining)), row[1]);
        EXPECT_EQ(std::to_string(remaining), row[2]);
    }
}

TEST(KXFrame, VideoInfoWalksTheBlocksWithItsOldPolarity) {
    for (const auto& row : ReadTable(TABLES, "video info", 4)) {
        SCOPED_TRACE(row[0]);
        const Bytes data = FromHex(row[1]);
        CLogCapture log;
        EXPECT_EQ(std::to_string(parser_video_info(data.data(), static_cast<int>(data.size()))), row[2]);
        EXPECT_EQ(log.Lines().size(), row[3].empty() ? 0u : 1u);
        EXPECT_EQ(static_cast<size_t>(log.Count(row[3])), log.Lines().size());
    }
    EXPECT_EQ(parser_video_info(nullptr, 100), -1);
}

}  // namespace
}  // namespace Kavio::Support
