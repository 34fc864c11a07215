#ifndef VIDORA_STREAMPARSER_MUXUNIT_H
#define VIDORA_STREAMPARSER_MUXUNIT_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// What the multiplexers of transport and program streams have in common.

// The track of an enc_type_t: 0 for video, 1 for audio. MPEG audio (5) goes on the video track: receivers in the field
// expect it there.
int mux_track_of_enc_type(int enc_type);

// Copies a unit, `size` bytes at `offset` of the `total` bytes in `written`, into `buffer` of `capacity` bytes, and
// prints a line with the `name` of the stream at level 2. Its size, or 0 if it doesn't fit or isn't there.
int mux_copy_unit(const unsigned char* written, uint32_t total, uint32_t offset, int size, unsigned char* buffer,
                  unsigned int capacity, const char* name);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_MUXUNIT_H
