#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "StreamParser/Crc32.h"
#include "StreamParser/Frame2Ts.h"
#include "StreamParser/Ts2Frame.h"
#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/PackerUnits.h"
#include "support/StreamBytes.h"

namespace Kavio {
namespace Support {

using namespace Vidora;

namespace {

// The TS packets of a frame; empty if it wasn't taken.
std::vector<Bytes> packets_of(CFrame2Ts& packer, const Bytes& frame, int enc_type, uint64_t pts) {
    std::vector<Bytes> packets;
    if (packer.PutFrame(frame.data(), static_cast<unsigned>(frame.size()), enc_type, pts, 0) == 0) {
        for (const Bytes& unit : UnitsOf(packer)) {
            for (size_t at = 0; at + TS_PACK_LEN <= unit.size(); at += TS_PACK_LEN) {
                packets.emplace_back(unit.begin() + static_cast<long>(at),
                                     unit.begin() + static_cast<long>(at + TS_PACK_LEN));
            }
        }
    }
    return packets;
}

int pid_of(const Bytes& packet) {
    return (packet[1] & 0x1F) << 8 | packet[2];
}

Bytes payload_of(const Bytes& packet) {
    return Bytes(packet.begin() + 5 + packet[4], packet.end());
}

TEST(Frame2Ts, TablesAreAsReadersExpectThem) {
    CFrame2Ts packer;
    packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_MP3, 7);
    const std::vector<Bytes> packets = packets_of(packer, Bytes(100, 1), ENC_TYPE_H264, 0);
    ASSERT_EQ(3u, packets.size());
    EXPECT_EQ(ToHex(FromHex("47 4000 30 a6 00")), ToHex(Bytes(packets[0].begin(), packets[0].begin() + 6)));
    EXPECT_EQ(ToHex(FromHex("47 5001 30 9c 00")), ToHex(Bytes(packets[1].begin(), packets[1].begin() + 6)));
    const Bytes pat = payload_of(packets[0]);
    const Bytes pmt = payload_of(packets[1]);
    EXPECT_EQ(ToHex(FromHex("00 00b00d 0010 c1 0000 0001 f001")), ToHex(Bytes(pat.begin(), pat.end() - 4)));
    EXPECT_EQ(ToHex(FromHex("00 02b017 0001 c1 0000 e100 f000 1b e100 f000 03 e101 f000")),
              ToHex(Bytes(pmt.begin(), pmt.end() - 4)));
    EXPECT_EQ(0u, mpeg_crc32(pat.data() + 1, pat.size() - 1));
    EXPECT_EQ(0u, mpeg_crc32(pmt.data() + 1, pmt.size() - 1));
}

TEST(Frame2Ts, FramesFillPacketsToTheLastByte) {
    struct Row {
        size_t len;
        std::vector<int> adaptation;  // lengths, packet by packet
    };
    const Row rows[] = {{1, {163}}, {157, {7}}, {158, {7, 182}}, {157 + 182, {7, 1}}, {158 + 182, {7, 1, 182}}};
    for (const Row& row : rows) {
        CFrame2Ts packer;
        Bytes frame(row.len);
        for (size_t i = 0; i < row.len; ++i) {
            frame[i] = static_cast<uint8_t>(i + 3);
        }
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
        EXPECT_EQ(ToHex(FromHex("10 0000afc8 7e00")), ToHex(Bytes(packets[0].begin() + 5, packets[0].begin() + 12)));
        const Bytes length = {static_cast<uint8_t>((row.len + 13) >> 8), static_cast<uint8_t>(row.len + 13)};
        EXPECT_EQ(ToHex(FromHex("000001e0") + length + FromHex("80c00a 310005bf21 110005bf21") + frame), ToHex(all));
    }
}

TEST(Frame2Ts, TracksTablesAndClockOverManyFrames) {
    struct Row {
        std::vector<int> enc_types;
        int pcr_pid;
        std::vector<int> pids;
    };
    const Row rows[] = {{{ENC_TYPE_H264, ENC_TYPE_AUDIO}, 0x100, {0x100, 0x101}},
                        {{ENC_TYPE_AUDIO, ENC_TYPE_H264}, 0x101, {0x101, 0x100}},
                        {{ENC_TYPE_MP3}, 0x101, {0x101}},
                        {{ENC_TYPE_MPEG_AUDIO}, 0x100, {0x100}}};
    for (const Row& row : rows) {
        CFrame2Ts packer;
        for (size_t i = 0; i < 25; ++i) {
            const size_t turn = i % row.enc_types.size();
            const std::vector<Bytes> packets = packets_of(packer, Bytes(10, 1), row.enc_types[turn], i);
            ASSERT_EQ(i % 10 == 0 ? 3u : 1u, packets.size()) << i;
            EXPECT_EQ(row.pids[turn], pid_of(packets.back())) << i;
            EXPECT_EQ(0x10, packets.back()[5]);
            EXPECT_EQ(row.pids[turn] == 0x101 ? 0xC1 : 0xE0, payload_of(packets.back())[3]);
            if (i % 10 == 0) {
                const Bytes pmt = payload_of(packets[1]);
                EXPECT_EQ(row.pcr_pid, (pmt[9] & 0x1F) << 8 | pmt[10]);
                EXPECT_EQ(0x30, packets[1][3]);  // tables keep the continuity counter 0
            }
        }
    }
}

TEST(Frame2Ts, UnitsAndRefusals) {
    CFrame2Ts packer;
    const Bytes huge(STREAM_BUFFER_LEN + 1, 7);
    const struct {
        int per_output, count;
    } rows[] = {{1, 19}, {7, 3}, {0, 3}, {100000, 1}};  // of 19 packets, the first time with the tables
    for (const auto& row : rows) {
        packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, row.per_output);
        Support::CLogCapture log;
        EXPECT_EQ(-1, packer.PutFrame(huge.data(), static_cast<unsigned>(huge.size()), 1, 0, 0));
        EXPECT_EQ(1, log.Count("CFrame2Ts::PutFrame TsStream fail\n"));
        EXPECT_EQ(-1, packer.PutFrame(nullptr, 10, 1, 0, 0));
        EXPECT_EQ(-1, packer.PutFrame(huge.data(), 0, 1, 0, 0));
        EXPECT_EQ(1u, log.Lines().size());
        EXPECT_EQ(0, packer.GetPacketCount());
        EXPECT_EQ(0, packer.GetPacketSize());
        EXPECT_EQ(-1, packer.NextPacket());
        ASSERT_EQ(0, packer.PutFrame(huge.data(), row.per_output == 1 ? 2900 : 3300, 1, 0, 0));
        EXPECT_EQ(19 * 188, packer.GetTotalSize());
        EXPECT_EQ(row.count, packer.GetPacketCount());
        EXPECT_EQ(static_cast<size_t>(row.count), UnitsOf(packer).size());
    }
    // The largest frame: with the tables 2786 packets are left.
    CFrame2Ts fresh;
    const unsigned most = 157 + 2785 * 182;
    EXPECT_EQ(-1, fresh.PutFrame(huge.data(), most + 1, 1, 0, 0));
    EXPECT_EQ(0, fresh.PutFrame(huge.data(), most, 1, 0, 0));
    EXPECT_EQ(2788 * 188, fresh.GetTotalSize());
}

// Puts packets as a decoder of a byte stream does, and takes the frames.
struct Demuxed {
    std::vector<Bytes> frames;
    std::string letters;
    std::vector<uint64_t> pts;
};

int put(Ts2Frame& in, const Bytes& packet, bool last, Demuxed& out) {
    for (int round = 0; round < 2; ++round) {
        const int ret = in.PutPacket(packet.data(), static_cast<int>(packet.size()), last);
        if (ret > 0) {
            Bytes frame(in.GetFrameSize());
            EXPECT_EQ(0u, frame.empty() ? 0 : in.GetFrame(frame.data(), static_cast<uint32_t>(frame.size() - 1)));
            EXPECT_EQ(frame.size(), in.GetFrame(frame.data(), static_cast<uint32_t>(frame.size())));
            out.frames.push_back(frame);
            out.letters += static_cast<char>(in.GetFrameType());
            out.pts.push_back(in.GetPts());
        }
        if (ret != FRAME_MORE) {
            in.Clear();
        }
        if (ret != FRAME_COMPLETE_NEXT) {
            return ret;
        }
    }
    ADD_FAILURE() << "one packet ended two frames";
    return -1;
}

// Frames of all lengths around the packet limits come back whole: by the marker of RTP, or by the next frame's slice.
TEST(Ts2Frame, RebuildsWhatTheMultiplexerWrites) {
    struct Row {
        int enc_type, kind;
        bool marked;
        const char* key;
        const char* other;
        int width;
    };
    const char* const h264_key = "000000016742c01eda078239 0000000168ce3c80 00000001658884";
    const Row rows[] = {
        {ENC_TYPE_H264, STREAM_KIND_H264, true, h264_key, "0000000161e0", 480},
        {ENC_TYPE_H264, STREAM_KIND_H264, false, h264_key, "0000000161e0", 480},
        {ENC_TYPE_MPEG4, STREAM_KIND_MPEG4, true,
         "000001b001 000001b509 00000100 00000120 00845d4c28582120a31f 000001b61011", "000001b65011", 352},
    };
    for (const Row& row : rows) {
        CFrame2Ts packer;
        packer.SetTsInfo(row.kind, STREAM_KIND_AUDIO, 7);
        Ts2Frame in;
        Demuxed out;
        std::vector<Bytes> frames;
        std::string letters;
        for (size_t len = 0; len < 800; len += len < 400 ? 1 : 37) {
            Bytes frame = FromHex(len % 7 == 0 ? row.key : row.other);
            frame.resize(std::max(frame.size(), len), static_cast<uint8_t>(0x80 | len));
            const std::vector<Bytes> packets = packets_of(packer, frame, row.enc_type, len);
            for (const Bytes& packet : packets) {
                put(in, packet, row.marked && &packet == &packets.back(), out);
            }
            for (const Bytes& packet : packets_of(packer, Bytes(50, 9), ENC_TYPE_AUDIO, len)) {
                EXPECT_EQ(0, put(in, packet, false, out));
            }
            frames.push_back(frame);
            letters += len % 7 == 0 ? 'I' : 'P';
        }
        if (!row.marked) {  // the last one isn't known to be over
            frames.pop_back();
            letters.pop_back();
        }
        EXPECT_EQ(frames, out.frames);
        EXPECT_EQ(letters, out.letters);
        EXPECT_EQ(row.width, in.GetWidth());
        EXPECT_EQ(row.kind, in.GetKind());
        EXPECT_EQ(row.kind == STREAM_KIND_H264 ? 0 : 1, in.GetInterlace());
    }
}

// The 33-bit clock wraps after 26.5 hours.
TEST(Ts2Frame, TimeWrapsWithTheClock) {
    CFrame2Ts packer;
    packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 1);
    Ts2Frame in;
    Demuxed out;
    for (const uint64_t pts : {95443717, 95443718, 95443818}) {
        for (const Bytes& packet : packets_of(packer, FromHex("0000000161e0"), ENC_TYPE_H264, pts)) {
            put(in, packet, packet[1] == 0x41, out);
        }
    }
    EXPECT_EQ((std::vector<uint64_t>{95443717, 0, 100}), out.pts);
}

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
    struct Row {
        const char* name;
        Bytes pat, pmt;
        int tracks;
        int result;  // of a slice on PID 0x111 put as the last of its frame
    };
    const auto pmt = [](const char* hex) { return ts_packet(0x20, true, FromHex(hex)); };
    const Row rows[] = {
        {"descriptors", PAT, PMT, 2, 1},
        {"pointer field", ts_packet(0, true, FromHex("02aabb 00b00d 0001 c1 0000 0001 e020 00000000")), PMT, 2, 1},
        {"two programs: the first one", ts_packet(0, true, FromHex("00 00b011 0001 c10000 0001e020 0002e030 00000000")),
         PMT, 2, 1},
        {"no program", ts_packet(0, true, FromHex("00 00b009 0001 c1 0000 00000000")), PMT, 0, 0},
        {"section longer than the packet", ts_packet(0, true, FromHex("00 00b0ff 0001 c1 0000 0001 e020 00000000")),
         PMT, 0, 0},
        {"pointer beyond the packet", ts_packet(0, true, FromHex("ff 00b00d 0001 c1 0000 0001 e020 00000000")), PMT, 0,
         0},
        {"program map cut", PAT, pmt("00 02b0ff 0001 c1 0000 e111 f000 1b e111 f000 00000000"), 0, 0},
        {"program map without tracks", PAT, pmt("00 02b00d 0001 c1 0000 e111 f000 00000000"), 0, 0},
        // Entries are read from where they'd stand without program descriptors: 1b e111 is taken from behind these.
        {"program descriptors are misread", PAT,
         pmt("00 02b017 0001 c1 0000 e111 f005 0500000000 1b e111 f000 00000000"), 2, 0},
        {"one track of another kind", PAT, pmt("00 02b012 0001 c1 0000 e111 f000 06 e111 f000 00000000"), 1, -1},
        {"MPEG-4", PAT, pmt("00 02b012 0001 c1 0000 e111 f000 10 e111 f000 00000000"), 1, 1},
        {"MPEG-2", PAT, pmt("00 02b012 0001 c1 0000 e111 f000 02 e111 f000 00000000"), 1, 1},
    };
    for (const Row& row : rows) {
        Ts2Frame in;
        Support::CLogCapture log;
        EXPECT_EQ(0, in.PutPacket(row.pat.data(), TS_PACK_LEN, false)) << row.name;
        EXPECT_EQ(0, in.PutPacket(row.pmt.data(), TS_PACK_LEN, false)) << row.name;
        EXPECT_EQ(row.tracks, in.GetTable().track_count) << row.name;
        Demuxed out;
        EXPECT_EQ(row.result, put(in, ts_packet(0x111, true, SLICE), true, out)) << row.name;
        EXPECT_EQ(row.result < 0, log.Count(", unsupported encode type, 5.\n")) << row.name;
        EXPECT_EQ(row.result < 0, log.Count(" _ts_stream.dec ret:-1 \n")) << row.name;
        // A good program after it is read as ever.
        in.PutPacket(PAT.data(), TS_PACK_LEN, false);
        in.PutPacket(PMT.data(), TS_PACK_LEN, false);
        EXPECT_EQ(1, put(in, ts_packet(0x111, true, SLICE), true, out)) << row.name;
        EXPECT_EQ("0000000161e0aa", ToHex(out.frames.back())) << row.name;
    }
}

