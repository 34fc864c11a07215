#ifndef VIDORA_TESTS_SUPPORT_EVERYCUT_H
#define VIDORA_TESTS_SUPPORT_EVERYCUT_H

#include <gtest/gtest.h>

#include <vector>

#include "support/StreamBytes.h"

namespace Kavio::Support {

// Gives a stream to `run`, a function of the pieces in order that gives what a fresh parser made of them: whole, byte
// by byte, with empty pieces, and in two pieces cut at every place. All must give the same, which is the result.
template <typename Run>
auto FeedAtEveryCut(const Bytes& stream, Run run) {
    const auto whole = run(std::vector<Bytes>{stream});
    std::vector<Bytes> single = {Bytes()};
    for (const uint8_t byte : stream) {
        single.push_back(Bytes{byte});
        single.push_back(Bytes());
    }
    EXPECT_EQ(run(single), whole) << "byte by byte";
    for (size_t cut = 1; cut < stream.size(); ++cut) {
        EXPECT_EQ(run({Part(stream, 0, cut), Part(stream, cut)}), whole) << "cut at " << cut;
    }
    return whole;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_EVERYCUT_H
