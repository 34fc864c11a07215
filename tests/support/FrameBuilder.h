#ifndef VIDORA_TESTS_SUPPORT_FRAMEBUILDER_H
#define VIDORA_TESTS_SUPPORT_FRAMEBUILDER_H

#include <cstdint>
#include <string>

#include "Vidora/Flumen/MediaFrame.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {

// What a private frame is made of.
struct FrameSpec {
    int type = 'P';         // frame type letter: I, P, A or W
    uint32_t sequence = 0;  // frame number in the header
    uint64_t pts_ms = 0;
    std::string payload;        // elementary stream
    int encode_code = 2;        // 2 H.264, 14 PCMA
    double utc = 1600000000.0;  // seconds
    int width = 64;             // pixels
    int new_format = 0;
};

// A private frame in a media frame whose facts are set.
Flumen::CMediaFrame BuildFrame(const FrameSpec& fields);

// A private frame of H264Picture with that number, 40 ms behind the one before it.
Flumen::CMediaFrame BuildPicture(bool key, unsigned int size, uint32_t sequence);

// Elementary stream of one H.264 picture with `size` bytes in its slice; a key picture has its parameter sets first.
std::string H264Picture(bool key, unsigned int size, uint8_t fill);
// The bytes of a frame; what a private one holds between its headers and its trailer; and a frame of such bytes.
Bytes BytesOf(const Flumen::CMediaFrame& frame);
std::string BodyOf(const Flumen::CMediaFrame& frame);
Flumen::CMediaFrame FrameOf(const Bytes& bytes);
// The parameter sets of H264Picture, each behind a start code.
std::string H264ParameterSets();

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_FRAMEBUILDER_H
