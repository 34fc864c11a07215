#ifndef VIDORA_STREAMPARSER_RANDOMDRAW_H
#define VIDORA_STREAMPARSER_RANDOMDRAW_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// Numbers for initial sequence numbers, time stamps and SSRCs (RFC 3550 5.1): a generator of the library's own, so that
// the host's rand() isn't disturbed, seeded from the clock at the first draw. Any thread.
uint16_t random_draw();
// Two draws in one word.
uint32_t random_draw32();

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RANDOMDRAW_H
