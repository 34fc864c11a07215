#ifndef VIDORA_STREAMPARSER_MUXUNIT_H
#define VIDORA_STREAMPARSER_MUXUNIT_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// What the multiplexers of transport and program streams have in common.

// The track of an enc_type_t: 0 for video, 1 for audio. MPEG audio (5) goes on the video track: receivers in the field
// expect it there.
int mux_track_of_enc_type(int enc_type);

// Prints a line about a unit of `size` bytes of the stream with this name, at level 2.
void mux_print_unit(const char* name, int size);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_MUXUNIT_H
