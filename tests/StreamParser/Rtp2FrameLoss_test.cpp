// Packets lost, doubled, moved and cut at every position of a small H.264 stream: frames that the fault doesn't touch
// come out whole, and with damaged frames dropped all that come out do.

#include <gtest/gtest.h>

#include <set>

#include "support/Capture.h"
#include "support/Depacketiser.h"
#include "support/SampleTable.h"

namespace Kavio::Support {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/rtp_payloads.txt";

struct Piece {
    size_t frame;
    Bytes packet;
};

struct Stream {
    std::vector<Piece> pieces;
    std::vector<Bytes> frames;  // as they have to come out
};

// Seven frames. The bytes of a picture carry its number.
Stream make_stream() {
    struct Plan {
        bool key, sets;
        int fragments;  // 0: one packet
        int slices;
    };
    const Plan plans[] = {{true, true, 3, 1},   {false, false, 0, 1}, {false, false, 3, 1}, {true, true, 2, 1},
                          {false, false, 0, 2}, {false, false, 2, 1}, {true, false, 0, 1}};
    Stream stream;
    uint16_t sequence = 65529;  // wraps inside the stream
    for (const Plan& plan : plans) {
        const size_t frame = stream.frames.size();
        const uint8_t tag = static_cast<uint8_t>(0xE0 + frame), type = plan.key ? 5 : 1;
        std::vector<Bytes> payloads;
        Bytes whole = plan.key ? CODE + SPS + CODE + PPS : Bytes();
        if (plan.sets) {
            payloads = {SPS, PPS};
        }
        for (int slice = 0; slice < plan.slices; ++slice) {
            whole = whole + CODE + Bytes{static_cast<uint8_t>(0x60 | type)};
            for (int i = 0; i < std::max(plan.fragments, 1); ++i) {
                const int bits = i == 0 ? 0x80 : i + 1 == plan.fragments ? 0x40 : 0;
                Bytes body(static_cast<size_t>(5 + i), tag);
                body[0] = static_cast<uint8_t>(slice == 0 ? tag : tag & 0x7F);  // first_mb_in_slice isn't 0
                payloads.push_back((plan.fragments > 0 ? Bytes{0x7C, static_cast<uint8_t>(bits | type)}
                                                       : Bytes{static_cast<uint8_t>(0x60 | type)}) +
                                   body);
                whole = whole + body;
            }
        }
        stream.frames.push_back(whole);
        for (const Bytes& payload : payloads) {
            const uint32_t timestamp = 0xFFFFE000 + static_cast<uint32_t>(frame) * 3600;
            const bool marker = &payload == &payloads.back();
            const uint32_t ssrc = 0;  // a source that calls itself so is one like others
            stream.pieces.push_back({frame, MakeRtp({sequence++, timestamp, marker, 96, ssrc}, payload)});
        }
    }
    return stream;
}

// A frame without the parameter sets in front.
Bytes picture_of(Bytes frame) {
    for (const Bytes& set : {CODE + SPS, CODE + PPS, CODE + PPS}) {
        if (frame.size() >= set.size() && std::equal(set.begin(), set.end(), frame.begin())) {
            frame.erase(frame.begin(), frame.begin() + static_cast<long>(set.size()));
        }
    }
    return frame;
}

// Feeds the pieces. `touched` are the frames that may come out damaged, more than once or not at all.
void check(const Stream& stream, const std::vector<Piece>& pieces, const std::set<size_t>& touched,
           const std::string& what) {
    for (const bool drop : {true, false}) {
        SCOPED_TRACE(what + (drop ? " drop" : " keep"));
        Depacketiser in(ENC_TYPE_H264, drop);
        in.Engine().SetH264Config(SPS.data(), static_cast<int>(SPS.size()), PPS.data(), static_cast<int>(PPS.size()));
        for (const Piece& piece : pieces) {
            in.Put(piece.packet);
        }
        for (size_t i = 0; i < stream.frames.size(); ++i) {
            const long count = std::count(in.m_frames.begin(), in.m_frames.end(), stream.frames[i]);
            EXPECT_TRUE(count == 1 || touched.count(i) != 0) << i;
        }
        for (const Bytes& frame : in.m_frames) {
            const bool whole = std::any_of(stream.frames.begin(), stream.frames.end(),
                                           [&](const Bytes& each) { return picture_of(each) == picture_of(frame); });
            EXPECT_TRUE(!drop || whole) << ToHex(frame);
        }
        EXPECT_TRUE(!touched.empty() || in.m_events.empty());
    }
}

// The frames beside the place in front of `at`: what ends there, and what begins there.
std::set<size_t> around(const std::vector<Piece>& pieces, size_t at) {
    std::set<size_t> frames;
    if (at > 0) {
        frames.insert(pieces[at - 1].frame);
    }
    if (at < pieces.size()) {
        frames.insert(pieces[at].frame);
    }
    return frames;
}

TEST(Rtp2FrameLoss, LostDoubledAndMovedAtEveryPosition) {
    const Stream stream = make_stream();
    const std::vector<Piece>& all = stream.pieces;
    check(stream, all, {}, "whole");
    for (size_t i = 0; i < all.size(); ++i) {
        std::vector<Piece> lost = all;
        lost.erase(lost.begin() + static_cast<long>(i));
        std::set<size_t> hurt = around(lost, i);
        hurt.insert(all[i].frame);
        check(stream, lost, hurt, "lost " + std::to_string(i));
        for (size_t j = 1; j <= lost.size(); ++j) {  // in front of all others nothing tells that it is misplaced
            const std::string place = std::to_string(i) + " to " + std::to_string(j);
            std::set<size_t> touched = around(lost, j);
            touched.insert(hurt.begin(), hurt.end());
            std::vector<Piece> changed = lost;
            changed.insert(changed.begin() + static_cast<long>(j), all[i]);
            if (j != i) {
                check(stream, changed, touched, "moved " + place);
            }
            touched = around(all, j);
            touched.insert(all[i].frame);
            changed = all;
            changed.insert(changed.begin() + static_cast<long>(j), all[i]);
            check(stream, changed, touched, "doubled " + place);
        }
    }
}

// Whoever joins in the middle of a frame, at the start or when the sender changes, waits for the next one; so does
// whoever clears in the middle of one.
TEST(Rtp2FrameLoss, TheRestOfAFrameNeverComesOut) {
    for (const auto& row : ReadTable(TABLES, "first packets", 3)) {
        SCOPED_TRACE(row[0] + " " + row[2]);
        const Bytes first = FromHex(row[1]), other = FromHex(row[2]);
        Depacketiser in(std::stoi(row[0]), true);
        RtpFields fields;
        const auto put = [&](const Bytes& payload, bool marker) {
            fields.marker = marker;
            const int ret = in.Put(MakeRtp(fields, payload));
            ++fields.sequence;
            fields.timestamp += marker ? 3600 : 0;
            return ret;
        };
        for (int turn = 0; turn < 3; ++turn) {
            if (turn < 2) {
                EXPECT_EQ(0, put(other, false)) << turn;
            } else {
                put(first, false);
                in.Engine().Clear();
            }
            EXPECT_EQ(0, put(other, true)) << turn;
            EXPECT_EQ(1, put(first, true)) << turn;
            ++fields.ssrc;
        }
    }
}

// The second field of a frame begins like a frame. 64 pixels by two fields of 16 lines; slices with field_pic_flag 1.
TEST(Rtp2FrameLoss, ALaterFieldBeginsNoFrame) {
    const Bytes sps = FromHex("6742c01eda1248");
    for (const auto& row : {std::make_pair("618886", 0), std::make_pair("618882", 1), std::make_pair("658886", 1)}) {
        Depacketiser in(ENC_TYPE_H264, true);
        in.Engine().SetH264Config(sps.data(), static_cast<int>(sps.size()), PPS.data(), static_cast<int>(PPS.size()));
        EXPECT_EQ(row.second, in.Put(MakeRtp({1, 3600, true}, FromHex(row.first)))) << row.first;
        EXPECT_EQ(row.second, in.Put(MakeRtp({3, 7200, true}, FromHex(row.first)))) << row.first;
    }
}

// A frame that can't be made doesn't take the packet that showed its end with it.
TEST(Rtp2FrameLoss, AMalformedFrameCostsOnlyItself) {
    Depacketiser in(ENC_TYPE_H264, true);
    RtpFields fields;
    for (const char* payload : {"65b8", "79001100026511", "7c85b8", "7c05bb", "7c45cc"}) {
        in.Put(MakeRtp(fields, FromHex(payload)));
        fields.timestamp += fields.sequence++ < 3 ? 3600 : 0;
        fields.marker = fields.sequence == 5;
    }
    EXPECT_EQ((std::vector<Bytes>{FromHex("0000000165b8"), FromHex("0000000165b8bbcc")}), in.m_frames);
}

// A gap is told once for the packets that were held and are dropped, and once for the frame that it damages.
TEST(Rtp2FrameLoss, NotificationsTellWhatAGapCosts) {
    for (const auto& row : ReadTable(TABLES, "gaps", 4)) {
        SCOPED_TRACE(row[0] + ", " + row[1] + ", " + row[2]);
        const CLogCapture log;
        Depacketiser in(ENC_TYPE_H264);
        in.Put(MakeRtp({1, 3600, row[0] == "taken"}, FromHex("61e0")));
        in.Put(MakeRtp({3, row[1] == "same" ? 3600u : 7200u, row[0] == "taken"}, FromHex(row[2])));
        std::vector<std::string> events(std::stoul(row[3]), "seq 1 3");
        events.insert(events.begin(), "ssrc 0 287454020");
        EXPECT_EQ(events, in.m_events);
        EXPECT_EQ(1, log.Count(">>> RTP SSRC CHANGES from [00000000] to [11223344]\n"));
    }
}

// Packets without payload keep a way through the network open: they belong to no frame, and cost none.
TEST(Rtp2FrameLoss, EmptyPacketsAreCountedAndPassedOver) {
    const Stream stream = make_stream();
    for (size_t at = 1; at <= stream.pieces.size(); ++at) {
        for (const bool lost : {false, true}) {  // the packet in front of the empty one
            std::vector<Piece> pieces;
            for (size_t i = 0; i < stream.pieces.size(); ++i) {
                Bytes packet = stream.pieces[i].packet;
                const int sequence = packet[2] << 8 | packet[3];
                const auto number = [&packet](int value) {
                    packet[2] = static_cast<uint8_t>(value >> 8);
                    packet[3] = static_cast<uint8_t>(value);
                };
                number(sequence + (i >= at ? 1 : 0));
                if (!lost || i + 1 != at) {
                    pieces.push_back({stream.pieces[i].frame, packet});
                }
                if (i + 1 == at) {
                    packet.resize(12);
                    number(sequence + 1);
                    packet[4] ^= at % 2 == 0 ? 0x55 : 0;  // of the frame's time, or another
                    if (at % 3 == 0) {                    // nothing but padding
                        packet[0] |= 0x20;
                        packet = packet + Bytes{0, 0, 0, 4};
                    }
                    pieces.push_back({stream.pieces[i].frame, packet});
                }
            }
            std::set<size_t> touched = lost ? around(stream.pieces, at) : std::set<size_t>();
            check(stream, pieces, touched, (lost ? "behind a loss at " : "at ") + std::to_string(at));
        }
    }
}

// Whatever a peer sends with each packet doesn't fill the log. A slow machine may take some seconds for it.
TEST(Rtp2FrameLoss, FaultsOfAPeerDoNotFillTheLog) {
    const int packets = 2000;
    for (const int enc_type : {ENC_TYPE_H264, ENC_TYPE_JPEG, ENC_TYPE_MPEG2TS}) {
        const CLogCapture log(Ostra::LOG_LEVEL_WARN);
        Depacketiser in(enc_type);
        RtpFields fields;
        fields.marker = true;
        for (int i = 0; i < packets; ++i) {
            in.Put(MakeRtp(fields, Bytes(188, i % 3 == 0 ? uint8_t{0x47} : uint8_t{0xff})));
            in.Put({0x80});
            ++fields.ssrc;
        }
        EXPECT_LT(log.Count(""), packets / 4) << enc_type;
    }
}

TEST(Rtp2FrameLoss, CutBeforeThePayload) {
    const Stream stream = make_stream();
    for (size_t i = 0; i < stream.pieces.size(); ++i) {
        std::vector<Piece> pieces = stream.pieces;
        for (long len : {0, 4, 11, 13}) {  // with 13 the one byte makes the whole frame fail; 12 is a whole packet
            pieces[i].packet = Bytes(stream.pieces[i].packet.begin(), stream.pieces[i].packet.begin() + len);
            check(stream, pieces, around(pieces, i + 1), "cut " + std::to_string(i) + " to " + std::to_string(len));
        }
    }
}

}  // namespace
}  // namespace Kavio::Support
