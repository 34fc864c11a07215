// The helpers that read elementary streams: start codes, parameter sets, CRC, and pictures' sizes.
#include <gtest/gtest.h>

#include <random>

#include "StreamParser/Crc32.h"
#include "Vidora/H264Parser.h"
#include "Vidora/StartCode.h"
#include "support/SampleTable.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {
namespace {

size_t naive_find(const Bytes& data, size_t from, const Bytes& code) {
    const auto begin = data.begin() + static_cast<long>(std::min(from, data.size()));
    const auto found = std::search(begin, data.end(), code.begin(), code.end());
    return found == data.end() ? NO_START_CODE : static_cast<size_t>(found - data.begin());
}

// Dense in zeros and ones, so that codes, near misses and runs of zeros fall on every place of a vector step.
TEST(StartCodeTest, VectorScanFindsWhatANaiveScanFinds) {
    std::mt19937 random(1);
    for (int round = 0; round < 3000; ++round) {
        Bytes data(random() % 150);
        const unsigned density = 2 + random() % 12;
        for (unsigned char& byte : data) {
            byte = static_cast<unsigned char>(random() % density);
        }
        for (size_t from = 0; from <= data.size() + 1; from += 1 + random() % 7) {
            ASSERT_EQ(find_start_code3(data.data(), data.size(), from), naive_find(data, from, {0, 0, 1})) << round;
            ASSERT_EQ(find_start_code4(data.data(), data.size(), from), naive_find(data, from, {0, 0, 0, 1})) << round;
        }
    }
    EXPECT_EQ(find_start_code3(nullptr, 0), NO_START_CODE);
}

TEST(Crc32Test, MatchesThePublishedCheckValueAndCancelsItself) {
    Bytes data = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    const uint32_t crc = mpeg_crc32(data.data(), data.size());
    EXPECT_EQ(crc, 0x0376E6E7u);  // the catalogue's check value of CRC-32/MPEG-2
    for (int shift = 24; shift >= 0; shift -= 8) {
        data.push_back(static_cast<unsigned char>(crc >> shift));
    }
    EXPECT_EQ(mpeg_crc32(data.data(), data.size()), 0u);
}

TEST(H264ParserTest, ReadsRealParameterSetsAndNoneOfTheirPieces) {
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/frames.txt", "SPS", 3)) {
        SCOPED_TRACE(row[0]);
        const Bytes nal = FromHex(row[1]);
        H264Sps sps;
        ASSERT_TRUE(h264_parse_sps(nal.data(), nal.size(), sps));
        EXPECT_EQ((std::vector<uint32_t>{sps.width, sps.height, sps.field_height, sps.frame_mbs_only}),
                  Numbers<uint32_t>(row[2]));
        // What is needed stands in the first 9 bytes at least; shorter cuts must not give a size.
        for (size_t len = 0; len < 9; ++len) {
            H264Sps none;
            EXPECT_FALSE(h264_parse_sps(Part(nal, 0, len).data(), len, none)) << len;
            EXPECT_EQ(none.width, 0u);
        }
    }
}

}  // namespace
}  // namespace Kavio::Support
