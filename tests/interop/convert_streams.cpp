// Runs one of the converters from standard input to standard output, for the scripts beside it.
//
//     convert_streams rtp ENC_TYPE PAYLOAD_TYPE [CONFIG]
//                                                    RTP packets, each behind a 16-bit length (RFC 4571), to frames;
//                                                    CONFIG is an MPEG-4 configuration in hexadecimal digits
//     convert_streams ts                             a transport stream to frames
//     convert_streams to_rtp ENC_TYPE PAYLOAD_TYPE CLOCK_RATE
//                                                    frames to RTP packets, each behind its interleave header, as a
//                                                    server has them in its buffers
//     convert_streams to_ts VIDEO_TYPE AUDIO_TYPE    frames to a transport stream
//     convert_streams to_ps VIDEO_TYPE AUDIO_TYPE    frames to a program stream
//
// A frame is its type letter (1), time stamp in milliseconds (8, little-endian), size (4, little-endian) and bytes.
#include <cstdio>
#include <iostream>
#include <iterator>
#include <map>

#include "StreamParser/StreamParser.h"
#include "StreamParser/TsTable.h"
#include "Vidora/Ostra/ByteReader.h"
#include "Vidora/Ostra/ByteWriter.h"

#include "../support/StreamBytes.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using Support::Bytes;

namespace {

Bytes read_input() {
    const std::string all((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
    return Bytes(all.begin(), all.end());
}

Flumen::CMediaFrame make_frame(const unsigned char* data, size_t len) {
    Flumen::CMediaFrame frame(static_cast<unsigned int>(len));
    std::copy(data, data + len, frame.getBuffer());
    return frame;
}

void write_frame(const Flumen::CMediaFrame& frame) {
    unsigned char head[13];
    Ostra::CByteWriter writer(head, sizeof(head));
    writer.WriteU8(static_cast<uint8_t>(frame.getType()));
    writer.WriteU64Le(frame.getPts(Flumen::PTS_TYPE_MS));
    writer.WriteU32Le(frame.size());
    std::fwrite(head, 1, sizeof(head), stdout);
    std::fwrite(frame.getBuffer(), 1, frame.size(), stdout);
}

// Feeds one input and writes all that comes out.
bool feed(CStreamParser& parser, const Flumen::CMediaFrame& input, bool as_frames) {
    const int ret = parser.InputFrame(input);
    if (ret != PARSER_OK && ret != PARSER_FRAME_READY) {
        std::fprintf(stderr, "InputFrame gave %d\n", ret);
        return false;
    }
    for (Flumen::CMediaFrame output = parser.OutputFrame(); output.valid(); output = parser.OutputFrame()) {
        if (as_frames) {
            write_frame(output);
        } else {
            std::fwrite(output.getBuffer(), 1, output.size(), stdout);
        }
    }
    return true;
}

int decode(bool rtp, int enc_type, int payload_type, const std::string& config_hex) {
    const CStreamParserPtr parser =
        CStreamParser::Create(rtp ? STREAM_TYPE_RTP : STREAM_TYPE_TS, STREAM_TYPE_RAW_FRAME);
    if (rtp) {
        RtpDecParam param;
        param.enc_type = enc_type;
        param.payload_type = static_cast<uint8_t>(payload_type);
        param.drop_damaged = 1;
        const Bytes config = Support::FromHex(config_hex);
        param.config1 = config.data();
        param.config1_len = static_cast<int>(config.size());
        parser->SetParam(param);
    }
    const Bytes input = read_input();
    Ostra::CByteReader reader(input.data(), input.size());
    while (reader.Remaining() > 0) {
        const size_t len = rtp ? reader.ReadU16() : size_t{TS_PACK_LEN};
        const unsigned char* packet = reader.ReadBytes(len);
        if (packet == nullptr || !feed(*parser, make_frame(packet, len), true)) {
            return 1;
        }
    }
    return 0;
}

CStreamParserPtr make_encoder(int dst_type, int first, int second, int clock_rate) {
    const CStreamParserPtr parser = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, dst_type);
    TsEncParam ts;
    PsEncParam ps;
    ts.video_enc_type = ps.video_enc_type = first;
    ts.audio_enc_type = ps.audio_enc_type = second;
    ps.bit_rate = 4000000;
    parser->SetParam(ts);
    parser->SetParam(ps);
    if (dst_type == STREAM_TYPE_RTP) {
        RtpEncParam param;
        parser->GetParam(param);  // the random beginnings
        param.enc_type = first;
        param.payload_type = static_cast<uint8_t>(second);
        param.clock_rate = static_cast<uint32_t>(clock_rate);
        parser->SetParam(param);
        RtpOverTcpParam over_tcp;
        over_tcp.use_header = 1;
        over_tcp.merge_frame = 1;
        parser->SetParam(over_tcp);
    }
    return parser;
}

int encode(const CStreamParserPtr& parser) {
    const Bytes input = read_input();
    Ostra::CByteReader reader(input.data(), input.size());
    while (reader.Remaining() > 0) {
        const uint8_t type = reader.ReadU8();
        const uint64_t pts = reader.ReadU64Le();
        const uint32_t len = reader.ReadU32Le();
        const unsigned char* bytes = reader.ReadBytes(len);
        if (bytes == nullptr) {
            return 1;
        }
        Flumen::CMediaFrame frame = make_frame(bytes, len);
        frame.setType(type);
        frame.setPts(pts, Flumen::PTS_TYPE_MS);
        if (!feed(*parser, frame, false)) {
            return 1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    const int first = argc > 2 ? std::atoi(argv[2]) : 0;
    const int second = argc > 3 ? std::atoi(argv[3]) : 0;
    if (mode == "rtp" || mode == "ts") {
        return decode(mode == "rtp", first, second, argc > 4 ? argv[4] : "");
    }
    const std::map<std::string, int> destinations = {
        {"to_rtp", STREAM_TYPE_RTP}, {"to_ts", STREAM_TYPE_TS}, {"to_ps", STREAM_TYPE_PS}};
    if (destinations.count(mode) != 0) {
        return encode(make_encoder(destinations.at(mode), first, second, argc > 4 ? std::atoi(argv[4]) : 0));
    }
    std::fprintf(stderr, "unknown mode\n");
    return 2;
}
