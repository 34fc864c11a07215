#ifndef VIDORA_BENCH_SUPPORT_H264RUNS_H
#define VIDORA_BENCH_SUPPORT_H264RUNS_H

#include <cstddef>
#include <vector>

#include "Vidora/Flumen/MediaFrame.h"

namespace Bench {

// The payload type of the runs.
constexpr int H264_PAYLOAD_TYPE = 96;

// `count` H.264 frames of `size` bytes, 40 ms apart, each as the run of its RTP packets behind their interleave headers
// (channel 0). Ends the program on failure.
std::vector<Kavio::Flumen::CMediaFrame> MakeH264Runs(size_t count, size_t size);

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_H264RUNS_H
