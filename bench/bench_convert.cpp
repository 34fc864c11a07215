// What the converters cost: gigabytes of frame a second and allocations for each frame, beside a memcpy of the same
// bytes.
//
//     bench_convert [--only TEXT] [CLIP.h264]
//
// CLIP is an H.264 byte stream (bench/make_clip.sh makes one); of it the key frames nearest to each size are taken.
// Without it the frames are synthetic. --only: the rows that hold TEXT, such as "merged hot 20000 bytes".
//
// Each row is measured twice. "stream": the frames come from a ring of RING_BYTES and what comes out is held in a ring
// as long, as a server does whose source fills its frames in turn and whose senders hold the packets for a while; the
// memcpy goes from such a ring to another. "hot": one frame again and again, its output let go at once, and a memcpy
// from one place to one place, all of it in the first caches: this shows what the code itself costs.
// support/PairedRow.h says how rows are measured.
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "StreamParser/StreamParser.h"
#include "Vidora/H264Parser.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/StartCode.h"
#include "support/PairedRow.h"

namespace {

using namespace Bench;
using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

typedef std::vector<unsigned char> Bytes;

constexpr size_t RING_BYTES = 64 << 20;
constexpr size_t SIZES[] = {2000, 20000, 200000};

void check(bool good) {
    if (!good) {
        std::fprintf(stderr, "a frame didn't come through\n");
        std::exit(1);
    }
}

// An H.264 frame of parameter sets and one slice of random bytes, `size` bytes in all.
Bytes synthetic_frame(size_t size) {
    Bytes frame = {0, 0, 0, 1,    0x67, 0x42, 0xC0, 0x0A, 0xD9, 0x04, 0x7B, 0x01, 0x10, 0,
                   0, 3, 0, 0x10, 0,    0,    3,    3,    0x20, 0xF1, 0x22, 0x64, 0x80, 0,
                   0, 0, 1, 0x68, 0xCB, 0x83, 0xCB, 0x20, 0,    0,    0,    1,    0x65, 0x88};
    std::mt19937 random(static_cast<unsigned>(size));
    while (frame.size() < size) {
        const auto byte = static_cast<unsigned char>(random());
        frame.push_back(byte < 2 ? 0x80 : byte);  // so that there is no start code inside
    }
    return frame;
}

// The clip with four-byte start codes throughout, as sources deliver frames; encoders write three-byte ones as well.
Bytes lengthen_start_codes(const Bytes& clip) {
    Bytes out;
    size_t done = 0;
    for (size_t at = find_start_code3(clip.data(), clip.size()); at != NO_START_CODE;
         at = find_start_code3(clip.data(), clip.size(), at + 3)) {
        out.insert(out.end(), clip.begin() + static_cast<long>(done), clip.begin() + static_cast<long>(at));
        if (out.empty() || out.back() != 0) {
            out.push_back(0);
        }
        done = at;
    }
    out.insert(out.end(), clip.begin() + static_cast<long>(done), clip.end());
    return out;
}

// The access units of a byte stream that open with a parameter set.
std::vector<Bytes> key_frames(const Bytes& file) {
    const Bytes clip = lengthen_start_codes(file);
    std::vector<Bytes> frames;
    size_t open = NO_START_CODE;  // where a frame with its parameter set begins
    bool slice = false;
    const size_t end = clip.size() > 4 ? clip.size() - 1 : 0;  // a byte stands behind each start code
    for (size_t at = find_start_code4(clip.data(), end); at != NO_START_CODE;
         at = find_start_code4(clip.data(), end, at + 4)) {
        const int type = h264_nal_type(clip[at + 4]);
        if (slice && open != NO_START_CODE) {
            frames.emplace_back(clip.begin() + static_cast<long>(open), clip.begin() + static_cast<long>(at));
            open = NO_START_CODE;
        }
        if (type == H264_NAL_SPS) {
            open = at;
        }
        slice = type == H264_NAL_IDR || type == H264_NAL_SLICE;
    }
    return frames;
}

Bytes pick_frame(const std::vector<Bytes>& frames, size_t size) {
    const auto distance = [size](const Bytes& frame) {
        return frame.size() > size ? frame.size() - size : size - frame.size();
    };
    const Bytes* best = nullptr;
    for (const Bytes& frame : frames) {
        best = best == nullptr || distance(frame) < distance(*best) ? &frame : best;
    }
    return best != nullptr ? *best : synthetic_frame(size);
}

Flumen::CMediaFrame make_input(const Bytes& bytes) {
    Flumen::CMediaFrame frame(static_cast<unsigned>(bytes.size()));
    std::memcpy(frame.getBuffer(), bytes.data(), bytes.size());
    frame.setType(FRAME_TYPE_I);
    return frame;
}

// An encoder with the parameters of a server's track. TS comes out in single packets unless it is merged.
CStreamParserPtr make_encoder(int dst_type, bool use_header, bool merge) {
    const CStreamParserPtr encoder = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, dst_type);
    RtpEncParam rtp;
    rtp.enc_type = ENC_TYPE_H264;
    rtp.payload_type = 96;
    rtp.ssrc = 0x11223344;
    encoder->SetParam(rtp);
    TsEncParam ts;
    ts.video_enc_type = ENC_TYPE_H264;
    ts.packets_per_output = merge ? 7 : 1;
    encoder->SetParam(ts);
    PsEncParam ps;
    ps.video_enc_type = ENC_TYPE_H264;
    encoder->SetParam(ps);
    RtpOverTcpParam over_tcp;
    over_tcp.use_header = use_header ? 1 : 0;
    over_tcp.merge_frame = merge ? 1 : 0;
    encoder->SetParam(over_tcp);
    return encoder;
}

