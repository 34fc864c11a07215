#include "Tramel/TextSearch.h"

#include <algorithm>
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
    return needle_size > haystack_size ? TEXT_NOT_FOUND : two_way_search(haystack, haystack_size, needle, needle_size);
}

}  // namespace Tramel
}  // namespace Kavio