TEST(Ts2Frame, BrokenPacketsAreRefusedOrIgnored) {
    Bytes no_sync = ts_packet(0x111, true, SLICE);
    no_sync[0] = 0x48;
    Bytes long_adaptation = ts_packet(0x111, false, SLICE);
    long_adaptation[4] = 184;
    Bytes long_start = long_adaptation;
    long_start[1] |= 0x40;
    Bytes no_payload = ts_packet(0x111, false, SLICE);
    no_payload[3] = 0x20;
    Bytes reserved = no_payload;
    reserved[3] = 0;
    struct Row {
        const char* name;
        Bytes packet;
        int result;
        const char* log;
    };
    const Row rows[] = {
        {"no sync byte", no_sync, -1, " _ts_stream.demux ret:-1 \n"},
        {"adaptation beyond the packet", long_adaptation, 0, ", invalid adaptation length.\n"},
        {"the same with unit start", long_start, -1, ", invalid pes header.\n"},
        {"no PES start", ts_packet(0x111, true, FromHex("000002e0")), -1, ", invalid pes header.\n"},
        {"unknown PID", ts_packet(0x300, false, SLICE), 0, ""},
        {"PID 17", ts_packet(0x11, true, SLICE), 0, ""},
        {"second track", ts_packet(0x112, true, SLICE), 0, ""},
        {"adaptation only", no_payload, 0, ""},
        {"reserved adaptation control", reserved, 0, ""},
    };
    for (const Row& row : rows) {
        Ts2Frame in;
        Demuxed out;
        put(in, PAT, false, out);
        put(in, PMT, false, out);
        EXPECT_EQ(0, put(in, ts_packet(0x111, true, SLICE), false, out));
        Support::CLogCapture log;
        EXPECT_EQ(row.result, put(in, row.packet, false, out)) << row.name;
        EXPECT_EQ(row.result == 0 ? 7u : 0u, in.GetFrameSize()) << row.name;  // a failure drops the frame
        EXPECT_EQ(*row.log != 0 ? 1 : 0, log.Count(row.log)) << row.name;
        EXPECT_EQ(1, put(in, ts_packet(0x111, false, FromHex("bb")), true, out)) << row.name;
        EXPECT_EQ(row.result == 0 ? "0000000161e0aabb" : "bb", ToHex(out.frames.back())) << row.name;
    }
    Support::CAssertCapture asserts;
    Ts2Frame in;
    EXPECT_EQ(-1, in.PutPacket(PAT.data(), 187, false));
    EXPECT_EQ(std::vector<std::string>{"len == TS_PACK_LEN"}, asserts.Texts());
}