// A frame through the encoder; what comes out, one piece after the other, goes to `take`.
template <typename Take>
void encode(CStreamParser& encoder, Flumen::CMediaFrame& frame, uint64_t pts, Take take) {
    frame.setPts(pts, Flumen::PTS_TYPE_MS);
    frame.setSequence(static_cast<int>(pts / 40));
    check(encoder.InputFrame(frame) == PARSER_FRAME_READY);
    for (Flumen::CMediaFrame out = encoder.OutputFrame(); out.valid(); out = encoder.OutputFrame()) {
        take(out);
    }
}

// Frame in, packets out: merged in one piece, or one by one, of which the last is held.
Row encoder_row(const std::string& name, int dst_type, bool merge, const Bytes& bytes, size_t frames) {
    struct Ring {
        CStreamParserPtr encoder;
        std::vector<Flumen::CMediaFrame> inputs, outputs;
        uint64_t pts = 1;
    };
    const auto ring = std::make_shared<Ring>();
    ring->encoder = make_encoder(dst_type, true, merge);
    ring->outputs.resize(frames > 1 ? frames : 0);
    while (ring->inputs.size() < frames) {
        ring->inputs.push_back(make_input(bytes));
    }
    return {name, bytes.size(), frames, [ring](size_t index) {
                encode(*ring->encoder, ring->inputs[index], ring->pts += 40, [&](Flumen::CMediaFrame& out) {
                    if (!ring->outputs.empty()) {
                        ring->outputs[index] = std::move(out);
                    }
                });
            }};
}

// Sequence number and time stamp of an RTP packet: a ring goes round, but these go on (RFC 3550 5.1).
void renumber(const Flumen::CMediaFrame& packet, uint16_t sequence, uint32_t timestamp) {
    CByteWriter writer(packet.getBuffer(), packet.size());
    writer.Reserve(2);
    writer.WriteU16(sequence);
    writer.WriteU32(timestamp);
}

