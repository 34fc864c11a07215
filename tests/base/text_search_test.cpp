#include "Tramel/TextSearch.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <memory>
#include <random>

namespace Kavio {
namespace Tramel {
namespace {

std::unique_ptr<char[]> random_text(std::mt19937& random, size_t size, size_t letters) {
    static const char ALPHABET[] = "aAbB@`[{zZ\xe1\xc1-:";  // neighbours of the letters, and letters with the top bit
    std::unique_ptr<char[]> text(new char[size]);           // of the exact size, for the sanitizer
    for (size_t i = 0; i < size; ++i) {
        text[i] = ALPHABET[random() % letters];
    }
    return text;
}

// Few letters make many near matches: blocks, the last block, short texts and the change to the slow search all occur.
TEST(TextSearch, FindsWhatANaiveSearchFinds) {
    std::mt19937 random(1);
    for (int run = 0; run < 20000; ++run) {
        const bool big = run % 50 == 0;
        const size_t letters = big ? 2 : 2 + random() % 13;
        const size_t size = random() % (big ? 3000 : 120);
        const size_t needle_size = 1 + random() % (big ? 40 : 6);
        const std::unique_ptr<char[]> text = random_text(random, size, letters);
        const std::unique_ptr<char[]> needle = random_text(random, needle_size, letters);
        size_t expected = 0;
        while (expected + needle_size <= size && strncasecmp(&text[expected], needle.get(), needle_size) != 0) {
            ++expected;
        }
        expected = expected + needle_size <= size ? expected : TEXT_NOT_FOUND;
        ASSERT_EQ(FindTextCase(text.get(), size, needle.get(), needle_size), expected) << run;
    }
}

}  // namespace
}  // namespace Tramel
}  // namespace Kavio
