#include "FrameMaker.h"

#include <cstring>

#include "Vidora/KXFrame.h"

using Kavio::Flumen::CMediaFrame;
using Kavio::Flumen::PTS_TYPE_MS;
using namespace Kavio::Vidora;

namespace {

CMediaFrame finish(CKXFrame& header, const FrameFacts& facts, const unsigned char* body, size_t size) {
    header.SetSequence(facts.sequence);
    header.SetTimeStamp(static_cast<uint16_t>(facts.pts_ms));
    header.SetDateTime(static_cast<uint64_t>(facts.utc));
    uint32_t body_offset = 0;
    const uint32_t frame_size = header.GetFrameSize(static_cast<uint32_t>(size), body_offset);
    CMediaFrame frame(frame_size);
    if (!frame.valid()) {
        return frame;
    }
    std::memcpy(frame.getBuffer() + body_offset, body, size);
    header.WriteFrame(frame.getBuffer(), frame_size);
    frame.setType(facts.letter);
    frame.setSequence(static_cast<int>(facts.sequence));
    frame.setPts(facts.pts_ms, PTS_TYPE_MS);
    frame.setUtc(facts.utc);
    return frame;
}

}  // namespace

CMediaFrame MakeVideoFrame(const FrameFacts& facts, const StreamVideoFormat& video, const unsigned char* body,
                           size_t size) {
    CKXFrame header;
    // The header tells JPEG pictures apart; to the server they are key frames.
    header.SetFrameType(video.encode_type == STREAM_VIDEO_JPEG ? FRAME_TYPE_JPEG : facts.letter);
    header.SetEncodeType(static_cast<uint8_t>(video.encode_type));
    header.SetImageSize(static_cast<uint16_t>(video.width), static_cast<uint16_t>(video.height));
    header.SetFrameRate(static_cast<uint8_t>(video.frame_rate));
    return finish(header, facts, body, size);
}

CMediaFrame MakeAudioFrame(const FrameFacts& facts, const StreamAudioFormat& audio, const unsigned char* body,
                           size_t size) {
    CKXFrame header;
    header.SetFrameType(FRAME_TYPE_AUDIO);
    header.SetEncodeType(static_cast<uint8_t>(audio.encode_type));
    header.SetAudioInfo(1, kx_sample_rate_code(audio.sample_rate));
    return finish(header, facts, body, size);
}
