// The converter framework: factory, parameters, results, output modes, statistics, console.
#include <gtest/gtest.h>

#include <cmath>

#include "StreamParser/RtpHeader.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Names.h"
#include "support/Capture.h"
#include "support/FrameBuilder.h"
#include "support/SampleTable.h"
#include "support/TestHandler.h"

namespace Kavio::Support {
namespace {

Flumen::CMediaFrame make_frame(const Bytes& bytes, int type = 'I', uint64_t pts = 1000, int sequence = 1) {
    Flumen::CMediaFrame frame = FrameOf(bytes);
    frame.setType(type);
    frame.setPts(pts, Flumen::PTS_TYPE_MS);
    frame.setSequence(sequence);
    return frame;
}

// Parameter sets of a 64x48 picture and a slice of `size` bytes.
Bytes h264_frame(bool key, size_t size) {
    const Bytes sets = FromHex("00000001 6742c00ad9047b0110000003001000000303 20f1226480 00000001 68cb83cb20");
    return (key ? sets : Bytes()) + FromHex(key ? "00000001 6588" : "00000001 419a") + Ramp(size - 2);
}

CStreamParserPtr make_encoder(int enc_type, bool header, bool merge, int dst_type = STREAM_TYPE_RTP) {
    const CStreamParserPtr encoder = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, dst_type);
    RtpEncParam param;
    param.enc_type = enc_type;
    param.payload_type = 96;
    param.sequence = 10;
    param.timestamp = 3000;
    param.ssrc = 0x11223344;
    encoder->SetParam(param);
    TsEncParam ts;
    ts.video_enc_type = enc_type;
    encoder->SetParam(ts);
    PsEncParam ps;
    ps.video_enc_type = enc_type;
    encoder->SetParam(ps);
    RtpOverTcpParam over_tcp;
    over_tcp.use_header = header ? 1 : 0;
    over_tcp.channel = 2;
    over_tcp.merge_frame = merge ? 1 : 0;
    encoder->SetParam(over_tcp);
    return encoder;
}

CStreamParserPtr make_decoder(int dst_type, int src_type = STREAM_TYPE_RTP, int enc_type = ENC_TYPE_H264,
                              bool drop_damaged = false) {
    const CStreamParserPtr decoder = CStreamParser::Create(src_type, dst_type);
    RtpDecParam param;
    param.enc_type = enc_type;
    param.payload_type = 96;
    param.kx_encode_type = KX_VIDEO_H264;
    param.rate_or_channels = 12;
    param.drop_damaged = drop_damaged ? 1 : 0;
    decoder->SetParam(param);
    return decoder;
}

typedef std::vector<Flumen::CMediaFrame> Frames;

// Puts everything that comes out for one input behind `out`.
void convert(CStreamParser& parser, const Flumen::CMediaFrame& input, Frames& out) {
    if (parser.InputFrame(input) == PARSER_FRAME_READY) {
        for (Flumen::CMediaFrame frame = parser.OutputFrame(); frame.valid(); frame = parser.OutputFrame()) {
            out.push_back(frame);
        }
    }
}

Bytes join(const Frames& frames) {
    Bytes all;
    for (const Flumen::CMediaFrame& frame : frames) {
        all = all + BytesOf(frame);
    }
    return all;
}

Frames convert(CStreamParser& parser, const Flumen::CMediaFrame& input) {
    Frames out;
    convert(parser, input, out);
    return out;
}

TEST(StreamParser, FactoryMakesItsPairsAndRefusesTheRest) {
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/frames.txt", "converters", 3)) {
        CLogCapture log;
        const std::vector<int> types = Numbers(row[0]);
        EXPECT_EQ(CStreamParser::Create(types[0], types[1]) != nullptr, row[1] == "made") << row[0];
        EXPECT_EQ(log.Lines(), std::vector<std::string>{row[2]});
    }
    EXPECT_STREQ(enc_type_name(9), "Mp3");
    EXPECT_STREQ(enc_type_name(10), "Unknown");
}

