// A day of synthetic frames through each converter: what wraps (sequence number, RTP time stamp, the 33-bit clock of
// ISO 13818-1) wraps without a trace in the frames' times.
#include <gtest/gtest.h>

#include "StreamParser/Frame2Rtp.h"
#include "StreamParser/Frame2Ts.h"
#include "StreamParser/Ts2Frame.h"
#include "Vidora/Types.h"
#include "support/Depacketiser.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {
namespace {

const uint32_t DAY_SEC = 24 * 3600;

void renumber(Bytes& packet, uint16_t sequence, uint32_t timestamp) {
    packet[2] = static_cast<uint8_t>(sequence >> 8);
    packet[3] = static_cast<uint8_t>(sequence);
    for (size_t byte = 0; byte < 4; ++byte) {
        packet[4 + byte] = static_cast<uint8_t>(timestamp >> (24 - 8 * byte));
    }
}

// Steps that aren't whole milliseconds: what is left over is carried, both ways, whatever the clock.
TEST(Day, NoClockDrifts) {
    const struct {
        int enc_type;
        uint32_t clock, ticks;  // of a frame
    } rows[] = {{ENC_TYPE_H264, 90000, 3600},
                {ENC_TYPE_H264, 90000, 3003},
                {ENC_TYPE_AUDIO, 44100, 1024},
                {ENC_TYPE_AUDIO, 11025, 1024}};
    for (const auto& row : rows) {
        Depacketiser in(row.enc_type, true, row.clock);
        CFrame2Rtp packer;
        packer.SetRtpInfo(1, 96, 0, 77, row.clock);
        RtpFields fields;
        fields.marker = true;
        const uint64_t frames = uint64_t{DAY_SEC} * row.clock / row.ticks;
        Bytes packet = MakeRtp(fields, {0x61, 0xE0});
        for (uint64_t i = 0; i < frames; ++i) {
            renumber(packet, static_cast<uint16_t>(i), static_cast<uint32_t>(0x80000000 + i * row.ticks));
            ASSERT_EQ(1, in.Engine().PutPacket(packet.data(), static_cast<int>(packet.size())));
            ASSERT_EQ(i * row.ticks * 1000 / row.clock, in.Engine().GetPts()) << row.clock;
            in.Engine().Clear();
            const unsigned char byte = 1;
            const uint64_t ms = i * row.ticks * 1000 / row.clock;
            ASSERT_EQ(0, packer.PutFrame(&byte, 1, ENC_TYPE_AUDIO, 1700000000000 + ms, 0));
            RtpEncParam param;
            packer.GetRtpInfo(param);
            ASSERT_EQ(77 + static_cast<uint32_t>(ms * row.clock / 1000), param.timestamp) << row.clock;
        }
    }
}

// The 33-bit clock wraps after 26.5 hours, so the day begins four hours before that. The frames' time goes on.
TEST(Day, FrameToTsToFrame) {
    CFrame2Ts packer;
    packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 1);
    Ts2Frame in;
    const Bytes frame = FromHex("000000014188a1a2a3a4a5a6a7a8a9aaabacadaeaf");
    const uint64_t wrap = uint64_t{1} << 33;
    uint64_t pts = wrap / 90 - 4 * 3600 * 1000;
    unsigned char unit[TS_PACK_LEN];
    int complete = 0;
    for (uint32_t i = 0; i < DAY_SEC * 10; ++i, pts += 100) {
        ASSERT_EQ(0, packer.PutFrame(frame.data(), static_cast<unsigned>(frame.size()), ENC_TYPE_H264, pts, 0));
        do {
            packer.GetPacket(unit, sizeof(unit));
            complete += in.PutPacket(unit, TS_PACK_LEN, packer.GetTotalSize() == TS_PACK_LEN);
        } while (packer.NextPacket() == 0);
        ASSERT_EQ(pts, in.GetPts());
        in.Clear();
    }
    EXPECT_EQ(static_cast<int>(DAY_SEC * 10), complete);
}

}  // namespace
}  // namespace Kavio::Support