// PES headers of every length, cut by the packet's end at every place behind the length byte; access unit delimiters in
// front of the first slice are dropped with them.
TEST(Ts2Frame, PesHeadersMayGoOnInTheNextPacket) {
    const Bytes delimiter = FromHex("0000000109f0"), frame = FromHex("000000016742 0000000161e0aabb");
    for (size_t header = 0; header < 256; ++header) {
        for (const long room : {9, 20, 100, 183}) {
            const Bytes pes = FromHex("000001e0 0000 8000") + Bytes{static_cast<uint8_t>(header)} +
                              Bytes(header, 0xFF) + delimiter + frame;
            Ts2Frame in;
            Demuxed out;
            put(in, PAT, false, out);
            put(in, PMT, false, out);
            for (auto at = pes.begin(); at != pes.end();) {
                const auto end = at + std::min(room, static_cast<long>(pes.end() - at));
                put(in, ts_packet(0x111, at == pes.begin(), Bytes(at, end)), end == pes.end(), out);
                at = end;
            }
            ASSERT_EQ(1u, out.frames.size());
            // Whole if the first start code stood in the packet that ends the header; otherwise with what was before.
            ASSERT_EQ(0u, ToHex(delimiter + frame).find(ToHex(out.frames[0])) % 12) << header << " " << room;
            ASSERT_GE(out.frames[0].size(), frame.size());
        }
    }
}

