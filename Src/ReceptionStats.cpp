#include "ReceptionStats.h"

#include <cstdlib>

#include "RtcpDigest.h"

namespace Kavio {
namespace Vidora {

namespace {

// RFC 3550 A.1: a step forward of this many numbers, or back by more than that, counts as the sender's restart once a
// second packet confirms it.
const uint16_t MAX_DROPOUT = 3000;
const uint16_t MAX_MISORDER = 100;
const uint32_t SEQ_CYCLE = 1u << 16;

const uint64_t US_A_SECOND = 1000000;
const uint64_t DELAY_UNITS_A_SECOND = 65536;
const int32_t MAX_CUMULATIVE = 0x7fffff;  // 24 bits with a sign
const int32_t MIN_CUMULATIVE = -0x800000;
const int FRACTION_UNITS = 256;
const double JITTER_GAIN = 1.0 / 16;  // RFC 3550 6.4.1

int32_t clamp_cumulative(int64_t lost) {
    if (lost > MAX_CUMULATIVE) {
        return MAX_CUMULATIVE;
    }
    return lost < MIN_CUMULATIVE ? MIN_CUMULATIVE : static_cast<int32_t>(lost);
}

uint8_t loss_fraction(uint32_t expected, uint32_t received) {
    if (expected == 0 || received >= expected) {
        return 0;
    }
    const uint64_t fraction = uint64_t{expected - received} * FRACTION_UNITS / expected;
    return static_cast<uint8_t>(fraction < FRACTION_UNITS ? fraction : FRACTION_UNITS - 1);
}

}  // namespace

uint32_t CReceptionStats::Count(uint16_t seq, uint32_t timestamp, uint32_t ssrc, size_t octets, uint64_t arrival_us,
                                uint32_t clock_rate) {
    m_stats.octets += octets;
    m_stats.timestamp = timestamp;
    ++m_stats.packets;
    uint32_t skipped = 0;
    if (m_stats.have_seq == 0 || ssrc != m_stats.ssrc) {
        restart(seq, ssrc);
    } else {
        const int delta = static_cast<int16_t>(seq - m_stats.last_seq);
        skipped = delta > 1 ? static_cast<uint32_t>(delta - 1) : 0;
        m_stats.lost_total += skipped;
        follow_seq(seq);
    }
    m_stats.last_seq = seq;
    follow_jitter(timestamp, arrival_us, clock_rate);
    return skipped;
}

// The first packet, another source, or a source that began anew.
void CReceptionStats::restart(uint16_t seq, uint32_t ssrc) {
    if (ssrc != m_stats.ssrc) {
        m_jitter = 0;
    }
    // A report may come before the media; one about another source says nothing of it.
    if (ssrc != m_sr_ssrc) {
        m_stats.last_sr = 0;
        m_stats.sr_ntp = 0;
        m_stats.sr_rtp = 0;
    }
    m_stats.have_seq = 1;
    m_stats.ssrc = ssrc;
    m_cycles = 0;
    m_base_seq = seq;
    m_max_seq = seq;
    m_received = 1;
    m_have_transit = false;
    m_expect_restart = false;
    ++m_restarts;
}

void CReceptionStats::follow_seq(uint16_t seq) {
    const uint16_t ahead = static_cast<uint16_t>(seq - m_max_seq);
    if (ahead >= MAX_DROPOUT && ahead <= SEQ_CYCLE - MAX_MISORDER) {
        if (m_expect_restart && seq == m_restart_seq) {
            restart(seq, m_stats.ssrc);
            return;
        }
        m_expect_restart = true;
        m_restart_seq = static_cast<uint16_t>(seq + 1);
        return;
    }
    if (ahead < MAX_DROPOUT) {
        m_cycles += seq < m_max_seq ? SEQ_CYCLE : 0;
        m_max_seq = seq;
    }
    m_expect_restart = false;
    ++m_received;
}

// RFC 3550 A.8. Packets of one read have one time of arrival: what they waited in the system counts as jitter.
void CReceptionStats::follow_jitter(uint32_t timestamp, uint64_t arrival_us, uint32_t clock_rate) {
    if (clock_rate == 0) {
        return;
    }
    const uint64_t seconds = arrival_us / US_A_SECOND;
    const uint64_t ticks = seconds * clock_rate + arrival_us % US_A_SECOND * clock_rate / US_A_SECOND;
    const uint32_t transit = static_cast<uint32_t>(ticks) - timestamp;
    if (m_have_transit) {
        const double step = std::abs(static_cast<double>(static_cast<int32_t>(transit - m_transit)));
        m_jitter += (step - m_jitter) * JITTER_GAIN;
    }
    m_transit = transit;
    m_have_transit = true;
}

void CReceptionStats::TakeReport(const rtcp_digest_t& digest, uint64_t arrival_us) {
    const bool is_others = m_stats.have_seq != 0 && digest.ssrc != m_stats.ssrc;
    if (!digest.has_report || is_others) {
        return;
    }
    m_stats.sr_ntp = digest.ntp;
    m_stats.sr_rtp = digest.rtp;
    m_stats.last_sr = static_cast<uint32_t>(digest.ntp >> 16);
    m_sr_arrival_us = arrival_us;
    m_sr_ssrc = digest.ssrc;
}

reception_stats_t CReceptionStats::Get(uint64_t now_us) const {
    reception_stats_t stats = m_stats;
    stats.lost = m_stats.lost_total - m_interval.lost_total;
    stats.highest_seq = m_cycles + m_max_seq;
    stats.jitter = static_cast<uint32_t>(m_jitter);
    if (m_stats.have_seq != 0) {
        stats.cumulative_lost = clamp_cumulative(int64_t{expected()} - m_received);
        stats.fraction = loss_fraction(expected() - m_interval.expected, m_received - m_interval.received);
    }
    if (m_stats.last_sr != 0 && now_us > m_sr_arrival_us) {
        stats.delay_last_sr = static_cast<uint32_t>((now_us - m_sr_arrival_us) * DELAY_UNITS_A_SECOND / US_A_SECOND);
    }
    return stats;
}

void CReceptionStats::Clear() {
    m_interval.lost_total = m_stats.lost_total;
    m_interval.expected = m_stats.have_seq != 0 ? expected() : 0;
    m_interval.received = m_received;
}

void CReceptionStats::Follow(const CReceptionStats& running) {
    Interval interval = m_interval;
    if (running.m_restarts != m_restarts) {
        interval.expected = 0;
        interval.received = 0;
    }
    *this = running;
    m_interval = interval;
}

}  // namespace Vidora
}  // namespace Kavio