TEST(StreamParser, EncoderTellsItsResultsApartAndGoesOn) {
    const CStreamParserPtr encoder = make_encoder(ENC_TYPE_JPEG, true, true);
    EXPECT_EQ(encoder->InputFrame(Flumen::CMediaFrame()), PARSER_NO_DATA);
    EXPECT_EQ(encoder->InputFrame(make_frame(h264_frame(true, 100))), PARSER_FAILED);  // another codec than said
    EXPECT_FALSE(encoder->OutputFrame().valid());
    RtpEncParam param;
    param.enc_type = ENC_TYPE_AUDIO;
    encoder->SetParam(param);
    // Only a header and no payload, or a header that claims more than there is.
    for (const uint8_t ext_length : {0, 255}) {
        EXPECT_EQ(encoder->InputFrame(make_frame(FromHex("4b584156") + Bytes(18, 0) + Bytes{ext_length, 0})),
                  PARSER_FAILED);
    }
    EXPECT_EQ(convert(*encoder, make_frame({1, 2, 3}, 'A')).size(), 1u);
}

TEST(StreamParser, AssistFrameTakesItsTypeFromTheHeader) {
    // A private frame of sub-type 9 with five bytes.
    const Bytes wrapped =
        FromHex("4b584156 f1090000 00*4 2d000000 00*4 00000869 88ee7777 77000000 77*5 6b786176 2d000000");
    const CStreamParserPtr encoder = make_encoder(ENC_TYPE_ASSIST, false, true);
    const auto packets = convert(*encoder, make_frame(wrapped, 'W'));
    ASSERT_EQ(packets.size(), 1u);
    EXPECT_EQ(packets[0].size(), 12u + 8 + 5);
    EXPECT_EQ(packets[0].getBuffer()[12], 9);
    const auto frames = convert(*make_decoder(STREAM_TYPE_PRIVATE_FRAME, STREAM_TYPE_RTP, ENC_TYPE_ASSIST), packets[0]);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(get_assist_type(frames[0].getBuffer(), static_cast<int>(frames[0].size())), 9);
}

// Every destination of both decoders, from single packets and from runs: the packets again, and raw and private frames
// that hold the bodies. The end of a transport stream's last frame isn't known.
TEST(StreamParser, DecodersGiveFramesAndPacketsBack) {
    const struct {
        int src_type;
        bool merge;
        unsigned first_pts;
        int rate;
    } rows[] = {{STREAM_TYPE_RTP, false, 0, 12}, {STREAM_TYPE_RTP, true, 0, 12}, {STREAM_TYPE_TS, false, 5000, 25}};
    for (const auto& row : rows) {
        const CStreamParserPtr encoder = make_encoder(ENC_TYPE_H264, row.merge, row.merge, row.src_type);
        const CStreamParserPtr decoders[] = {make_decoder(1, row.src_type), make_decoder(5, row.src_type),
                                             make_decoder(6, row.src_type)};
        std::vector<Bytes> bodies;
        Frames outs[3], packets;
        for (size_t i = 0; i < 4; ++i) {
            bodies.push_back(h264_frame(i == 0, 3000 - 400 * i));
            const size_t before = packets.size();
            convert(*encoder, make_frame(bodies.back(), 'P', 5000 + 40 * i), packets);
            for (size_t k = before; k < packets.size(); ++k) {
                for (size_t at = 0; at < packets[k].size(); at += row.src_type == STREAM_TYPE_TS ? 188 : 65536) {
                    const Bytes piece = Part(BytesOf(packets[k]), at, row.src_type == STREAM_TYPE_TS ? 188 : 65536);
                    for (int j = 0; j < 3; ++j) {
                        convert(*decoders[j], make_frame(piece), outs[j]);
                    }
                }
            }
        }
        bodies.resize(row.src_type == STREAM_TYPE_TS ? 3 : 4);
        EXPECT_EQ(Part(join(packets), 0, join(outs[0]).size()), join(outs[0]));
        EXPECT_TRUE(row.src_type == STREAM_TYPE_TS || outs[0].size() == packets.size());
        ASSERT_EQ(outs[1].size(), bodies.size());
        ASSERT_EQ(outs[2].size(), bodies.size());
        for (unsigned i = 0; i < bodies.size(); ++i) {
            SCOPED_TRACE(i);
            EXPECT_EQ(BytesOf(outs[1][i]), bodies[i]);
            EXPECT_EQ(outs[1][i].getType(), i == 0 ? 'I' : 'P');
            EXPECT_EQ(outs[1][i].getPts(Flumen::PTS_TYPE_MS), row.first_pts + 40 * i);
            EXPECT_EQ(outs[1][i].getSequence(), outs[1][0].getSequence() + static_cast<int>(i));
            const Bytes bytes = BytesOf(outs[2][i]);
            KXHeader header;
            ASSERT_TRUE(kx_read_header(bytes.data(), bytes.size(), header));
            EXPECT_EQ(header.frame_type, i == 0 ? KX_TYPE_I : KX_TYPE_P);
            EXPECT_EQ(header.time_stamp, row.first_pts + 40 * i);
            EXPECT_EQ(header.sequence, static_cast<uint32_t>(outs[2][i].getSequence()));
            EXPECT_EQ(Part(bytes, 24u + header.ext_length), bodies[i] + Part(bytes, bytes.size() - 8));
        }
        EXPECT_EQ(outs[2][0].getBuffer()[26], KX_VIDEO_H264);
        EXPECT_EQ(outs[2][0].getBuffer()[27], row.rate);  // none is measured yet
    }
}

