#ifndef VIDORA_RECEPTIONSTATS_H
#define VIDORA_RECEPTIONSTATS_H

#include <cstddef>
#include <cstdint>

namespace Kavio {
namespace Vidora {

struct rtcp_digest_t;

// What is known of the reception of one track.
struct reception_stats_t {
    // Plain counters. A packet counts as lost for each number that a later one skips, whether it comes late or never.
    uint32_t lost = 0;  // since the last read that cleared
    uint32_t lost_total = 0;
    uint32_t last_seq = 0;   // number of the last packet
    uint32_t timestamp = 0;  // of the last packet
    uint64_t octets = 0;     // bytes of packets without interleave headers
    uint64_t packets = 0;
    uint32_t have_seq = 0;  // the track had a packet
    uint32_t dropped = 0;   // packets that were too short

    // The block of a receiver report (RFC 3550 6.4.1, A.3, A.8).
    uint32_t ssrc = 0;            // of the media; valid with have_seq
    uint32_t highest_seq = 0;     // with the count of cycles in the high half
    uint8_t fraction = 0;         // lost since the last read that cleared, in 256ths
    int32_t cumulative_lost = 0;  // late packets count as received, repeated ones as well: may be below 0
    uint32_t jitter = 0;          // in ticks of the clock; 0 without a clock rate
    uint32_t last_sr = 0;         // middle half of the last sender report's NTP time; 0 before one
    uint32_t delay_last_sr = 0;   // since its arrival, in 1/65536 s

    // The sender's clock: RTP time stamp `sr_rtp` stands for `sr_ntp` (32.32 seconds since 1900). Valid with last_sr.
    uint64_t sr_ntp = 0;
    uint32_t sr_rtp = 0;
};

// CReceptionStats: counts the packets of one track. A value without a lock.
class CReceptionStats {
public:
    // Counts a packet by its number, time stamp, source and size. `arrival_us`: monotonic; `clock_rate` 0: no jitter.
    // The numbers that it skipped: 0 if it follows or comes late.
    uint32_t Count(uint16_t seq, uint32_t timestamp, uint32_t ssrc, size_t octets, uint64_t arrival_us,
                   uint32_t clock_rate);
    uint32_t LastSeq() const { return m_stats.last_seq; }
    // Whether the packets are of that source; before the first one, whether the announced one is it (0: none was).
    bool IsOf(uint32_t ssrc, uint32_t announced) const {
        return m_stats.have_seq != 0 ? m_stats.ssrc == ssrc : announced != 0 && announced == ssrc;
    }
    // A packet that was too short to be one.
    void CountShort() { ++m_stats.dropped; }
    // Takes the sender report of an RTCP compound, if it has one.
    void TakeReport(const rtcp_digest_t& digest, uint64_t arrival_us);

    // The figures at `now_us`.
    reception_stats_t Get(uint64_t now_us) const;
    // Begins a new interval of `lost` and `fraction`.
    void Clear();
    // Takes the counters of `running`, and keeps the beginning of the interval.
    void Follow(const CReceptionStats& running);

private:
    // Where an interval began.
    struct Interval {
        uint32_t lost_total = 0;
        uint32_t expected = 0;
        uint32_t received = 0;
    };

    void restart(uint16_t seq, uint32_t ssrc);
    void follow_seq(uint16_t seq);
    void follow_jitter(uint32_t timestamp, uint64_t arrival_us, uint32_t clock_rate);
    uint32_t expected() const { return m_cycles + m_max_seq - m_base_seq + 1; }

    reception_stats_t m_stats;
    uint32_t m_cycles = 0;  // in 65536ths
    uint32_t m_base_seq = 0;
    uint16_t m_max_seq = 0;
    uint32_t m_received = 0;
    bool m_expect_restart = false;  // the last number was far off; m_restart_seq would confirm it
    uint16_t m_restart_seq = 0;
    uint32_t m_restarts = 0;
    uint32_t m_transit = 0;
    bool m_have_transit = false;
    double m_jitter = 0;
    uint64_t m_sr_arrival_us = 0;
    uint32_t m_sr_ssrc = 0;  // valid with last_sr
    Interval m_interval;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RECEPTIONSTATS_H
