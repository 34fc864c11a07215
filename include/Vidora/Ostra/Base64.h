#ifndef VIDORA_OSTRA_BASE64_H
#define VIDORA_OSTRA_BASE64_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {

// RFC 4648 section 4, with padding.

// Bytes that base64Encode writes for `len` bytes, the final NUL included.
VIDORA_API int base64EncodeLen(int len);
// Encodes `len` bytes into `out`, NUL-terminated. Returns what base64EncodeLen returns.
VIDORA_API int base64Encode(char* out, const char* in, int len);
// Room, final NUL included, that base64Decode may write for the text `in`.
VIDORA_API int base64DecodeLen(const char* in);
// Decodes the text up to its NUL or the first character outside the alphabet; writes a NUL behind the bytes and returns
// their count.
VIDORA_API int base64Decode(char* out, const char* in);

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_BASE64_H
