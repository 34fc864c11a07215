#include <gtest/gtest.h>

#include <map>

#include "StreamParser/Crc32.h"
#include "StreamParser/Frame2Ps.h"
#include "StreamParser/Frame2Ts.h"
#include "StreamParser/Ts2Frame.h"
#include "StreamParser/TsRtpHeader.h"
#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/Depacketiser.h"
#include "support/PackerUnits.h"

namespace Kavio::Support {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/ts.txt";

// The TS packets of a frame; empty if it wasn't taken.
std::vector<Bytes> packets_of(CFrame2Ts& packer, const Bytes& frame, int enc_type, uint64_t pts) {
    std::vector<Bytes> packets;
    for (const Bytes& unit : Pack(packer, frame, enc_type, pts)) {
        for (size_t at = 0; at + TS_PACK_LEN <= unit.size(); at += TS_PACK_LEN) {
            packets.push_back(Part(unit, at, TS_PACK_LEN));
        }
    }
    return packets;
}

int pid_of(const Bytes& packet) {
    return (packet[1] & 0x1F) << 8 | packet[2];
}

Bytes payload_of(const Bytes& packet) {
    return Part(packet, 5u + packet[4]);
}

TEST(Frame2Ts, TablesAreAsReadersExpectThem) {
    CFrame2Ts packer;
    packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_MP3, 7);
    const std::vector<Bytes> packets = packets_of(packer, Bytes(100, 1), ENC_TYPE_H264, 0);
    ASSERT_EQ(3u, packets.size());
    EXPECT_EQ(FromHex("47 4000 30 a6 00"), Part(packets[0], 0, 6));
    EXPECT_EQ(FromHex("47 5001 30 9c 00"), Part(packets[1], 0, 6));
    const Bytes pat = payload_of(packets[0]);
    const Bytes pmt = payload_of(packets[1]);
    EXPECT_EQ(FromHex("00 00b00d 0010 c1 0000 0001 f001"), Part(pat, 0, pat.size() - 4));
    EXPECT_EQ(FromHex("00 02b017 0001 c1 0000 e100 f000 1b e100 f000 03 e101 f000"), Part(pmt, 0, pmt.size() - 4));
    EXPECT_EQ(0u, mpeg_crc32(pat.data() + 1, pat.size() - 1));
    EXPECT_EQ(0u, mpeg_crc32(pmt.data() + 1, pmt.size() - 1));
}

TEST(Frame2Ts, FramesFillPacketsToTheLastByte) {
    const struct {
        size_t len;
        std::vector<int> adaptation;  // lengths, packet by packet
    } rows[] = {{1, {163}}, {157, {7}}, {158, {7, 182}}, {157 + 182, {7, 1}}, {158 + 182, {7, 1, 182}}};
    for (const auto& row : rows) {
        CFrame2Ts packer;
        const Bytes frame = Ramp(row.len);
        packets_of(packer, frame, ENC_TYPE_H264, 1000);
        const std::vector<Bytes> packets = packets_of(packer, frame, ENC_TYPE_H264, 1000);
        ASSERT_EQ(row.adaptation.size(), packets.size()) << row.len;
        Bytes all;
        for (size_t i = 0; i < packets.size(); ++i) {
            EXPECT_EQ(row.adaptation[i], packets[i][4]) << row.len;
            EXPECT_EQ(i == 0 ? 0x41 : 0x01, packets[i][1]) << row.len;
            EXPECT_EQ(0x30 | ((packets.size() + i) & 15), packets[i][3]) << row.len;  // goes on from the first frame
            all = all + payload_of(packets[i]);
        }
        // 1000 ms are 90000 ticks: the clock reference, and PTS and DTS in the PES header.
        EXPECT_EQ(FromHex("10 0000afc8 7e00"), Part(packets[0], 5, 7));
        const Bytes length = {static_cast<uint8_t>((row.len + 13) >> 8), static_cast<uint8_t>(row.len + 13)};
        EXPECT_EQ(FromHex("000001e0") + length + FromHex("80c00a 310005bf21 110005bf21") + frame, all);
    }
}

