#ifndef VIDORA_HOST_FRAMEMAKER_H
#define VIDORA_HOST_FRAMEMAKER_H

#include <cstdint>

#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/StreamSource.h"

// The facts of one frame to make.
struct FrameFacts {
    int letter = 'P';  // I, P, B, A
    uint32_t sequence = 0;
    uint64_t pts_ms = 0;
    double utc = 0.0;  // seconds since the epoch
};

// Wraps a picture into a private frame of `video`'s size and codec, or a block of sound into one of `audio`'s. Invalid
// if memory is short.
Kavio::Flumen::CMediaFrame MakeVideoFrame(const FrameFacts& facts, const Kavio::Vidora::StreamVideoFormat& video,
                                          const unsigned char* body, size_t size);
Kavio::Flumen::CMediaFrame MakeAudioFrame(const FrameFacts& facts, const Kavio::Vidora::StreamAudioFormat& audio,
                                          const unsigned char* body, size_t size);

#endif  // VIDORA_HOST_FRAMEMAKER_H
