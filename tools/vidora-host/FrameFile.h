#ifndef VIDORA_HOST_FRAMEFILE_H
#define VIDORA_HOST_FRAMEFILE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Reads a whole file. False, with `error` saying why, if it can't be read or is empty.
bool ReadFile(const std::string& path, std::vector<unsigned char>& bytes, std::string& error);
// Does `path` end in `ending`, in any case?
bool HasEnding(const std::string& path, const char* ending);

// One private frame of a recording, as its header and blocks tell.
struct FrameEntry {
    size_t offset = 0;  // of the whole frame
    size_t size = 0;
    size_t body_offset = 0;  // of the payload, absolute
    size_t body_size = 0;
    int letter = 0;        // frame type letter: I (JPEG pictures too), P, B, A, W
    uint64_t utc_sec = 0;  // wall time
    uint64_t time_ms = 0;  // from the first frame, by the frames' 16-bit time stamps
    int encode_code = 0;   // of the frame's own block, 0 without one
    int width = 0;         // of key frames
    int height = 0;
    int frame_rate = 0;
    int sample_rate = 0;  // of audio frames
};

// Walks the frames of a recording, and goes on at the next magic behind damage.
void ScanFrames(const unsigned char* data, size_t size, std::vector<FrameEntry>& entries);

#endif  // VIDORA_HOST_FRAMEFILE_H