TEST(Frame2Ts, TracksTablesAndClockOverManyFrames) {
    bool is_counted = false;
    for (const auto& row : ReadTable(TABLES, "tracks", 2)) {
        const std::vector<int> enc_types = Numbers(row[0]), pids = Numbers(row[1]);
        CFrame2Ts packer;
        packer.SetCountedTables(is_counted = !is_counted);
        for (size_t i = 0; i < 25; ++i) {
            const size_t turn = i % enc_types.size();
            const std::vector<Bytes> packets = packets_of(packer, Bytes(10, 1), enc_types[turn], i);
            ASSERT_EQ(i % 10 == 0 ? 3u : 1u, packets.size()) << i;
            EXPECT_EQ(pids[turn], pid_of(packets.back())) << i;
            EXPECT_EQ(0x10, packets.back()[5]);
            EXPECT_EQ(pids[turn] == 0x101 ? 0xC1 : 0xE0, payload_of(packets.back())[3]);
            if (i % 10 == 0) {
                const Bytes pmt = payload_of(packets[1]);
                EXPECT_EQ(pids[0], (pmt[9] & 0x1F) << 8 | pmt[10]);
                EXPECT_EQ(0x30 | (is_counted ? i / 10 : 0), packets[1][3]);
                EXPECT_EQ(packets[0][3], packets[1][3]);
            }
        }
    }
}

// ISO 13818-1 2.4.2.2: the clock goes on while the pictures' times step back. Seconds back begin a new time line.
TEST(Frame2Ts, ClocksStandStillForPicturesThatStepBack) {
    const std::vector<uint64_t> times = {0, 80, 40, 160, 120, 240, 100000, 98000, 97999, 98040, 0};
    const std::vector<uint64_t> clocks = {0, 80, 80, 160, 160, 240, 100000, 100000, 97999, 98040, 0};
    CFrame2Ts packer;
    CTsRtpHeader header;
    RtpEncParam param;
    header.Begin(param);
    for (size_t i = 0; i < times.size(); ++i) {
        const Bytes packet = packets_of(packer, Bytes(10, 1), ENC_TYPE_H264, times[i]).back();
        const uint64_t base =
            uint64_t{packet[6]} << 25 | packet[7] << 17 | packet[8] << 9 | packet[9] << 1 | packet[10] >> 7;
        EXPECT_EQ(clocks[i] * 90, base) << i;
        const Bytes pts = Part(payload_of(packet), 9, 5);
        EXPECT_EQ(times[i] * 90, pts[1] << 22 | pts[2] >> 1 << 15 | pts[3] << 7 | pts[4] >> 1) << i;
        header.SetTime(times[i]);
        header.Get(param);
        EXPECT_EQ(clocks[i] * 90, param.timestamp) << i;
    }
}

TEST(Frame2Ts, ChangedTablesComeAtOnceWithANewVersion) {
    CFrame2Ts packer;
    packer.SetCountedTables(true);
    const int kinds[] = {STREAM_KIND_H264, STREAM_KIND_H264, STREAM_KIND_MPEG4};
    const std::vector<Bytes> expected = {FromHex("c1"), {}, FromHex("c3")};  // version and current flag
    for (size_t i = 0; i < 3; ++i) {
        packer.SetTsInfo(kinds[i], STREAM_KIND_MP3, 7);
        const std::vector<Bytes> packets = packets_of(packer, Bytes(100, 1), ENC_TYPE_H264, 0);
        EXPECT_EQ(expected[i], packets.size() < 3 ? Bytes() : Part(payload_of(packets[1]), 6, 1));
    }
}