Flumen::CMediaFrame rtp_packet(uint16_t sequence, uint32_t timestamp, bool marker, const Bytes& payload) {
    return make_frame(MakeRtp({sequence, timestamp, marker}, payload), 0, 0, 0);
}

TEST(StreamParser, RtpDecoderCleansUpAfterBadCallersAndBadBytes) {
    const Bytes slice = {0x41, 0x9A, 7, 7};
    const CStreamParserPtr decoder = make_decoder(STREAM_TYPE_RAW_FRAME);
    CLogCapture log;
    EXPECT_EQ(decoder->InputFrame(rtp_packet(1, 90, true, slice)), PARSER_FRAME_READY);
    // Not taken: it is lost, and the next one goes in.
    EXPECT_EQ(decoder->InputFrame(rtp_packet(2, 3690, true, slice)), PARSER_FRAME_READY);
    EXPECT_EQ(log.Count("frame not taken yet, take it first.  StreamParser/StreamDecRtp.cpp:"), 1);
    EXPECT_EQ(decoder->OutputFrame().size(), 4u + slice.size());
    EXPECT_EQ(decoder->InputFrame(Flumen::CMediaFrame()), PARSER_FAILED);
    EXPECT_EQ(decoder->InputFrame(make_frame({0x80, 0x60, 0, 1})), PARSER_FAILED);
    // A run with a packet longer than the rest.
    const Bytes packet = BytesOf(rtp_packet(3000, 7290, true, slice));
    const Bytes run = Bytes{'$', 0, 0, static_cast<uint8_t>(packet.size())} + packet;
    EXPECT_EQ(decoder->InputFrame(make_frame(Part(run, 0, run.size() - 1))), PARSER_FAILED);
    EXPECT_EQ(convert(*decoder, make_frame(run)).size(), 1u);
}

Bytes framed(const Flumen::CMediaFrame& packet) {
    return Bytes{'$', 0, static_cast<uint8_t>(packet.size() >> 8), static_cast<uint8_t>(packet.size())} +
           BytesOf(packet);
}

// Packets of frames with and without marker, in runs cut at every place between packets: all frames come out, and each
// run is handed back once.
TEST(StreamParser, FramesMayEndAnywhereInARun) {
    std::vector<Bytes> packets, want;
    uint16_t sequence = 1;
    for (uint32_t frame = 0; frame < 6; ++frame) {
        want.emplace_back();
        for (uint32_t i = 0; i < 1 + frame % 3; ++i) {
            const Bytes slice = {0x41, static_cast<uint8_t>(i == 0 ? 0x9A : 0x1A), static_cast<uint8_t>(frame)};
            want.back() = want.back() + Bytes{0, 0, 0, 1} + slice;
            packets.push_back(framed(rtp_packet(sequence++, frame * 3600, frame % 2 == 0 && i == frame % 3, slice)));
        }
    }
    want.pop_back();  // without a marker it isn't known to be over
    for (size_t first = 0; first <= packets.size(); ++first) {
        for (size_t second = first; second <= packets.size(); ++second) {
            Bytes runs[3];
            for (size_t i = 0; i < packets.size(); ++i) {
                Bytes& run = runs[i < first ? 0 : i < second ? 1 : 2];
                run = run + packets[i];
            }
            const CStreamParserPtr decoders[] = {make_decoder(STREAM_TYPE_RAW_FRAME), make_decoder(STREAM_TYPE_RTP)};
            Frames outs[2];
            for (const Bytes& run : runs) {
                for (int k = 0; k < 2 && !run.empty(); ++k) {
                    convert(*decoders[k], make_frame(run), outs[k]);
                }
            }
            ASSERT_EQ(want.size(), outs[0].size()) << first << " " << second;
            for (size_t i = 0; i < want.size(); ++i) {
                EXPECT_EQ(want[i], BytesOf(outs[0][i])) << first << " " << second;
            }
            const Bytes all = join(outs[1]);
            EXPECT_TRUE(all == Part(runs[0] + runs[1] + runs[2], 0, all.size())) << first << " " << second;
        }
    }
}

