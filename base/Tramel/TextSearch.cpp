#include "Tramel/TextSearch.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace Kavio {
namespace Tramel {

namespace {

// Two-way search (Crochemore and Perrin, "Two-way string-matching", JACM 38, 1991): the needle is cut at a critical
// place; its right part is compared forwards, then its left part backwards, and no byte of the haystack is looked at
// more than a fixed number of times.
struct Cut {
    size_t place;   // where the right part begins
    size_t period;  // of the right part
};

// The maximal suffix of the needle in the order of bytes, or in the reversed order.
Cut maximal_suffix(const char* needle, size_t size, bool reversed) {
    size_t start = 0;      // of the best suffix so far
    size_t candidate = 1;  // of the suffix that is compared with it
    size_t matched = 0;    // equal bytes of the two
    size_t period = 1;
    while (candidate + matched < size) {
        const unsigned char a = FoldCase(needle[candidate + matched]);
        const unsigned char b = FoldCase(needle[start + matched]);
        if (a == b) {
            if (++matched == period) {
                candidate += period;
                matched = 0;
            }
        } else if ((a < b) != reversed) {
            candidate += matched + 1;
            matched = 0;
            period = candidate - start;
        } else {
            start = candidate++;
            matched = 0;
            period = 1;
        }
    }
    return {start, period};
}

Cut critical_cut(const char* needle, size_t size) {
    const Cut forward = maximal_suffix(needle, size, false);
    const Cut backward = maximal_suffix(needle, size, true);
    return forward.place >= backward.place ? forward : backward;
}

size_t two_way_search(const char* haystack, size_t haystack_size, const char* needle, size_t needle_size) {
    const Cut cut = critical_cut(needle, needle_size);
    // A needle that repeats itself keeps after each step the part that is known to match; another one may skip more.
    // The period is one of the right part, so that both comparisons end inside the needle.
    const bool periodic = EqualCase(needle, needle + cut.period, cut.place);
    const size_t period = periodic ? cut.period : std::max(cut.place, needle_size - cut.place) + 1;
    size_t known = 0;  // bytes at the needle's beginning that are known to match
    for (size_t at = 0; at <= haystack_size - needle_size;) {
        const char* window = haystack + at;
        size_t right = std::max(cut.place, known);
        while (right < needle_size && FoldCase(needle[right]) == FoldCase(window[right])) {
            ++right;
        }
        if (right < needle_size) {
            at += right - cut.place + 1;
            known = 0;
            continue;
        }
        size_t left = cut.place;
        while (left > known && FoldCase(needle[left - 1]) == FoldCase(window[left - 1])) {
            --left;
        }
        if (left <= known) {
            return at;
        }
        at += period;
        known = periodic ? needle_size - period : 0;
    }
    return TEXT_NOT_FOUND;
}

// Sixteen bytes of the haystack at once.
const size_t BLOCK_SIZE = 16;
const size_t MAX_FREE_COMPARISON = 256;  // bytes, before comparing is weighed against searching
typedef uint8_t Block __attribute__((vector_size(BLOCK_SIZE)));

// Matches a byte of the needle in either case: setting bit 0x20 makes lower case of a letter, and a letter of no other
// byte.
struct CaseByte {
    explicit CaseByte(char c)
        : folded(FoldCase(c)), mask(folded >= 'a' && folded <= 'z' ? uint8_t{0x20} : uint8_t{0}) {}

    Block Matches(const char* bytes) const {
        Block block;
        std::memcpy(&block, bytes, BLOCK_SIZE);
        return reinterpret_cast<Block>((block | mask) == folded);
    }

    uint8_t folded;
    uint8_t mask;
};

bool any(const Block& block) {
    uint64_t halves[2];
    std::memcpy(halves, &block, BLOCK_SIZE);
    return (halves[0] | halves[1]) != 0;
}

// Compares the needle only where its first and its last byte are found, which is seldom in real text. A haystack made
// of such places would cost needle times haystack: when comparing has cost too much, two_way_search goes on instead, so
// that the whole stays linear.
size_t block_search(const char* haystack, size_t haystack_size, const char* needle, size_t needle_size) {
    const CaseByte first(needle[0]);
    const CaseByte last(needle[needle_size - 1]);
    const size_t places = haystack_size - needle_size + 1;
    if (places < BLOCK_SIZE) {
        return two_way_search(haystack, haystack_size, needle, needle_size);
    }
    size_t compared = 0;
    for (size_t next = 0; next < places; next += BLOCK_SIZE) {
        const size_t at = std::min(next, places - BLOCK_SIZE);  // the last block reaches back into the one before
        const Block hits = first.Matches(haystack + at) & last.Matches(haystack + at + needle_size - 1);
        if (!any(hits)) {
            continue;
        }
        for (size_t i = 0; i < BLOCK_SIZE; ++i) {
            if (hits[i] != 0 && EqualCase(haystack + at + i, needle, needle_size)) {
                return at + i;
            }
            compared += hits[i] != 0 ? needle_size : 0;
        }
        if (compared > 4 * (at + BLOCK_SIZE) + MAX_FREE_COMPARISON) {
            const size_t found = two_way_search(haystack + at, haystack_size - at, needle, needle_size);
            return found != TEXT_NOT_FOUND ? at + found : TEXT_NOT_FOUND;
        }
    }
    return TEXT_NOT_FOUND;
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
    return needle_size > haystack_size ? TEXT_NOT_FOUND : block_search(haystack, haystack_size, needle, needle_size);
}

}  // namespace Tramel
}  // namespace Kavio