TEST(Ts2Frame, AFrameBeyondTheBufferFails) {
    Ts2Frame in;
    Demuxed out;
    put(in, PAT, false, out);
    put(in, PMT, false, out);
    Support::CLogCapture log;
    const Bytes packet = ts_packet(0x111, false, Bytes(183, 0x55));
    int ret = 0;
    uint32_t size = 0;
    for (int i = 0; i < 4000 && ret == 0; ++i) {
        size = in.GetFrameSize();
        ret = put(in, packet, false, out);
    }
    EXPECT_EQ(-1, ret);
    EXPECT_GT(size + 183, STREAM_BUFFER_LEN);
    EXPECT_EQ(1, log.Count(" _ts_stream.dec ret:-2 \n"));
    EXPECT_EQ(1, put(in, ts_packet(0x111, true, SLICE), true, out));
}

TEST(Ts2Frame, Mpeg2PicturesTellTypeAndSize) {
    const Bytes pmt = ts_packet(0x20, true, FromHex("00 02b012 0001 c1 0000 e111 f000 02 e111 f000 00000000"));
    const std::string sequence = "000001b3 2d0240 33 ffffe018";
    struct Row {
        std::string frame;
        char letter;
        int width;
    };
    const Row rows[] = {{sequence + "00000100 000fffff", 'I', 720},
                        {"00000100 0017ffff", 'P', 720},
                        {"00000100 001fffff", 'B', 720},
                        {"00000100 0027ffff", 'P', 720},
                        {"000001b2 00", 'P', 720}};
    Ts2Frame in;
    Demuxed out;
    put(in, PAT, false, out);
    put(in, pmt, false, out);
    for (const Row& row : rows) {
        const Bytes frame = FromHex(row.frame);
        EXPECT_EQ(1, put(in, ts_packet(0x111, true, FromHex("000001e0 0000 800000") + frame), true, out));
        EXPECT_EQ(ToHex(frame), ToHex(out.frames.back()));
        EXPECT_EQ(row.letter, out.letters.back()) << row.frame;
        EXPECT_EQ(row.width, in.GetWidth());
        EXPECT_EQ(576, in.GetHeight());
    }
}

}  // namespace
}  // namespace Support
}  // namespace Kavio
