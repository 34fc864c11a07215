#ifndef VIDORA_TRAMEL_TEXTSEARCH_H
#define VIDORA_TRAMEL_TEXTSEARCH_H

#include <cstddef>

namespace Kavio {
namespace Tramel {

// Offset that means "not found".
const size_t TEXT_NOT_FOUND = static_cast<size_t>(-1);

// The first offset of `needle` in `haystack`, any bytes allowed; an empty needle is found at 0. No memory is taken.
// FindTextCase ignores the case of ASCII letters. Both take linear time whatever the bytes.
size_t FindText(const char* haystack, size_t haystack_size, const char* needle, size_t needle_size);
size_t FindTextCase(const char* haystack, size_t haystack_size, const char* needle, size_t needle_size);

// Lower case of an ASCII letter; any other byte unchanged, whatever the locale.
unsigned char FoldCase(char c);

// Whether two byte strings of `size` bytes are equal but for the case of ASCII letters.
bool EqualCase(const char* a, const char* b, size_t size);

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_TEXTSEARCH_H
