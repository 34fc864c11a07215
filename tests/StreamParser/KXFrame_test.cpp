// The private frame: layout, checksums, and the functions that read it.
#include <gtest/gtest.h>

#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/StreamBytes.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

namespace {

Bytes write_frame(CKXFrame& frame, const Bytes& payload) {
    uint32_t offset = 0;
    Bytes out(frame.GetFrameSize(static_cast<uint32_t>(payload.size()), offset), 0xEE);
    std::copy(payload.begin(), payload.end(), out.begin() + offset);
    EXPECT_EQ(frame.WriteFrame(out.data(), static_cast<uint32_t>(out.size())), 0);
    return out;
}

TEST(KXFrame, ExtensionFollowsTypeAndSize) {
    const struct {
        char letter;
        uint16_t width, height;
        uint8_t ext_length;
    } rows[] = {
        {'I', 640, 480, 16},  {'I', 1920, 1080, 16}, {'J', 640, 480, 16},  {'I', 2048, 480, 20},
        {'I', 640, 1084, 20}, {'I', 644, 480, 20},   {'I', 640, 2048, 20}, {'P', 640, 480, 8},
        {'B', 640, 480, 8},   {'W', 0, 0, 8},        {'A', 0, 0, 12},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::string(1, row.letter) + std::to_string(row.width));
        CKXFrame frame;
        frame.SetFrameType(row.letter);
        frame.SetImageSize(row.width, row.height);
        const Bytes out = write_frame(frame, {1, 0, 0, 0, 2});
        ASSERT_EQ(out.size(), 24u + row.ext_length + 5 + 8);
        EXPECT_EQ(out[22], row.ext_length);
        int remaining = 0;
        EXPECT_EQ(get_frame_body(out.data(), static_cast<int>(out.size()), remaining), 24 + row.ext_length);
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
    unsigned char header[24] = {0xFF, 0xF4};
    EXPECT_EQ(kx_header_checksum(header), 0xF3);  // of 0x1F3
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
    const auto claims = [](uint8_t ext_length) {  // 40 bytes with the magic
        return FromHex("4b584156") + Bytes(18, 0) + Bytes{ext_length} + Bytes(17, 0);
    };
    const struct {
        Bytes data;
        int offset, remaining;
    } rows[] = {{{0, 0, 0, 1, 0x65}, 0, 5}, {{}, 0, 0},
                {{'K', 'X', 'A'}, 0, 3},    {{'K', 'X', 'A', 'V'}, 0, 0},  // an offset above the length
                {claims(8), 32, 0},                                        // nothing between blocks and trailer
                {claims(12), 36, 0},                                       // the trailer cut
                {claims(255), 0, 0}};
    for (const auto& row : rows) {
        int remaining = -5;
        EXPECT_EQ(get_frame_body(row.data.data(), static_cast<int>(row.data.size()), remaining), row.offset);
        EXPECT_EQ(remaining, row.remaining);
    }
}

// An audio frame whose magic is damaged, which is what parser_video_info takes, with these extension blocks.
Bytes audio_with_blocks(const Bytes& blocks) {
    return FromHex("00000000 f0") + Bytes(17, 0) + Bytes{static_cast<uint8_t>(blocks.size()), 0} + blocks;
}

TEST(KXFrame, VideoInfoWalksTheBlocksWithItsOldPolarity) {
    struct {
        const char* name;
        Bytes data;
        int result;
        const char* log;
    } rows[] = {
        {"audio block first", audio_with_blocks({0x83, 1, 14, 2, 0x88, 0, 0, 0, 0, 0, 0, 0}), 14, ""},
        // Byte 26 of the buffer whichever block stands there.
        {"behind others", audio_with_blocks({0x81, 0, 9, 0, 0x80, 0, 0, 0, 0x83, 1, 14, 2}), 9, ""},
        {"variable block", audio_with_blocks({0x84, 0, 0, 6, 0, 0, 0x83, 1, 14, 2}), 0, ""},
        {"no audio block", audio_with_blocks({0x88, 0, 0, 0, 0, 0, 0, 0}), -1, ""},
        {"variable block of length 0", audio_with_blocks({0x84, 0, 0, 0, 0x83, 1, 14, 2}), -1, "error ext_type:0x84"},
        {"variable block cut", audio_with_blocks({0x84, 0}), -1, "error len:26"},
        {"audio block cut", audio_with_blocks({0x82, 0, 0, 0, 0, 0, 0, 0, 0x83, 1}), -1, "error len:34"},
        {"unknown block", audio_with_blocks({0x90, 0, 0, 0}), -1, "error ext_type:0x90"},
        {"too short", Bytes(23, 0), -1, ""},
        {"whole magic", FromHex("4b584156") + Part(audio_with_blocks({0x83, 1, 14, 2}), 4), -1,
         "parser_video_info not valid kxav tag \n"},
        {"video", FromHex("00000000 fd") + Bytes(19, 0), -1, "parser_video_info not supported frame type:253 \n"},
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        CLogCapture log;
        EXPECT_EQ(parser_video_info(row.data.data(), static_cast<int>(row.data.size())), row.result);
        EXPECT_EQ(log.Lines().size(), row.log[0] == 0 ? 0u : 1u);
        EXPECT_EQ(static_cast<size_t>(log.Count(row.log)), log.Lines().size());
    }
    EXPECT_EQ(parser_video_info(nullptr, 100), -1);
}

}  // namespace
}  // namespace Support
}  // namespace Kavio