TEST(Frame2Ts, UnitsAndRefusals) {
    const struct {
        int per_output, count;
    } rows[] = {{1, 19}, {7, 3}, {0, 3}, {100000, 1}};  // of 19 packets, with the tables
    for (const auto& row : rows) {
        CFrame2Ts packer;
        packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, row.per_output);
        EXPECT_TRUE(Pack(packer, Bytes(STREAM_BUFFER_LEN + 1, 7), ENC_TYPE_H264).empty());
        EXPECT_TRUE(Pack(packer, Bytes(), ENC_TYPE_H264).empty());
        EXPECT_EQ(static_cast<size_t>(row.count), Pack(packer, Ramp(2900), ENC_TYPE_H264).size());
    }
    // The largest frame: with the tables 2786 packets are left.
    CFrame2Ts fresh;
    const unsigned most = 157 + 2785 * 182;
    EXPECT_EQ(-1, fresh.PutFrame(Bytes(most + 1).data(), most + 1, ENC_TYPE_H264, 0, 0));
    EXPECT_EQ(0, fresh.PutFrame(Bytes(most).data(), most, ENC_TYPE_H264, 0, 0));
    EXPECT_EQ(2788 * 188, fresh.GetTotalSize());
}

TEST(Frame2Ps, HeadersAreAsReadersExpectThem) {
    for (const auto& row : ReadTable(TABLES, "program stream", 6)) {
        SCOPED_TRACE(row[0]);
        CFrame2Ps packer;
        const std::vector<int> info = Numbers(row[1]);
        if (info.size() == 5) {
            packer.SetPsInfo(info[2], info[3], 8000, info[4]);
        }
        const std::vector<Bytes> units =
            Pack(packer, FromHex("00000001 6588"), info[0], static_cast<uint64_t>(info[1]));
        ASSERT_EQ(4u, units.size());
        for (size_t i = 0; i < 4; ++i) {
            EXPECT_EQ(ToHex(FromHex(row[2 + i])), ToHex(units[i]));
        }
    }
}

