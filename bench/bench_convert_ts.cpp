// What it costs to rebuild frames from RTP and TS and to put frames into TS and PS: gigabytes of frame a second and
// allocations for each frame, beside a memcpy of the same bytes.
//
// The frames are synthetic, in packets that are made beforehand. support/CopyRow.h says how it is measured.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "StreamParser/Frame2Ps.h"
#include "StreamParser/Frame2Ts.h"
#include "StreamParser/StreamParser.h"
#include "support/CopyRow.h"

namespace {

using namespace Bench;
using namespace Kavio::Vidora;
namespace Flumen = Kavio::Flumen;

Flumen::CMediaFrame to_media(const unsigned char* data, size_t len) {
    Flumen::CMediaFrame frame(static_cast<unsigned>(len));
    std::memcpy(frame.getBuffer(), data, len);
    frame.setType(FRAME_TYPE_I);
    return frame;
}

// The packets of one frame, each in a media frame of its own; TS in packets of 188 bytes.
std::vector<Flumen::CMediaFrame> packets_of(CStreamParser& encoder, const Bytes& bytes, uint64_t pts) {
    Flumen::CMediaFrame input = to_media(bytes.data(), bytes.size());
    input.setPts(pts, Flumen::PTS_TYPE_MS);
    encoder.InputFrame(input);
    std::vector<Flumen::CMediaFrame> packets;
    for (Flumen::CMediaFrame out = encoder.OutputFrame(); out.valid(); out = encoder.OutputFrame()) {
        packets.push_back(out);
    }
    return packets;
}

void run_decoder(const char* name, int stream_type, const Bytes& bytes, size_t frames) {
    const CStreamParserPtr encoder = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, stream_type);
    const CStreamParserPtr decoder = CStreamParser::Create(stream_type, STREAM_TYPE_RAW_FRAME);
    RtpEncParam rtp;
    rtp.enc_type = ENC_TYPE_H264;
    rtp.payload_type = 96;
    rtp.ssrc = 0x11223344;
    encoder->SetParam(rtp);
    TsEncParam ts;
    ts.video_enc_type = ENC_TYPE_H264;
    ts.packets_per_output = 1;
    encoder->SetParam(ts);
    RtpDecParam param;
    param.enc_type = ENC_TYPE_H264;
    param.payload_type = 96;
    param.drop_damaged = 1;
    if (stream_type == STREAM_TYPE_RTP) {
        decoder->SetParam(param);
    }
    std::vector<std::vector<Flumen::CMediaFrame>> ring(frames);
    for (size_t i = 0; i < frames; ++i) {
        ring[i] = packets_of(*encoder, bytes, 1 + i * 40);
    }
    uint16_t sequence = 0;
    run_row({name, bytes.size(), frames, [&](size_t index) {
                 size_t out_bytes = 0;
                 for (Flumen::CMediaFrame& packet : ring[index]) {
                     if (stream_type == STREAM_TYPE_RTP) {  // the ring goes round, but the numbers go on
                         packet.getBuffer()[2] = static_cast<unsigned char>(sequence >> 8);
                         packet.getBuffer()[3] = static_cast<unsigned char>(sequence++);
                     }
                     if (decoder->InputFrame(packet) == PARSER_FRAME_READY) {
                         const Flumen::CMediaFrame out = decoder->OutputFrame();
                         out_bytes += out.size();
                     }
                 }
                 // A transport stream shows the end of a frame only with the next one.
                 if (stream_type == STREAM_TYPE_RTP && out_bytes != bytes.size()) {
                     std::abort();
                 }
             }});
}

void run_packer(const char* name, IFrame2Packet& packer, const Bytes& bytes, size_t frames) {
    Bytes from;
    for (size_t i = 0; i < frames; ++i) {
        from.insert(from.end(), bytes.begin(), bytes.end());
    }
    Bytes to(70000);
    uint64_t pts = 1;
    run_row({name, bytes.size(), frames, [&](size_t index) {
                 const unsigned char* frame = from.data() + index * bytes.size();
                 if (packer.PutFrame(frame, static_cast<unsigned>(bytes.size()), ENC_TYPE_H264, pts += 40, 0) != 0) {
                     std::abort();
                 }
                 do {
                     packer.GetPacket(to.data(), static_cast<unsigned>(to.size()));
                     asm volatile("" ::"r"(to.data()) : "memory");
                 } while (packer.NextPacket() == 0);
             }});
}

}  // namespace

int main() {
    print_build("synthetic");
    for (const size_t size : SIZES) {
        const Bytes frame = synthetic_frame(size);
        const size_t frames = RING_BYTES / size;
        run_decoder("RTP to frame", STREAM_TYPE_RTP, frame, frames);
        run_decoder("TS to frame", STREAM_TYPE_TS, frame, frames);
        CFrame2Ts ts;
        ts.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 7);
        run_packer("frame to TS", ts, frame, frames);
        CFrame2Ps ps;
        ps.SetPsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 8000, 4000000);
        run_packer("frame to PS", ps, frame, frames);
    }
    return 0;
}
