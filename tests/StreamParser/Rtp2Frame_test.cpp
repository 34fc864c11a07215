#include "StreamParser/Rtp2Frame.h"

#include <gtest/gtest.h>

#include <set>

#include "StreamParser/Frame2Rtp.h"
#include "StreamParser/Frame2Ts.h"
#include "support/Capture.h"
#include "support/Depacketiser.h"
#include "support/PackerUnits.h"

namespace Kavio::Support {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/rtp_payloads.txt";

TEST(Rtp2Frame, TakesPayloadsAndRefusesHeadersThatLie) {
    for (const auto& row : ReadTable(TABLES, "packets", 4)) {
        SCOPED_TRACE(row[0]);
        Depacketiser in(ENC_TYPE_AUDIO);
        CLogCapture log;
        const int result = in.Put(FromHex(row[1]));
        EXPECT_EQ(row[2], std::to_string(result));
        EXPECT_EQ(result < 0, log.Count("CRtp2Frame::PutPacket input invalid. buf["));
        EXPECT_EQ(row[3], ToHex(in.Last()));
        EXPECT_EQ(1, in.Put(MakeRtp({1, 3600, true}, Ramp(8))));  // still in use
    }
    EXPECT_EQ(-1, CRtp2Frame().PutPacket(nullptr, 100));
}

TEST(Rtp2Frame, TimeRunsInTheClockOfAudioAndIn90KhzElsewhere) {
    for (const auto& row : ReadTable(TABLES, "times", 2)) {
        SCOPED_TRACE(row[0]);
        const std::vector<int> numbers = Numbers(row[0]);
        Depacketiser in(numbers[0], false, static_cast<uint32_t>(numbers[1]));
        in.Put(MakeRtp({1, 0xFFFFFF00}, Bytes(20, 0)));
        EXPECT_EQ(0u, in.Engine().GetPts());
        in.Put(MakeRtp({2, 0xFFFFFF00 + static_cast<uint32_t>(numbers[2])}, Bytes(20, 0)));
        EXPECT_EQ(row[1], std::to_string(in.Engine().GetPts()));
    }
}

// Steps that aren't whole milliseconds: what is left over is carried, both ways, whatever the clock.
TEST(Rtp2Frame, NoClockDriftsHereOrAtThePacketiser) {
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
        fields.timestamp = 0xFFF00000;
        for (uint64_t i = 0; i < 150000; ++i, ++fields.sequence, fields.timestamp += row.ticks) {  // over the wraps
            const Bytes packet = MakeRtp(fields, {0x61, 0xE0});
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

// Another source begins its time stamps anywhere: a step on of some seconds counts, all else doesn't move the time.
TEST(Rtp2Frame, TimeGoesOnWithAnotherSource) {
    Depacketiser in(ENC_TYPE_AUDIO, false, 8000);
    RtpFields fields;
    uint64_t ms = 0;
    for (const uint32_t step : {0u, 16000u, 80000u, 80001u, 0x70000000u, 0u - 160u}) {
        ++fields.ssrc;
        fields.timestamp += step;
        in.Put(MakeRtp(fields, Bytes(20, 0)));
        ms += step <= 80000 ? step / 8 : 0;
        EXPECT_EQ(ms, in.Engine().GetPts()) << step;
        ++fields.sequence;
        fields.timestamp += 160;
        in.Put(MakeRtp(fields, Bytes(20, 0)));
        EXPECT_EQ(ms += 20, in.Engine().GetPts()) << step;
    }
}

// Packets of another payload type that take part in the sequence: after the first pair they are no gaps, and a real gap
// beside one of them still marks the frame. One that follows the own number 0 isn't counted, as it never was.
TEST(Rtp2Frame, ForeignPacketsMayShareTheSequence) {
    const struct {
        bool shared;
        uint16_t start;
        uint32_t lost;  // frame
    } rows[] = {{true, 65529, 0}, {true, 65530, 5}, {false, 65530, 0}};
    for (const auto& row : rows) {
        Depacketiser in(ENC_TYPE_AUDIO, true);
        RtpFields own, foreign;
        foreign.payload_type = 97;
        uint16_t counts[] = {row.start, 1000};
        uint16_t& foreign_count = counts[row.shared ? 0 : 1];
        const auto put = [&](RtpFields& fields, uint32_t timestamp, bool marker) {
            fields.sequence = &fields == &own ? counts[0]++ : foreign_count++;
            fields.timestamp = timestamp;
            fields.marker = marker;
            return in.Put(MakeRtp(fields, {1}));
        };
        EXPECT_EQ(1, put(own, 100, true));
        EXPECT_EQ(0, put(foreign, 0, true));
        // Not known to be shared yet, so that the first own packet behind a foreign one looks like a gap.
        EXPECT_EQ(row.shared ? 0 : 1, put(own, 200, true));
        for (uint32_t frame = 3; frame < 12; ++frame) {  // over the wrap
            EXPECT_EQ(0, put(foreign, 0, true));
            EXPECT_EQ(frame == row.lost ? 0 : 1, put(own, frame * 100, true)) << row.start << " " << frame;
        }
        EXPECT_EQ(0, put(own, 2000, false));
        for (const uint32_t timestamp : {2000u, 2100u}) {  // the rest of that frame, and perhaps of the next one
            ++foreign_count;                               // a loss in front of the foreign packet
            EXPECT_EQ(0, put(foreign, 0, true));
            EXPECT_EQ(row.shared ? 0 : 1, put(own, timestamp, true)) << timestamp;
        }
    }
}

TEST(Rtp2Frame, H264PayloadsBecomeAByteStream) {
    for (const auto& row : ReadTable(TABLES, "h264", 5)) {
        Depacketiser in(ENC_TYPE_H264);
        CLogCapture log;
        const int result = in.PutFrame(UnitsFromHex(row[1]));
        EXPECT_EQ(row[2], std::to_string(result)) << row[0];
        EXPECT_EQ(ToHex(FromHex(row[3])), ToHex(in.Last())) << row[0];
        EXPECT_EQ(row[4], in.m_letters) << row[0];
        EXPECT_EQ(result < 0, log.Count("CRtp2Frame::PutPacket make_frame[enc_type=1] fail, ret = -")) << row[0];
    }
}

// Key frames go out with parameter sets: their own if they have both, in whatever packets, or the known ones.
TEST(Rtp2Frame, H264KeyFramesHaveParameterSets) {
    const Bytes known = CODE + SPS + CODE + PPS;
    const Bytes other = CODE + FromHex("6742c01eda078239") + CODE + PPS;
    const Bytes idr = FromHex("65888421");
    for (const auto& row : ReadTable(TABLES, "key frames", 3)) {
        SCOPED_TRACE(row[0]);
        const bool own = row[2] == "own";
        Depacketiser in(ENC_TYPE_H264);
        ASSERT_EQ(0, in.Engine().SetH264Config(SPS.data(), static_cast<int>(SPS.size()), PPS.data(),
                                               static_cast<int>(PPS.size())));
        in.PutFrame(UnitsFromHex(row[1]));
        ASSERT_EQ("I", in.m_letters);
        const std::string first = ToHex(in.Last());
        EXPECT_EQ(own ? std::string::npos : 0, first.find(ToHex(known)));
        in.PutFrame({idr});  // and what is known from now on
        EXPECT_EQ(ToHex((own ? other : known) + CODE + idr), ToHex(in.Last()));
        EXPECT_EQ(own ? 480 : 640, in.Engine().GetWidth());
        EXPECT_EQ(own ? 272 : 368, in.Engine().GetHeight());
        EXPECT_EQ(1, in.Engine().GetProgressive());
    }
}

// A parameter set of 64 pixels by two fields of 16 lines; IDR slices with field_pic_flag 1 and 0.
TEST(Rtp2Frame, FieldPicturesAreToldFromInterlacedFrames) {
    for (const char* slice : {"658886", "658882"}) {
        Depacketiser in(ENC_TYPE_H264);
        EXPECT_EQ(1, in.PutFrame({FromHex("6742c01eda1248"), PPS, FromHex(slice)}));
        EXPECT_EQ(slice[5] == '2', in.Engine().GetProgressive()) << slice;
        EXPECT_EQ(32, in.Engine().GetHeight());
    }
}

TEST(Rtp2Frame, ConfigurationsHaveLimits) {
    CRtp2Frame engine;
    const Bytes set(1024, 0x11);
    EXPECT_EQ(-1, engine.SetMpeg4Config(set.data(), 0) & engine.SetMpeg4Config(set.data(), 1024));
    EXPECT_EQ(0, engine.SetMpeg4Config(set.data(), 1023));
    EXPECT_EQ(-1, engine.SetH264Config(set.data(), 5, set.data(), 0) & engine.SetH264Config(nullptr, 5, set.data(), 5));
    EXPECT_EQ(-1, engine.SetH264Config(set.data(), 1000, set.data(), 16));
    EXPECT_EQ(0, engine.SetH264Config(set.data(), 1000, set.data(), 15));
}

TEST(Rtp2Frame, Mpeg4KeyFramesHaveAConfiguration) {
    const Bytes config = FromHex("000001b001 000001b509 00000100 00000120 00845d4c28582120a31f");
    const Bytes key = FromHex("000001b6 10aabb");
    const Bytes other = FromHex("000001b6 50aabb");
    Depacketiser in(ENC_TYPE_MPEG4);
    EXPECT_EQ(0, in.PutFrame({FromHex("aabbcc")}));  // no picture: goes on collecting
    EXPECT_EQ(1, in.PutFrame({other}));
    EXPECT_EQ(FromHex("aabbcc") + other, in.Last());
    EXPECT_EQ(1, in.PutFrame({config, key, FromHex("ccdd")}));
    EXPECT_EQ(config + key + FromHex("ccdd"), in.Last());
    EXPECT_EQ(352, in.Engine().GetWidth());
    EXPECT_EQ(288, in.Engine().GetHeight());
    EXPECT_EQ(1, in.PutFrame({key}));
    EXPECT_EQ(config + key, in.Last());  // the known configuration in front
    EXPECT_EQ(1, in.PutFrame({other}));
    EXPECT_EQ("PIIP", in.m_letters);
}

TEST(Rtp2Frame, AudioAndAssistHeadersAreCut) {
    for (const auto& row : ReadTable(TABLES, "audio and assist", 4)) {
        SCOPED_TRACE(row[1]);
        const int enc_type = std::stoi(row[0]);
        Depacketiser in(enc_type);
        CLogCapture log;
        EXPECT_EQ(CRtp2Frame::ASSIST_TYPE_NONE, in.Engine().GetAssistType());
        EXPECT_EQ(row[2].empty() ? -1 : 1, in.PutFrame(UnitsFromHex(row[1])));
        EXPECT_EQ(row[2], ToHex(in.Last()));
        EXPECT_EQ(row[3], in.m_letters);
        EXPECT_EQ(enc_type == ENC_TYPE_ASSIST, in.Engine().GetAssistType() == 7);
        EXPECT_EQ(enc_type == ENC_TYPE_ONVIF_METADATA, log.Count("CRtp2Frame enc_type[8] not right!\n"));
    }
}

TEST(Rtp2Frame, JpegHeadersAreRebuilt) {
    for (const auto& row : ReadTable(TABLES, "jpeg", 3)) {
        SCOPED_TRACE(row[0]);
        Depacketiser in(ENC_TYPE_JPEG);
        const size_t header_len = std::stoul(row[2]);
        EXPECT_EQ(header_len > 0 ? 1 : -1, in.PutFrame({FromHex(row[1])}));
        if (header_len > 0) {
            const std::string image = ToHex(in.Last());
            EXPECT_EQ(header_len + 2, in.Last().size());
            EXPECT_EQ("ffd8ffdb004300", image.substr(0, 14));
            EXPECT_EQ("aabb", image.substr(image.size() - 4));
            EXPECT_EQ(header_len == 611, image.find("ffdd00040014ffda") != std::string::npos);
            EXPECT_NE(std::string::npos, image.find("ffc000110801e0028003"));
            EXPECT_EQ("J", in.m_letters);
            EXPECT_EQ(640, in.Engine().GetWidth());
            EXPECT_EQ(480, in.Engine().GetHeight());
        }
    }
    // Tables stay for the frames with the same Q that leave them out, unless Q is 255.
    for (const char* q : {"80", "ff"}) {
        Depacketiser in(ENC_TYPE_JPEG);
        const std::string head = std::string("00000000 00") + q + "503c";
        EXPECT_EQ(1, in.PutFrame({FromHex(head + "00000080 33*128 aabb")}));
        EXPECT_EQ(std::string(q) == "ff" ? -1 : 1, in.PutFrame({FromHex(head + "00000000 ccdd")}));
    }
}

// The owner clears at a seek. What comes next may have the number of the packet that was to be put again, or the one
// behind it: the frame that began in that packet is lost then.
TEST(Rtp2Frame, APacketThatWasLeftOutMayBeReplaced) {
    CFrame2Ts packer;
    packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 1);
    Bytes run;
    for (int i = 0; i < 4; ++i) {
        for (const Bytes& unit : Pack(packer, FromHex("0000000161e0"), ENC_TYPE_H264, 1)) {
            run = run + unit;
        }
    }
    CRtp2Frame engine;
    engine.Init(ENC_TYPE_MPEG2TS, 96, 90000);
    const Bytes packet = MakeRtp(RtpFields(), run), shorter = MakeRtp(RtpFields(), Bytes(190, 0x47));
    EXPECT_EQ(FRAME_COMPLETE_NEXT, engine.PutPacket(packet.data(), static_cast<int>(packet.size())));
    engine.Clear();
    EXPECT_EQ(FRAME_FAILED, engine.PutPacket(shorter.data(), static_cast<int>(shorter.size())));
    EXPECT_EQ(0u, engine.GetFrameSize());
    engine.Clear();

    EXPECT_EQ(FRAME_COMPLETE_NEXT, engine.PutPacket(packet.data(), static_cast<int>(packet.size())));
    engine.Clear();
    const Bytes later = MakeRtp({2, 3600, true}, Pack(packer, FromHex("000000014160bb"), ENC_TYPE_H264, 2).back());
    EXPECT_EQ(FRAME_MORE, engine.PutPacket(later.data(), static_cast<int>(later.size())));
}

// As others send it: seven packets each, whatever frames they belong to, time stamps that change inside frames, and no
// marker. A packet may bring several frames, and one that is lost costs the frames that it held a part of.
TEST(Rtp2Frame, TransportStreamsAreCutAnywhere) {
    for (const size_t per_packet : {1, 7, 40}) {
        for (const size_t lost : {SIZE_MAX, size_t{6}}) {
            CFrame2Ts packer;
            packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 1);
            Depacketiser in(ENC_TYPE_MPEG2TS, true);
            std::vector<Bytes> frames;
            std::vector<std::pair<Bytes, size_t>> units;  // with the frame that each belongs to
            for (size_t i = 0; i < 40; ++i) {
                Bytes frame = i % 8 == 0 ? CODE + SPS + CODE + PPS + CODE + FromHex("658884") : CODE + FromHex("61e0");
                frame.resize(frame.size() + i * 67, static_cast<uint8_t>(0x80 | i));
                for (const Bytes& unit : Pack(packer, frame, ENC_TYPE_H264, i)) {
                    units.emplace_back(unit, i);
                }
                frames.push_back(frame);
            }
            RtpFields fields;
            std::set<size_t> touched = {frames.size() - 1};  // it isn't known to be over
            for (size_t at = 0; at < units.size(); at += per_packet, ++fields.sequence, fields.timestamp += 90) {
                Bytes run;
                for (size_t k = at; k < std::min(at + per_packet, units.size()); ++k) {
                    run = run + units[k].first;
                    if (fields.sequence == lost) {
                        touched.insert(units[k].second);
                    }
                }
                if (fields.sequence == lost) {
                    touched.insert(at == 0 ? 0 : units[at - 1].second);
                } else {
                    in.Put(MakeRtp(fields, run));
                }
            }
            std::vector<Bytes> whole;
            for (size_t i = 0; i < frames.size(); ++i) {
                if (touched.count(i) == 0) {
                    whole.push_back(frames[i]);
                }
            }
            EXPECT_EQ(whole.size(), in.m_frames.size()) << per_packet << " " << lost;
            EXPECT_TRUE(whole == in.m_frames) << per_packet << " " << lost;
        }
    }
}

}  // namespace
}  // namespace Kavio::Support
