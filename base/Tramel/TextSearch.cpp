#include "Tramel/TextSearch.h"

#include <cstring>

namespace Kavio {
namespace Tramel {

namespace {

// The first `byte` from `text` on; `end` if there is none.
const char* find_byte(const char* text, const char* end, char byte) {
    const void* found = text < end ? std::memchr(text, byte, static_cast<size_t>(end - text)) : nullptr;
    return found != nullptr ? static_cast<const char*>(found) : end;
}

char upper_case(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - ('a' - 'A')) : c;
}

}  // namespace

unsigned char FoldCase(char c) {
    const unsigned char byte = static_cast<unsigned char>(c);
    return byte >= 'A' && byte <= 'Z' ? static_cast<unsigned char>(byte + ('a' - 'A')) : byte;
}

bool EqualCase(const char* a, const char* b, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        if (FoldCase(a[i]) != FoldCase(b[i])) {
            return false;
        }
    }
    return true;
}

size_t FindText(const char* haystack, size_t haystack_size, const char* needle, size_t needle_size) {
    if (needle_size == 0) {
        return 0;
    }
    if (needle_size > haystack_size) {
        return TEXT_NOT_FOUND;
    }
    const void* found = memmem(haystack, haystack_size, needle, needle_size);
    return found != nullptr ? static_cast<size_t>(static_cast<const char*>(found) - haystack) : TEXT_NOT_FOUND;
}

size_t FindTextCase(const char* haystack, size_t haystack_size, const char* needle, size_t needle_size) {
    if (needle_size == 0) {
        return 0;
    }
    if (needle_size > haystack_size) {
        return TEXT_NOT_FOUND;
    }
    // The two cases of the needle's first byte are looked for apart, each by the quick search for one byte, and the
    // nearer one is tried.
    const char* end = haystack + (haystack_size - needle_size + 1);  // of the places that the needle fits at
    const char lower = static_cast<char>(FoldCase(needle[0]));
    const char upper = upper_case(lower);
    const char* next_lower = find_byte(haystack, end, lower);
    const char* next_upper = upper != lower ? find_byte(haystack, end, upper) : end;
    while (true) {
        const char*& next = next_lower < next_upper ? next_lower : next_upper;
        if (next == end) {
            return TEXT_NOT_FOUND;
        }
        if (EqualCase(next + 1, needle + 1, needle_size - 1)) {
            return static_cast<size_t>(next - haystack);
        }
        next = find_byte(next + 1, end, *next);
    }
}

}  // namespace Tramel
}  // namespace Kavio
