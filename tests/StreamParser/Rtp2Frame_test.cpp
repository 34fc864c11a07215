#include "StreamParser/Rtp2Frame.h"

#include <gtest/gtest.h>

#include <set>

#include "StreamParser/Frame2Ts.h"
#include "support/Capture.h"
#include "support/Depacketiser.h"
#include "support/PackerUnits.h"
#include "support/SampleTable.h"
#include "support/StreamBytes.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

namespace {

std::vector<Bytes> all_from_hex(const std::vector<std::string>& texts) {
    std::vector<Bytes> all;
    for (const std::string& text : texts) {
        all.push_back(FromHex(text));
    }
    return all;
}

TEST(Rtp2Frame, TakesPayloadsAndRefusesHeadersThatLie) {
    const std::string rest = "e00001 00000e10 11223344";  // of a header, behind the byte with its flags
    const std::string csrc = "cccccccc cccccccc", words = "eeeeeeee eeeeeeee eeeeeeee", payload = "0102030405060708";
    const std::string empty = "-";
    const struct {
        const char* name;
        std::string packet, frame;  // no frame: refused, or passed over as empty
    } rows[] = {
        {"null", "", ""},
        {"twelve bytes", "80" + rest, empty},
        {"one byte of payload", "80" + rest + "01", "01"},
        {"interleave header", "24000014 80" + rest + payload, payload},
        {"interleave header and nothing behind", "2400000c 80" + rest, empty},
        {"CSRC list", "82" + rest + csrc + payload, payload},
        {"CSRC list to the end", "82" + rest + csrc, empty},
        {"extension", "90" + rest + "bede0003" + words + payload, payload},
        {"extension to the end", "90" + rest + "bede0003" + words, empty},
        {"extension beyond the end", "90" + rest + "bede00c8" + words, ""},
        {"padding", "a0" + rest + payload + "00000004", payload},
        {"padding over the payload", "a0" + rest + payload + "0000000d", ""},
        {"padding of all the payload", "a0" + rest + payload + "0000000c", empty},
        {"padding of zero bytes", "a0" + rest + payload + "00000000", payload + "00000000"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Depacketiser in(ENC_TYPE_AUDIO);
        CLogCapture log;
        const bool is_empty = row.frame == empty;
        EXPECT_EQ(is_empty ? 0 : row.frame.empty() ? -1 : 1, in.Put(FromHex(row.packet)));
        EXPECT_EQ(row.frame.empty(), log.Count("CRtp2Frame::PutPacket input invalid. buf["));
        EXPECT_EQ(is_empty ? "" : row.frame, ToHex(in.Last()));
        EXPECT_EQ(1, in.Put(FromHex("80" + rest + payload)));  // still in use
    }
    EXPECT_EQ(-1, CRtp2Frame().PutPacket(nullptr, 100));
}

TEST(Rtp2Frame, TimeRunsInTheClockOfAudioAndIn90KhzElsewhere) {
    const struct {
        int enc_type;
        uint32_t clock, step;
        uint64_t ms;
    } rows[] = {{ENC_TYPE_AUDIO, 0, 160, 20},
                {ENC_TYPE_AUDIO, 44100, 441, 10},
                {ENC_TYPE_JPEG, 8000, 3600, 40},
                {ENC_TYPE_MPEG_AUDIO, 44100, 3600, 40},
                {ENC_TYPE_ASSIST, 1000, 3003, 33}};
    for (const auto& row : rows) {
        Depacketiser in(row.enc_type, false, row.clock);
        RtpFields fields;
        fields.timestamp = 0xFFFFFF00;
        in.Put(MakeRtp(fields, Bytes(20, 0)));
        EXPECT_EQ(0u, in.Engine().GetPts());
        fields.timestamp += row.step;
        ++fields.sequence;
        in.Put(MakeRtp(fields, Bytes(20, 0)));
        EXPECT_EQ(row.ms, in.Engine().GetPts()) << row.enc_type;
    }
}

TEST(Rtp2Frame, TheFirstPacketTellsItsSsrc) {
    CLogCapture log;
    Depacketiser in(ENC_TYPE_AUDIO);
    in.Put(MakeRtp(RtpFields(), {1}));
    EXPECT_EQ(1, log.Count(">>> RTP SSRC CHANGES from [00000000] to [11223344]\n"));
    EXPECT_EQ(std::vector<std::string>{"ssrc 0 287454020"}, in.m_events);
    EXPECT_EQ(0x11223344u, in.Engine().GetSsrc());
    EXPECT_EQ(1, in.Engine().GetLastSeq());
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
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/rtp_payloads.txt", "h264", 5)) {
        Depacketiser in(ENC_TYPE_H264);
        CLogCapture log;
        const int result = in.PutFrame(all_from_hex(SplitText(row[1], ',')));
        EXPECT_EQ(row[2], std::to_string(result)) << row[0];
        EXPECT_EQ(ToHex(FromHex(row[3])), ToHex(in.Last())) << row[0];
        EXPECT_EQ(row[4], in.m_letters) << row[0];
        EXPECT_EQ(result < 0, log.Count("CRtp2Frame::PutPacket make_frame[enc_type=1] fail, ret = -")) << row[0];
    }
}

// Key frames go out with parameter sets: their own if they have both, in whatever packets, or the known ones.
TEST(Rtp2Frame, H264KeyFramesHaveParameterSets) {
    const Bytes known = CODE + SPS + CODE + PPS;
    const Bytes other_sps = FromHex("6742c01eda078239");
    const Bytes other = CODE + other_sps + CODE + PPS;
    const Bytes idr = FromHex("65888421");
    const auto unit = [](const Bytes& nal) {
        return Bytes{static_cast<uint8_t>(nal.size() >> 8), static_cast<uint8_t>(nal.size())} + nal;
    };
    const struct {
        const char* name;
        std::vector<Bytes> payloads;
        bool own;  // the frame has both sets
    } rows[] = {
        {"none", {idr}, false},
        {"only one", {other_sps, idr}, false},
        {"packets of their own", {other_sps, PPS, idr}, true},
        {"STAP-A in front", {FromHex("78") + unit(other_sps) + unit(PPS), idr}, true},
        {"STAP-A with all", {FromHex("78") + unit(other_sps) + unit(PPS) + unit(idr)}, true},
        {"inside one payload", {other_sps + CODE + PPS + CODE + idr}, true},
        {"damaged start code", {FromHex("0600") + FromHex("80000001") + other_sps + CODE + PPS, idr}, true},
        {"too long for the configuration", {other_sps + Bytes(1010, 0x55), PPS, idr}, false},
    };
    for (const auto& row : rows) {
        Depacketiser in(ENC_TYPE_H264);
        ASSERT_EQ(0, in.Engine().SetH264Config(SPS.data(), static_cast<int>(SPS.size()), PPS.data(),
                                               static_cast<int>(PPS.size())));
        in.PutFrame(row.payloads);
        ASSERT_EQ("I", in.m_letters) << row.name;
        const std::string first = ToHex(in.Last());
        EXPECT_EQ(row.own ? std::string::npos : 0, first.find(ToHex(known))) << row.name;
        in.PutFrame({idr});  // and what is known from now on
        EXPECT_EQ(ToHex((row.own ? other : known) + CODE + idr), ToHex(in.Last())) << row.name;
        EXPECT_EQ(row.own ? 480 : 640, in.Engine().GetWidth()) << row.name;
        EXPECT_EQ(row.own ? 272 : 368, in.Engine().GetHeight()) << row.name;
        EXPECT_EQ(1, in.Engine().GetProgressive()) << row.name;
    }
}

// A parameter set of 64 pixels by two fields of 16 lines; IDR slices with field_pic_flag 1 and 0.
TEST(Rtp2Frame, FieldPicturesAreToldFromInterlacedFrames) {
    const struct {
        const char* slice;
        int progressive;
    } rows[] = {{"658886", 0}, {"658882", 1}};
    for (const auto& row : rows) {
        Depacketiser in(ENC_TYPE_H264);
        EXPECT_EQ(1, in.PutFrame({FromHex("6742c01eda1248"), PPS, FromHex(row.slice)}));
        EXPECT_EQ(row.progressive, in.Engine().GetProgressive()) << row.slice;
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
    const struct {
        int enc_type;
        std::vector<std::string> payloads;
        const char* frame;  // none: refused
        const char* letters;
    } rows[] = {
        {ENC_TYPE_MPEG_AUDIO, {"00000000 a1a2", "00000002 a3"}, "a1a2a3", "A"},
        {ENC_TYPE_MPEG_AUDIO, {"000000"}, "", ""},
        {ENC_TYPE_AUDIO, {"a1a2", "a3"}, "a1a2a3", "A"},
        {ENC_TYPE_ASSIST, {"0700000000000000 b1", "b2b3b4b5b6b7b8b9ba"}, "b1b2b3b4b5b6b7b8b9ba", "W"},
        {ENC_TYPE_ASSIST, {"07000000000000"}, "", ""},
        {ENC_TYPE_ONVIF_METADATA, {"aa"}, "", ""},
    };
    for (const auto& row : rows) {
        Depacketiser in(row.enc_type);
        CLogCapture log;
        EXPECT_EQ(CRtp2Frame::ASSIST_TYPE_NONE, in.Engine().GetAssistType());
        EXPECT_EQ(*row.frame != '\0' ? 1 : -1, in.PutFrame(all_from_hex(row.payloads))) << row.enc_type;
        EXPECT_EQ(row.frame, ToHex(in.Last())) << row.enc_type;
        EXPECT_EQ(row.letters, in.m_letters) << row.enc_type;
        EXPECT_EQ(row.enc_type == ENC_TYPE_ASSIST, in.Engine().GetAssistType() == 7) << row.enc_type;
        EXPECT_EQ(row.enc_type == ENC_TYPE_ONVIF_METADATA, log.Count("CRtp2Frame enc_type[8] not right!\n"));
    }
}

TEST(Rtp2Frame, JpegHeadersAreRebuilt) {
    const std::string tables(256, '3');
    struct Row {
        const char* name;
        std::string payload;
        size_t header_len;  // of the image; 0: refused
    };
    const std::string main = "00000000 01 32 50 3c";  // type 1, Q 50, 640 x 480
    const std::string in_band = "00000000 00 80 50 3c";
    const Row rows[] = {
        {"Q 50", main + "aabb", 605},
        {"restart header", "00000000 41 32 50 3c 0014 ffff aabb", 611},
        {"tables in band", in_band + "00000080" + tables + "aabb", 605},
        {"one table for both", in_band + "00000040" + tables.substr(128) + "aabb", 605},
        {"no tables yet", in_band + "00000000 aabb", 0},
        {"tables longer than the packet", in_band + "00000080" + tables.substr(2), 0},
        {"16-bit tables", in_band + "00010080" + tables + "aabb", 0},
        {"type-specific", "01000000 01 32 50 3c aabb", 0},
        {"type 2", "00000000 02 32 50 3c aabb", 0},
        {"seven bytes", "00000000 01 32 50", 0},
        {"cut restart header", "00000000 41 32 50 3c 0014", 0},
    };
    for (const Row& row : rows) {
        Depacketiser in(ENC_TYPE_JPEG);
        SCOPED_TRACE(row.name);
        EXPECT_EQ(row.header_len > 0 ? 1 : -1, in.PutFrame({FromHex(row.payload)}));
        if (row.header_len > 0) {
            const std::string image = ToHex(in.Last());
            EXPECT_EQ(row.header_len + 2, in.Last().size());
            EXPECT_EQ("ffd8ffdb004300", image.substr(0, 14));
            EXPECT_EQ("aabb", image.substr(image.size() - 4));
            EXPECT_EQ(row.header_len == 611, image.find("ffdd00040014ffda") != std::string::npos);
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
        EXPECT_EQ(1, in.PutFrame({FromHex(head + "00000080" + tables + "aabb")}));
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
    RtpFields fields;
    fields.sequence = static_cast<uint16_t>(RtpFields().sequence + 1);
    fields.marker = true;
    const Bytes later = MakeRtp(fields, Pack(packer, FromHex("000000014160bb"), ENC_TYPE_H264, 2).back());
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
}  // namespace Support
}  // namespace Kavio