// A frame of two megabytes in many small packets comes out whole; one with more packets than are kept doesn't come out
// at all, and costs no other frame.
TEST(StreamParser, LongFramesComeOutWholeOrNotAtAll) {
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/frames.txt", "long frames", 2)) {
        SCOPED_TRACE(row[0]);
        const std::vector<size_t> numbers = Numbers<size_t>(row[0]);
        const size_t count = numbers[0], size = numbers[1];
        const bool whole = row[1] == "whole";
        const CStreamParserPtr decoder = make_decoder(STREAM_TYPE_RAW_FRAME, STREAM_TYPE_RTP, ENC_TYPE_H264, true);
        CLogCapture log;
        Frames out;
        uint16_t sequence = 1;
        convert(*decoder, rtp_packet(sequence++, 0, true, {0x65, 0xB8}), out);
        for (size_t i = 0; i < count; ++i) {
            const uint8_t header = i == 0 ? 0x85 : i + 1 == count ? 0x45 : 0x05;
            convert(*decoder, rtp_packet(sequence++, 3600, i + 1 == count, Bytes{0x7C, header} + Bytes(size - 2, 0xB8)),
                    out);
        }
        convert(*decoder, rtp_packet(sequence++, 7200, true, {0x41, 0x9A}), out);
        ASSERT_EQ(whole ? 3u : 2u, out.size());
        EXPECT_EQ(log.Count("frame packet count exceed 8192! clean to go ahead.\n") > 0, count > 8192);
        EXPECT_TRUE(!whole || out[1].size() == 5 + count * (size - 2));
        EXPECT_EQ(BytesOf(out.back()), (Bytes{0, 0, 0, 1, 0x41, 0x9A}));
    }
}

TEST(StreamParser, LostPacketsShowInTheFrameCount) {
    const CStreamParserPtr decoder = make_decoder(STREAM_TYPE_RAW_FRAME);
    const Bytes slice = {0x41, 0x9A, 7, 7};
    const int first = convert(*decoder, rtp_packet(10, 90, true, slice))[0].getSequence();
    EXPECT_EQ(convert(*decoder, rtp_packet(11, 3690, true, slice))[0].getSequence(), first + 1);
    const int behind = convert(*decoder, rtp_packet(14, 7290, true, {0x45, 0x9A, 7, 7}))[0].getSequence();
    EXPECT_GE(behind, first + 2);
}

TEST(ParserStatis, CarriesTheFractionOfTheRate) {
    ParserStatis statis;
    statis.Count(0, 1000, 0);  // a time stamp of 0 doesn't count as the start
    const double rates[] = {30000.0 / 1010, 29.703 + 29.703 * 0.703 / 29, 29.703 + 29.703 * 0.4230 / 30};
    for (int i = 0; i <= 90; ++i) {  // 30 frames in 1010 ms: 29.70 a second
        statis.Count(1000 + static_cast<uint64_t>(i) * 1010 / 30, 1000, i + 1);
        EXPECT_TRUE(i == 0 || i % 30 != 0 || std::abs(statis.fps - rates[i / 30 - 1]) < 0.01) << statis.fps;
    }
    EXPECT_NEAR(statis.bit_rate, 30 * 8000 * 1000.0 / 1010, 1);
    // A gap in the numbers starts anew: an interval that would be over isn't measured.
    const float before = statis.bit_rate;
    statis.Count(1000 + 3 * 1010 + 2000, 1, 100);
    EXPECT_EQ(statis.bit_rate, before);
    // Slower than one a second shows 1 more than it is, never 0.
    statis.Count(1000 + 3 * 1010 + 4000, 1000, 101);
    EXPECT_NEAR(statis.fps, 1.5, 0.01);
}

