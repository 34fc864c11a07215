// The private frame: layout, checksums, and the functions that read it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"
#include "support/Capture.h"

namespace Kavio {
namespace Vidora {
namespace {

typedef std::vector<unsigned char> Bytes;

Bytes write_frame(CKXFrame& frame, const Bytes& payload) {
    uint32_t offset = 0;
    Bytes out(frame.GetFrameSize(static_cast<uint32_t>(payload.size()), offset), 0xEE);
    std::copy(payload.begin(), payload.end(), out.begin() + offset);
    EXPECT_EQ(frame.WriteFrame(out.data(), static_cast<uint32_t>(out.size())), 0);
    return out;
}

struct LayoutRow {
    int letter;
    uint16_t width, height;
    int ext_length;
};

// One row a form of the extension; payload offset and total length follow.
const LayoutRow LAYOUTS[] = {
    {'I', 640, 480, 16},  {'I', 1920, 1080, 16}, {'J', 640, 480, 16},  {'I', 2048, 480, 20},
    {'I', 640, 1084, 20}, {'I', 644, 480, 20},   {'I', 640, 2048, 20}, {'P', 640, 480, 8},
    {'B', 640, 480, 8},   {'W', 0, 0, 8},        {'A', 0, 0, 12},
};

TEST(KXFrameTest, ExtensionFollowsTypeAndSize) {
    for (const LayoutRow& row : LAYOUTS) {
        SCOPED_TRACE(std::string(1, static_cast<char>(row.letter)) + std::to_string(row.width));
        CKXFrame frame;
        frame.SetFrameType(row.letter);
        frame.SetImageSize(row.width, row.height);
        const Bytes payload = {1, 0, 0, 0, 2};
        const Bytes out = write_frame(frame, payload);
        ASSERT_EQ(out.size(), 24u + static_cast<size_t>(row.ext_length) + 5 + 8);
        EXPECT_EQ(out[22], row.ext_length);
        int remaining = 0;
        EXPECT_EQ(get_frame_body(out.data(), static_cast<int>(out.size()), remaining), 24 + row.ext_length);
        EXPECT_EQ(remaining, 5);
        // The block with the payload's checksum is the last one: 0x88, 3 in four bytes, three zeros.
        const Bytes tail(out.end() - 13 - 8, out.end() - 13);
        EXPECT_EQ(tail, (Bytes{0x88, 3, 0, 0, 0, 0, 0, 0}));
        EXPECT_EQ(std::string(out.end() - 8, out.end() - 4), "kxav");
        EXPECT_EQ(Bytes(out.end() - 4, out.end()), Bytes(out.begin() + 12, out.begin() + 16));
    }
}

// The example of docs/private-frame.md.
TEST(KXFrameTest, BytesOfAKeyFrameAndOfAnAudioFrame) {
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
    const Bytes expected = {0x4B, 0x58, 0x41, 0x56, 0xFD, 0x00, 0x01, 0x00, 0x07, 0x00, 0x00, 0x00, 0x37, 0x00,
                            0x00, 0x00, 0x09, 0x72, 0x4C, 0x61, 0x34, 0x12, 0x10, 0xF4, 0x81, 0x01, 0x02, 0x19,
                            0x80, 0x01, 0x50, 0x3C, 0x88, 0x65, 0x88, 0x84, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00,
                            0x00, 0x01, 0x65, 0x88, 0x84, 0x6B, 0x78, 0x61, 0x76, 0x37, 0x00, 0x00, 0x00};
    EXPECT_EQ(write_frame(frame, {0, 0, 0, 1, 0x65, 0x88, 0x84}), expected);

    CKXFrame audio;
    audio.SetFrameType('A');
    audio.SetEncodeType(KX_AUDIO_PCMA);
    audio.SetAudioInfo(1, 2);
    const Bytes out = write_frame(audio, {7});
    EXPECT_EQ(Bytes(out.begin() + 24, out.begin() + 28), (Bytes{0x83, 1, 14, 2}));
    EXPECT_EQ(audio.GetEncodeType(), KX_AUDIO_PCMA);
}

TEST(KXFrameTest, WriteRefusesAnotherLengthThanWasSettled) {
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

TEST(KXFrameTest, ChecksumsAndTables) {
    unsigned char header[24] = {0xFF, 0xF4};
    EXPECT_EQ(kx_header_checksum(header), 0xF3);  // of 0x1F3
    const unsigned char payload[] = {0xFF, 0xFF, 0xFF, 0xFF, 2, 0, 0};
    EXPECT_EQ(kx_payload_checksum(payload, sizeof(payload)), 1u);
    const int letters[] = {'I', 'P', 'B', 'A', 'W'};
    for (const int letter : letters) {
        EXPECT_EQ(kx_letter_of_type(kx_type_of_letter(letter)), letter);
    }
    EXPECT_EQ(kx_type_of_letter('J'), 0xFB);
    EXPECT_EQ(kx_letter_of_type(0xFB), 0);  // one-way, and to stay so
    EXPECT_EQ(kx_type_of_letter('X'), 0);
    for (int code = 1; code <= 9; ++code) {
        EXPECT_EQ(kx_sample_rate_code(kx_sample_rate(code)), code);
    }
    EXPECT_EQ(kx_sample_rate_code(12345), 0);
    EXPECT_EQ(kx_sample_rate_code(0), 0);
    EXPECT_EQ(kx_sample_rate(10), 0);
    EXPECT_EQ(kx_audio_code("pcma"), 14);
    EXPECT_EQ(kx_audio_code("G.711Mu"), 10);
    EXPECT_EQ(kx_audio_code("OPUS"), 10);
    EXPECT_EQ(kx_audio_code(nullptr), 10);
    for (const uint64_t time : {CTime(2000, 1, 1, 0, 0, 0).makeTime(), CTime(2063, 12, 31, 23, 59, 59).makeTime()}) {
        EXPECT_EQ(kx_unpack_date_time(kx_pack_date_time(time)), time);
    }
    EXPECT_EQ(kx_pack_date_time(CTime(2000, 1, 1, 0, 0, 0).makeTime()) >> 26, 0u);
}

TEST(KXFrameTest, BodyOfBareShortAndLyingBuffers) {
    struct {
        Bytes data;
        int offset, remaining;
    } rows[] = {
        {{0, 0, 0, 1, 0x65}, 0, 5}, {{}, 0, 0},
        {{'K', 'X', 'A'}, 0, 3},    {{'K', 'X', 'A', 'V'}, 0, 0},  // an offset above the length
        {Bytes(24, 'K'), 0, 24},
    };
    Bytes lying(40, 0);
    std::copy_n("KXAV", 4, lying.begin());
    lying[22] = 8;  // payload at 32, and 8 bytes of trailer: nothing between
    int remaining = -5;
    EXPECT_EQ(get_frame_body(lying.data(), 40, remaining), 32);
    EXPECT_EQ(remaining, 0);
    lying[22] = 255;
    EXPECT_EQ(get_frame_body(lying.data(), 40, remaining), 0);
    EXPECT_EQ(remaining, 0);
    for (const auto& row : rows) {
        EXPECT_EQ(get_frame_body(row.data.data(), static_cast<int>(row.data.size()), remaining), row.offset);
        EXPECT_EQ(remaining, row.remaining);
    }
}

// An audio frame whose magic is damaged, which is what parser_video_info takes, with these extension blocks.
Bytes audio_with_blocks(const Bytes& blocks) {
    Bytes data(24, 0);
    data[4] = 0xF0;
    data[22] = static_cast<unsigned char>(blocks.size());
    for (const uint8_t byte : blocks) {
        data.push_back(byte);
    }
    return data;
}

TEST(KXFrameTest, VideoInfoWalksTheBlocksWithItsOldPolarity) {
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
    };
    for (auto& row : rows) {
        SCOPED_TRACE(row.name);
        Support::CLogCapture log;
        EXPECT_EQ(parser_video_info(row.data.data(), static_cast<int>(row.data.size())), row.result);
        EXPECT_EQ(log.Lines().empty(), row.log[0] == 0);
        EXPECT_GE(log.Count(row.log), row.log[0] == 0 ? 0 : 1);
    }
    Support::CLogCapture log;
    Bytes good = rows[0].data;
    std::copy_n("KXAV", 4, good.begin());
    EXPECT_EQ(parser_video_info(good.data(), static_cast<int>(good.size())), -1);
    EXPECT_EQ(log.Count("parser_video_info not valid kxav tag \n"), 1);
    good = audio_with_blocks({});
    good[4] = 0xFD;
    EXPECT_EQ(parser_video_info(good.data(), static_cast<int>(good.size())), -1);
    EXPECT_EQ(log.Count("parser_video_info not supported frame type:253 \n"), 1);
    EXPECT_EQ(parser_video_info(nullptr, 100), -1);
}

TEST(KXFrameTest, AssistTypeComesFromAssistFramesOnly) {
    CKXFrame frame;
    frame.SetFrameType('W');
    frame.SetSubType(0x42);
    Bytes out = write_frame(frame, {1, 2, 3});
    EXPECT_EQ(get_assist_type(out.data(), static_cast<int>(out.size())), 0x42);
    Support::CLogCapture log;
    out[4] = 0xF0;
    EXPECT_EQ(get_assist_type(out.data(), static_cast<int>(out.size())), -1);
    EXPECT_EQ(get_assist_type(nullptr, 10), -1);
    const unsigned char bare[] = {'a', 'b'};
    EXPECT_EQ(get_assist_type(bare, 2), -1);
    EXPECT_EQ(log.Count("this is not assist frame!\n"), 1);
    EXPECT_EQ(log.Count("param is error!\n"), 1);
    EXPECT_EQ(log.Count("this is not KXAV frame! hdr: a, b,  ,  \n"), 1);
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
