#ifndef VIDORA_TESTS_FUZZ_REQUIRE_H
#define VIDORA_TESTS_FUZZ_REQUIRE_H

#include <cstdlib>

// What must hold of a fuzz target's output, in every build.
inline void require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

#endif  // VIDORA_TESTS_FUZZ_REQUIRE_H
