#ifndef VIDORA_STREAMPARSER_PRINTLEVEL_H
#define VIDORA_STREAMPARSER_PRINTLEVEL_H

#include <atomic>
#include <cstdint>

namespace Kavio {
namespace Vidora {

// What the converters print to the console for each frame and packet, set by the command "spprt".
enum print_level_t { PRINT_OFF = 0, PRINT_INPUT = 1, PRINT_OUTPUT = 2 };

// Read without a lock on the hot paths; use IsPrinted.
extern std::atomic<int> g_print_level;

inline bool IsPrinted(print_level_t level) {
    return g_print_level.load(std::memory_order_relaxed) == level;
}

// The line about a frame that a packer takes, at level 1: its enc_type_t, its time stamp in milliseconds, its bytes.
void print_input_frame(int enc_type, uint64_t pts, unsigned int len);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_PRINTLEVEL_H