// Packets in, each in a media frame of its own, and frame out. A transport stream shows the end of a frame only with
// the first packet of the next one.
Row decoder_row(const std::string& name, int src_type, const Bytes& bytes, size_t frames) {
    struct Ring {
        CStreamParserPtr decoder;
        std::vector<std::vector<Flumen::CMediaFrame>> inputs;
        std::vector<Flumen::CMediaFrame> outputs;
        uint16_t sequence = 0;
        uint32_t timestamp = 0;
        size_t puts = 0;
        size_t takes = 0;
    };
    const auto ring = std::make_shared<Ring>();
    ring->decoder = CStreamParser::Create(src_type, STREAM_TYPE_RAW_FRAME);
    RtpDecParam param;
    param.enc_type = ENC_TYPE_H264;
    param.payload_type = 96;
    param.drop_damaged = 1;
    if (src_type == STREAM_TYPE_RTP) {
        ring->decoder->SetParam(param);
    }
    ring->inputs.resize(frames);
    ring->outputs.resize(frames > 1 ? frames : 0);
    const CStreamParserPtr encoder = make_encoder(src_type, false, false);
    Flumen::CMediaFrame frame = make_input(bytes);
    for (size_t i = 0; i < frames; ++i) {
        encode(*encoder, frame, 1 + i * 40, [&](const Flumen::CMediaFrame& out) { ring->inputs[i].push_back(out); });
    }
    const size_t len = bytes.size();
    return {name, len, frames, [=](size_t index) {
                ring->timestamp += 3600;
                for (const Flumen::CMediaFrame& packet : ring->inputs[index]) {
                    if (src_type == STREAM_TYPE_RTP) {
                        renumber(packet, ring->sequence++, ring->timestamp);
                    }
                    if (ring->decoder->InputFrame(packet) != PARSER_FRAME_READY) {
                        continue;
                    }
                    Flumen::CMediaFrame out = ring->decoder->OutputFrame();
                    check(out.size() == len);
                    ++ring->takes;
                    if (!ring->outputs.empty()) {
                        ring->outputs[index] = std::move(out);
                    }
                }
                check(++ring->puts - ring->takes <= 1);
            }};
}

// The least that packets in one piece cost: memory for them, and a copy of each payload behind 18 bytes of headers. Its
// hot figure is a matter of luck: a processor takes a load for dependent on an earlier store whose address has the same
// lower twelve bits, so that a copy in pieces costs up to half as much again where the two places lie like that.
Row bare_row(const std::string& name, const Bytes& bytes, size_t frames) {
    constexpr size_t HEADERS = 18;
    constexpr size_t PAYLOAD = 1438;
    typedef std::vector<std::unique_ptr<unsigned char[]>> Ring;
    const auto from = std::make_shared<std::vector<Bytes>>(frames, bytes);
    const auto to = std::make_shared<Ring>(frames);
    const size_t len = bytes.size();
    return {name, len, frames, [=](size_t index) {
                const size_t packets = (len + PAYLOAD - 1) / PAYLOAD;
                std::unique_ptr<unsigned char[]> out(new unsigned char[len + packets * HEADERS]);
                unsigned char* place = out.get();
                for (size_t done = 0; done < len; done += PAYLOAD) {
                    const size_t piece = std::min(PAYLOAD, len - done);
                    std::memset(place, 0x24, HEADERS);
                    std::memcpy(place + HEADERS, (*from)[index].data() + done, piece);
                    place += HEADERS + piece;
                }
                asm volatile("" ::"r"(out.get()) : "memory");
                if (frames > 1) {
                    (*to)[index] = std::move(out);
                }
            }};
}

// The scan that looks for NAL units, over bytes without any start code, so that every byte is looked at.
Row scan_row(const std::string& name, const Bytes& bytes, size_t frames) {
    const auto ring = std::make_shared<std::vector<Bytes>>(frames, Bytes(bytes.size(), 0x55));
    return {name, bytes.size(), frames, [ring](size_t index) {
                const size_t found = find_start_code4((*ring)[index].data(), (*ring)[index].size());
                asm volatile("" ::"r"(found) : "memory");
            }};
}