TEST(Frame2Ps, FramesAreCutIntoPesPackets) {
    for (const auto& row : ReadTable(TABLES, "PES packets", 2)) {
        SCOPED_TRACE(row[0]);
        const std::vector<int> sizes = Numbers(row[0]);
        CFrame2Ps packer;
        packer.SetPsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, sizes[0], 1000000);
        const std::vector<Bytes> units = Pack(packer, Ramp(static_cast<size_t>(sizes[1])), ENC_TYPE_H264);
        std::vector<int> parts;
        for (size_t i = 3; i < units.size(); ++i) {
            parts.push_back(static_cast<int>(units[i].size()) - 19);
            EXPECT_EQ(parts.back() + 13, units[i][4] << 8 | units[i][5]);
        }
        EXPECT_EQ(Numbers(row[1]), parts);
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

// Puts packets as a decoder of a byte stream does, and takes the frames.
struct Demuxer {
    explicit Demuxer(const std::vector<Bytes>& tables = {}) {
        for (const Bytes& table : tables) {
            EXPECT_EQ(0, Put(table));
        }
    }
    int Put(const Bytes& packet, bool last = false) {
        int ret = FRAME_COMPLETE_NEXT;
        for (int round = 0; round < 2 && ret == FRAME_COMPLETE_NEXT; ++round) {
            ret = in.PutPacket(packet.data(), static_cast<int>(packet.size()), last);
            if (ret > FRAME_MORE) {
                frames.push_back(TakeFrame(in));
                letters += static_cast<char>(in.GetFrameType());
            }
            if (ret != FRAME_MORE) {
                in.Clear();
            }
        }
        EXPECT_NE(FRAME_COMPLETE_NEXT, ret) << "one packet ended two frames";
        return ret;
    }

    Ts2Frame in;
    std::vector<Bytes> frames;
    std::string letters;
};

// A packet with the given head and payload, stuffed in an adaptation field.
Bytes ts_packet(int pid, bool start, const Bytes& payload) {
    const size_t stuffing = 183 - payload.size();
    Bytes packet = {0x47, static_cast<uint8_t>((start ? 0x40 : 0) | pid >> 8), static_cast<uint8_t>(pid), 0x30,
                    static_cast<uint8_t>(stuffing)};
    packet.resize(5 + stuffing, 0xFF);
    if (stuffing > 0) {
        packet[5] = 0;
    }
    return packet + payload;
}

const Bytes PAT = ts_packet(0, true, FromHex("00 00b00d 0001 c1 0000 0001 e020 00000000"));
// H.264 on PID 0x111 with six bytes of descriptors, a private stream on PID 0x112.
const Bytes PMT =
    ts_packet(0x20, true, FromHex("00 02b01d 0001 c1 0000 e111 f000 1b e111 f006 010203040506 06 e112 f000 00000000"));
const Bytes SLICE = FromHex("000001e0 0000 800000 0000000161e0aa");

TEST(Ts2Frame, TablesOfOthersAreRead) {
    for (const auto& row : ReadTable(TABLES, "tables", 6)) {
        SCOPED_TRACE(row[0]);
        CLogCapture log;
        Demuxer demuxer({ts_packet(0, true, FromHex(row[1])), ts_packet(0x20, true, FromHex(row[2]))});
        EXPECT_EQ(row[3], std::to_string(demuxer.in.GetTable().track_count));
        const int result = demuxer.Put(ts_packet(0x111, true, FromHex(row[5])), true);
        EXPECT_EQ(row[4], std::to_string(result));
        EXPECT_EQ(result < 0, log.Count(", unsupported encode type, 5.\n"));
        EXPECT_EQ(result < 0, log.Count(" _ts_stream.dec ret:-1 \n"));
        // A good program after it is read as ever.
        demuxer.Put(PAT);
        demuxer.Put(PMT);
        EXPECT_EQ(1, demuxer.Put(ts_packet(0x111, true, SLICE), true));
        EXPECT_EQ("0000000161e0aa", ToHex(demuxer.frames.back()));
    }
}

// One of these between the packets of a frame either costs it or isn't seen.
TEST(Ts2Frame, BrokenPacketsAreRefusedOrIgnored) {
    for (const auto& row : ReadTable(TABLES, "broken packets", 4)) {
        SCOPED_TRACE(row[0]);
        const bool costs = row[3] == "costs it";
        Demuxer demuxer({PAT, PMT, ts_packet(0x111, true, SLICE)});
        const Bytes head = FromHex(row[1]);
        EXPECT_EQ(costs ? -1 : 0, demuxer.Put(head + Part(ts_packet(0x111, true, FromHex(row[2])), head.size())));
        EXPECT_EQ(costs ? 0 : 1, demuxer.Put(ts_packet(0x111, false, FromHex("bb")), true));  // the frame's rest
        EXPECT_EQ(1, demuxer.Put(ts_packet(0x111, true, SLICE), true));
        EXPECT_EQ(costs ? 1u : 2u, demuxer.frames.size());
        EXPECT_EQ(costs ? "0000000161e0aa" : "0000000161e0aabb", ToHex(demuxer.frames[0]));
        EXPECT_EQ("0000000161e0aa", ToHex(demuxer.frames.back()));
    }
    CAssertCapture asserts;
    EXPECT_EQ(-1, Demuxer().in.PutPacket(PAT.data(), 187, false));
}

// PES headers of every length, cut by the packet's end at every place behind the length byte; access unit delimiters in
// front of the first slice are dropped with them.
TEST(Ts2Frame, PesHeadersMayGoOnInTheNextPacket) {
    const Bytes delimiter = FromHex("0000000109f0"), frame = FromHex("000000016742 0000000161e0aabb");
    for (size_t header = 0; header < 256; ++header) {
        for (const size_t room : {9, 20, 100, 183}) {
            const Bytes pes = FromHex("000001e0 0000 8000") + Bytes{static_cast<uint8_t>(header)} +
                              Bytes(header, 0xFF) + delimiter + frame;
            Demuxer demuxer({PAT, PMT});
            for (size_t at = 0; at < pes.size(); at += room) {
                demuxer.Put(ts_packet(0x111, at == 0, Part(pes, at, room)), at + room >= pes.size());
            }
            ASSERT_EQ(1u, demuxer.frames.size());
            // Whole if the first start code stood in the packet that ends the header; otherwise with what was before.
            ASSERT_EQ(0u, ToHex(delimiter + frame).find(ToHex(demuxer.frames[0])) % 12) << header << " " << room;
            ASSERT_GE(demuxer.frames[0].size(), frame.size());
            // Behind a picture it ends that one, also if nothing but its header is in sight.
            EXPECT_EQ(0, demuxer.Put(ts_packet(0x111, true, SLICE)));
            EXPECT_EQ(0, demuxer.Put(ts_packet(0x111, true, Part(pes, 0, room))));
            ASSERT_EQ(2u, demuxer.frames.size());
        }
    }
}

// Elementary streams of a table, parted by commas: hexadecimal digits, and names of the pieces below.
std::vector<Bytes> pieces_of(const std::string& texts) {
    static const std::map<std::string, std::string> PIECES = {
        {"$sei", "00000106ff 55*300 80"},  // longer than a packet
        {"$sps", "0000016742c01eda078239"},
        {"$pps", "00000168ce3c80"},
        {"$idr", "000001658884 22*81"},
        {"$p", "00000141e0aa"},  // the first slice of a picture, and a later one
        {"$p2", "0000014160bb"},
        {"$vos", "000001b001000001b509000001000000012000845d4c28582120a31f"},
        {"$sequence", "000001b32d024033ffffe018"}};
    std::vector<Bytes> all;
    for (const std::string& text : SplitText(texts, ',')) {
        all.emplace_back();
        for (const std::string& piece : SplitText(text, ' ')) {
            all.back() = all.back() + FromHex(piece[0] == '$' ? PIECES.at(piece) : piece);
        }
    }
    return all;
}

// Pictures end where the next one begins, as encoders and multiplexers of all kinds write that.
TEST(Ts2Frame, PicturesEndWhereTheNextOneBegins) {
    for (const auto& row : ReadTable(TABLES, "pictures", 6)) {
        SCOPED_TRACE(row[0]);
        Demuxer demuxer(
            {PAT,
             ts_packet(0x20, true, FromHex("00 02b012 0001 c1 0000 e111 f000 " + row[1] + " e111 f000 00000000"))});
        for (const Bytes& payload : pieces_of(row[2])) {
            const Bytes pes = FromHex("000001e0 0000 800000") + payload;
            for (size_t at = 0; at < pes.size(); at += 183) {
                EXPECT_EQ(0, demuxer.Put(ts_packet(0x111, at == 0, Part(pes, at, 183))));
            }
        }
        EXPECT_EQ(pieces_of(row[3]), demuxer.frames);
        EXPECT_EQ(row[4], demuxer.letters);
        EXPECT_EQ(row[5], std::to_string(demuxer.in.GetWidth()));
    }
}

TEST(Ts2Frame, AFrameBeyondTheBufferFails) {
    Demuxer demuxer({PAT, PMT});
    CLogCapture log;
    const Bytes packet = ts_packet(0x111, false, Bytes(183, 0x55));
    int ret = demuxer.Put(ts_packet(0x111, true, SLICE));
    uint32_t size = 0;
    for (int i = 0; i < 20000 && ret == 0; ++i) {
        size = demuxer.in.GetFrameSize();
        ret = demuxer.Put(packet);
    }
    EXPECT_EQ(-1, ret);
    EXPECT_LE(size, Ts2Frame::MAX_FRAME_LEN);
    EXPECT_GT(size + 183, Ts2Frame::MAX_FRAME_LEN);
    EXPECT_EQ(1, log.Count(" _ts_stream.dec ret:-2 \n"));
    EXPECT_EQ(0, demuxer.Put(packet, true));
    EXPECT_EQ(1, demuxer.Put(ts_packet(0x111, true, SLICE), true));
}

// Frames of sizes that the PES packet tells, doesn't tell, or tells wrong, each after one of another size.
TEST(Ts2Frame, FramesAreHandedOverWithoutMuchEmptyMemory) {
    Demuxer demuxer({PAT, PMT});
    for (const size_t len : {4, 300000, 20, 60000, 3000, 200000, 400000}) {
        for (const size_t told : {len + 3, size_t{0}, size_t{40}, size_t{65535}}) {
            const Bytes frame = FromHex("0000000161e0") + Bytes(len, 0x55);
            const Bytes length = told > 65535 ? Bytes(2) : Bytes{uint8_t(told >> 8), uint8_t(told)};
            const Bytes pes = FromHex("000001e0") + length + FromHex("800000") + frame;
            int ret = FRAME_MORE;
            for (size_t at = 0; at < pes.size(); at += 183) {
                ret = demuxer.in.PutPacket(ts_packet(0x111, at == 0, Part(pes, at, 183)).data(), TS_PACK_LEN,
                                           at + 183 >= pes.size());
            }
            ASSERT_EQ(FRAME_COMPLETE, ret);
            const Flumen::CMediaFrame out = demuxer.in.TakeFrame();
            EXPECT_EQ(frame, Bytes(out.getBuffer(), out.getBuffer() + out.size()));
            EXPECT_LE(out.capacity(), out.size() / 3 * 4 + 2);
            EXPECT_EQ(0u, demuxer.in.GetFrameSize());
            demuxer.in.Clear();
        }
    }
}

// A clock on a PID of its own, 0x113, which goes on where its 33 bits wrap, and may go back.
TEST(Ts2Frame, TheClockGoesOnBeyondItsWrap) {
    Bytes map = PMT;
    map[map.size() - 23] = 0x13;  // the low byte of the clock's PID
    Demuxer demuxer({PAT, map});
    const uint64_t wrap = uint64_t{1} << 33;
    for (const uint64_t ticks : {wrap - 9000, wrap - 18000, wrap + 9000, wrap - 9000, 2 * wrap / 3, wrap}) {
        const uint64_t base = ticks % wrap;
        Bytes clock = FromHex("47 0113 20 b7 10 00000000 00 00") + Bytes(176, 0xFF);
        for (int i = 0; i < 4; ++i) {
            clock[6 + i] = static_cast<uint8_t>(base >> (25 - 8 * i));
        }
        clock[10] = static_cast<uint8_t>(base << 7);
        demuxer.Put(clock);
        EXPECT_EQ(1, demuxer.Put(ts_packet(0x111, true, SLICE), true));
        EXPECT_EQ(ticks / 90, demuxer.in.GetPts());
    }
}

// In the middle of a frame, where most packets are appended unseen: a clock reference counts, and so does a program map
// that gives the track another PID.
TEST(Ts2Frame, ClockAndTablesCountInTheMiddleOfAFrame) {
    Demuxer demuxer({PAT, PMT, ts_packet(0x111, true, SLICE), ts_packet(0x111, false, FromHex("bb"))});
    Bytes clock = ts_packet(0x111, false, FromHex("cc"));
    const Bytes reference = FromHex("10 0000afc8 7e00");  // 90000 ticks
    std::copy(reference.begin(), reference.end(), clock.begin() + 5);
    EXPECT_EQ(0, demuxer.Put(clock));
    EXPECT_EQ(1000u, demuxer.in.GetPts());
    Bytes moved = PMT;
    moved[moved.size() - 18] = 0x13;  // the low byte of the first PID
    EXPECT_EQ(0, demuxer.Put(moved));
    EXPECT_EQ(0, demuxer.Put(ts_packet(0x111, false, FromHex("dd"))));
    EXPECT_EQ(1, demuxer.Put(ts_packet(0x113, false, FromHex("ee")), true));
    EXPECT_EQ("0000000161e0aabbccee", ToHex(demuxer.frames.at(0)));
}

}  // namespace
}  // namespace Kavio::Support