// In decoding order each P picture is followed by the B picture in front of it.
TEST(ParserStatis, PicturesThatStepBackDoNotSpoilTheRate) {
    ParserStatis statis;
    int sequence = 1;
    for (uint64_t pts = 1000; pts < 6000; pts += 80) {
        statis.Count(pts, 1000, sequence++);
        statis.Count(pts - 40, 1000, sequence++);
        EXPECT_TRUE(pts < 2080 || std::abs(statis.fps - 25) < 1.1) << pts << " " << statis.fps;
    }
    const float before = statis.fps;
    statis.Count(1000, 1000, sequence++);  // far back: anew
    statis.Count(1500, 1000, sequence++);
    EXPECT_EQ(statis.fps, before);
    statis.Count(2000, 1000, sequence++);
    EXPECT_EQ(statis.fps, 2);
}

void append_output(void* text, const char* piece, unsigned length) {
    static_cast<std::string*>(text)->append(piece, length);
}

TEST(StreamParser, ConsoleCommandsShowConvertersAndPackets) {
    std::string out;
    Ostra::R3SetOutput(&append_output, &out);
    const CStreamParserPtr encoder = make_encoder(ENC_TYPE_H264, true, true);
    const CStreamParserPtr ps = make_encoder(ENC_TYPE_H264, false, true, STREAM_TYPE_PS);
    const CStreamParserPtr decoder = make_decoder(STREAM_TYPE_PRIVATE_FRAME);
    convert(*decoder, convert(*encoder, make_frame(h264_frame(true, 50)))[0]);
    EXPECT_EQ(Ostra::R3Execute("spver"), 0);
    EXPECT_EQ(out.rfind("Kavio<StreamParser> 1.0.0 | ", 0), 0u);
    out.clear();
    EXPECT_EQ(Ostra::R3Execute("spshow"), 0);
    const std::string line = "\n>>> ==========================================================\n";
    EXPECT_EQ(out, line +
                       ">>> StreamParser [Frame Auto] -> [RTP]\n>>> EncodeType[H264] PT[96]\n"
                       ">>> SSRC[11223344] InitSeq[10]\n>>> Input FPS[0.00] BitRate: 0.00 kbps\n" +
                       line +
                       ">>> StreamParser [Frame Auto] -> [PS]\n>>> EncodeType Video[H264] Audio[Unknown]\n"
                       ">>> Max PES Length = 8000\n>>> Input FPS[0.00] BitRate: 0.00 kbps\n" +
                       line +
                       ">>> StreamParser [RTP] -> [Private Frame]\n>>> EncodeType[H264] PT[96]\n"
                       ">>> SSRC[11223344] LastSeq[12]\n>>> SIZE[64x48] FPS[0.00] BitRate: 0.00 kbps\n");
    out.clear();
    EXPECT_EQ(Ostra::R3Execute("spprt 1"), 0);
    convert(*encoder, make_frame(h264_frame(false, 50), 'P', 0x1234));
    EXPECT_EQ(out, "Input Frame[H264]: ts[00001234] len = 54\n");
    out.clear();
    EXPECT_EQ(Ostra::R3Execute("spprt 2"), 0);
    convert(*encoder, make_frame(h264_frame(false, 50), 'P', 1040));
    EXPECT_EQ(out, "Output RTP: ssrc[11223344] pt[96] m[1] seq[000e] ts[000019c8] len = 62\n");
    EXPECT_EQ(Ostra::R3Execute("spprt"), 0);
    Ostra::R3SetOutput(nullptr, nullptr);
}

// For ThreadSanitizer: the console shows converters of other threads while these come, work and go.
TEST(StreamParser, ConsoleShowsConvertersThatComeAndGo) {
    std::string out;
    Ostra::R3SetOutput(&append_output, &out);
    const size_t before = CStreamParser::GetObjectCount();
    {
        CLogCapture log(Ostra::LOG_LEVEL_NONE);
        std::atomic<bool> shows{false};
        RunTogether(3, [&shows] {
            const bool show = !shows.exchange(true);
            for (int round = 0; round < 50; ++round) {
                const CStreamParserPtr encoder = make_encoder(ENC_TYPE_H264, true, true);
                const CStreamParserPtr decoder = make_decoder(STREAM_TYPE_PRIVATE_FRAME);
                for (int i = 0; i < 10 && !show; ++i) {
                    convert(*decoder, convert(*encoder, make_frame(h264_frame(i == 0, 100)))[0]);
                }
                EXPECT_EQ(show ? Ostra::R3Execute("spshow") : 0, 0);
            }
        });
    }
    EXPECT_EQ(CStreamParser::GetObjectCount(), before);
    Ostra::R3SetOutput(nullptr, nullptr);
}

}  // namespace
}  // namespace Kavio::Support
