// What the converters cost: gigabytes a second and allocations for each frame, beside a memcpy of the same bytes.
//
//     bench_convert [CLIP.h264]
//
// CLIP is an H.264 byte stream with four-byte start codes (bench/make_clip.sh makes one); of it the key frames nearest
// to each size are taken. Without it the frames are synthetic. support/CopyRow.h says how it is measured.
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "StreamParser/StreamParser.h"
#include "Vidora/H264Parser.h"
#include "Vidora/StartCode.h"
#include "support/CopyRow.h"

namespace {

using namespace Bench;
using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

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

// An encoder with the parameters of a server's track.
CStreamParserPtr make_encoder(int dst_type, bool merge) {
    const CStreamParserPtr encoder = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, dst_type);
    RtpEncParam rtp;
    rtp.enc_type = ENC_TYPE_H264;
    rtp.payload_type = 96;
    encoder->SetParam(rtp);
    TsEncParam ts;
    ts.video_enc_type = ENC_TYPE_H264;
    encoder->SetParam(ts);
    PsEncParam ps;
    ps.video_enc_type = ENC_TYPE_H264;
    encoder->SetParam(ps);
    RtpOverTcpParam over_tcp;
    over_tcp.use_header = 1;
    over_tcp.merge_frame = merge ? 1 : 0;
    encoder->SetParam(over_tcp);
    return encoder;
}

Flumen::CMediaFrame make_input(const Bytes& bytes) {
    Flumen::CMediaFrame frame(static_cast<unsigned>(bytes.size()));
    std::memcpy(frame.getBuffer(), bytes.data(), bytes.size());
    frame.setType(FRAME_TYPE_I);
    return frame;
}

void run_encoder(const std::string& name, int dst_type, bool merge, const Bytes& bytes, size_t frames) {
    const CStreamParserPtr encoder = make_encoder(dst_type, merge);
    std::vector<Flumen::CMediaFrame> inputs;
    std::vector<Flumen::CMediaFrame> outputs(frames > 1 ? frames : 0);
    while (inputs.size() < frames) {
        inputs.push_back(make_input(bytes));
    }
    uint64_t pts = 1;
    int sequence = 0;
    run_row({name, bytes.size(), frames, [&](size_t index) {
                 Flumen::CMediaFrame& frame = inputs[index];
                 frame.setPts(pts += 40, Flumen::PTS_TYPE_MS);
                 frame.setSequence(++sequence);
                 if (encoder->InputFrame(frame) != PARSER_FRAME_READY) {
                     std::abort();
                 }
                 for (Flumen::CMediaFrame out = encoder->OutputFrame(); out.valid(); out = encoder->OutputFrame()) {
                     if (!outputs.empty()) {
                         outputs[index] = std::move(out);  // of single packets the last one
                     }
                 }
             }});
}

void run_scan(const Bytes& bytes, size_t frames) {
    const std::vector<Bytes> inputs(frames, Bytes(bytes.size(), 0x55));  // no start code: every byte is looked at
    run_row({"start code scan", bytes.size(), frames, [&](size_t index) {
                 const size_t found = find_start_code4(inputs[index].data(), inputs[index].size());
                 asm volatile("" ::"r"(found) : "memory");
             }});
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<Bytes> frames;
    if (argc > 1) {
        std::ifstream file(argv[1], std::ios::binary);
        frames = key_frames(Bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()));
        if (frames.empty()) {
            std::fprintf(stderr, "no key frames in %s\n", argv[1]);
            return 1;
        }
    }
    print_build(frames.empty() ? "synthetic" : "recorded");
    for (const size_t size : SIZES) {
        const Bytes frame = pick_frame(frames, size);
        for (const size_t ring : {RING_BYTES / frame.size(), size_t{1}}) {
            run_encoder("H.264 to RTP, merged", STREAM_TYPE_RTP, true, frame, ring);
            run_encoder("H.264 to RTP, single packets", STREAM_TYPE_RTP, false, frame, ring);
            run_scan(frame, ring);
        }
    }
    return 0;
}