Row copy_row(size_t bytes, size_t frames) {
    typedef std::vector<Bytes> Ring;
    const auto from = std::make_shared<Ring>(frames, Bytes(bytes, 0x5A));
    const auto to = std::make_shared<Ring>(frames, Bytes(bytes));
    return {"memcpy", bytes, frames, [=](size_t index) {
                std::memcpy((*to)[index].data(), (*from)[index].data(), (*from)[index].size());
                asm volatile("" ::"r"((*to)[index].data()) : "memory");  // the copy is wanted
            }};
}

void print_titles() {
    std::printf("%-28s %-6s %8s %8s %12s   %-21s %s\n", "", "", "bytes", "GB/s", "memcpy GB/s", "memcpys (quartiles)",
                "allocations a frame");
}

void run_row(const Row& row) {
    const Comparison cost = compare(row, copy_row(row.bytes, row.ring));
    const double gigabytes = static_cast<double>(row.bytes) / 1e9;
    std::printf("%-28s %-6s %8zu %8.2f %12.2f   %5.2f (%.2f to %.2f) %12.2f\n", row.name.c_str(),
                row.ring > 1 ? "stream" : "hot", row.bytes, gigabytes / cost.seconds, gigabytes / cost.floor_seconds,
                cost.ratio, cost.low_ratio, cost.high_ratio, cost.allocations);
    std::fflush(stdout);
}

struct Way {
    const char* name;
    std::function<Row(const std::string& name, const Bytes& bytes, size_t frames)> make;
};

Way encoder_way(const char* name, int dst_type, bool merge) {
    return {name, [=](const std::string& row, const Bytes& bytes, size_t frames) {
                return encoder_row(row, dst_type, merge, bytes, frames);
            }};
}

Way decoder_way(const char* name, int src_type) {
    return {name, [=](const std::string& row, const Bytes& bytes, size_t frames) {
                return decoder_row(row, src_type, bytes, frames);
            }};
}

struct Options {
    std::string only;
    std::string clip;
};

Options parse_options(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--only" && i + 1 < argc) {
            options.only = argv[++i];
        } else {
            options.clip = word;
        }
    }
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse_options(argc, argv);
    std::vector<Bytes> frames;
    if (!options.clip.empty()) {
        std::ifstream file(options.clip, std::ios::binary);
        frames = key_frames(Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()));
        if (frames.empty()) {
            std::fprintf(stderr, "no key frames in %s\n", options.clip.c_str());
            return 1;
        }
    }
    const Way ways[] = {encoder_way("frame to RTP, merged", STREAM_TYPE_RTP, true),
                        {"  bare headers and pieces", bare_row},
                        encoder_way("frame to RTP, single packets", STREAM_TYPE_RTP, false),
                        decoder_way("RTP to frame", STREAM_TYPE_RTP),
                        encoder_way("frame to TS, merged", STREAM_TYPE_TS, true),
                        decoder_way("TS to frame", STREAM_TYPE_TS),
                        encoder_way("frame to PS, merged", STREAM_TYPE_PS, true),
                        {"start code scan", scan_row}};
    PrintMachine();
    std::printf("%s frames\n", frames.empty() ? "synthetic" : "recorded");
    print_titles();
    for (const size_t size : SIZES) {
        const Bytes frame = pick_frame(frames, size);
        for (const Way& way : ways) {
            for (const size_t ring : {RING_BYTES / frame.size(), size_t{1}}) {
                const std::string label =
                    std::string(way.name) + (ring > 1 ? " stream " : " hot ") + std::to_string(size) + " bytes";
                if (label.find(options.only) != std::string::npos) {
                    run_row(way.make(way.name, frame, ring));
                }
            }
        }
    }
    return 0;
}
