#include "ReceptionStats.h"

#include <gtest/gtest.h>

#include "support/StreamBytes.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;

namespace {

const uint32_t SSRC = 0x1234;
const uint32_t CLOCK = 90000;

reception_stats_t stats_of(const std::vector<uint16_t>& numbers, CReceptionStats& stats) {
    for (const uint16_t number : numbers) {
        stats.Count(number, 0, SSRC, 100, 0, 0);
    }
    return stats.Get(0);
}

Bytes sender_report(uint32_t ssrc) {
    Bytes bytes = FromHex("80c80006 00000000 e1234567 89abcdef 00000e10 00000000 00000000");
    for (size_t i = 0; i < 4; ++i) {
        bytes[4 + i] = static_cast<uint8_t>(ssrc >> (24 - 8 * i));
    }
    return bytes;
}

}  // namespace

TEST(ReceptionStats, CountsGapsLateRepeatedAndWrappedNumbers) {
    const struct {
        const char* name;
        std::vector<uint16_t> numbers;
        uint32_t lost;       // as gaps are counted
        int32_t cumulative;  // as a receiver report has it
        uint32_t highest;
    } rows[] = {
        {"in order", {10, 11, 12}, 0, 0, 12},
        {"gap", {10, 13}, 2, 2, 13},
        {"late", {10, 12, 11, 13}, 2, 0, 13},
        {"repeated", {10, 10, 11}, 0, -1, 11},
        {"wrapped", {65534, 65535, 0, 1}, 0, 0, 65537},
        {"lost over the wrap", {65534, 1}, 2, 2, 65537},
        {"late over the wrap", {65535, 1, 0, 2}, 2, 0, 65538},
        // Gaps are counted from the last number, whatever that was.
        {"a single stray", {10, 40000, 11}, 25546, 0, 11},
        {"began anew", {10, 40000, 40001, 40002}, 0, 0, 40002},
    };
    for (const auto& row : rows) {
        CReceptionStats running;
        const reception_stats_t stats = stats_of(row.numbers, running);
        EXPECT_EQ(stats.lost_total, row.lost) << row.name;
        EXPECT_EQ(stats.cumulative_lost, row.cumulative) << row.name;
        EXPECT_EQ(stats.highest_seq, row.highest) << row.name;
        EXPECT_EQ(stats.packets, row.numbers.size()) << row.name;
        EXPECT_EQ(stats.octets, 100 * row.numbers.size()) << row.name;
        EXPECT_EQ(stats.last_seq, row.numbers.back()) << row.name;
    }
}

TEST(ReceptionStats, TellsTheLossOfAnInterval) {
    CReceptionStats running;
    CReceptionStats shown;
    stats_of({1, 2, 3, 4, 6}, running);
    shown.Follow(running);
    EXPECT_EQ(shown.Get(0).fraction, 256 / 6);
    EXPECT_EQ(shown.Get(0).lost, 1u);
    shown.Clear();
    stats_of({7, 9}, running);
    shown.Follow(running);
    EXPECT_EQ(shown.Get(0).fraction, 256 / 3);
    EXPECT_EQ(shown.Get(0).lost, 1u);
    EXPECT_EQ(shown.Get(0).lost_total, 2u);
    // Another source begins anew: its numbers are no gap.
    running.Count(500, 0, SSRC + 1, 100, 0, 0);
    running.Count(502, 0, SSRC + 1, 100, 0, 0);
    shown.Follow(running);
    EXPECT_EQ(shown.Get(0).fraction, 256 / 3);
    EXPECT_EQ(shown.Get(0).cumulative_lost, 1);
    EXPECT_EQ(shown.Get(0).ssrc, SSRC + 1);
}

TEST(ReceptionStats, MeasuresJitter) {
    CReceptionStats stats;
    // Each second packet comes 10 ms late, that is 900 ticks: the mean settles there.
    for (uint16_t i = 0; i < 400; ++i) {
        stats.Count(i, i * 3600u, SSRC, 1, uint64_t{i} * 40000 + (i % 2) * 10000, CLOCK);
    }
    EXPECT_NEAR(stats.Get(0).jitter, 900, 1);
}

// A report may come before the media, also one about something else, and in pieces.
TEST(ReceptionStats, MapsTheSendersClock) {
    for (const bool early : {true, false}) {
        for (const uint32_t reported : {SSRC, SSRC + 1}) {
            const Bytes report = sender_report(reported);
            CReceptionStats stats;
            if (early) {
                stats.TakeRtcp(report.data(), report.size(), 1000000);
            }
            stats.Count(1, 0, SSRC, 1, 0, CLOCK);
            for (size_t length = 0; length < 20; ++length) {
                stats.TakeRtcp(report.data(), length, 1500000);
            }
            if (!early) {
                EXPECT_EQ(stats.Get(2000000).last_sr, 0u);
                stats.TakeRtcp(report.data(), report.size(), 1000000);
            }
            const reception_stats_t now = stats.Get(2500000);
            const bool known = reported == SSRC;
            EXPECT_EQ(now.last_sr, known ? 0x456789abu : 0u);
            EXPECT_EQ(now.delay_last_sr, known ? 65536u * 3 / 2 : 0u);
            EXPECT_EQ(now.sr_ntp, known ? 0xe123456789abcdefu : 0u);
            EXPECT_EQ(now.sr_rtp, known ? 3600u : 0u);
        }
    }
}
