#ifndef VIDORA_STREAMPARSER_RTPSEQUENCEWATCH_H
#define VIDORA_STREAMPARSER_RTPSEQUENCEWATCH_H

#include <cstdint>

#include "Ostra/LogGate.h"
#include "StreamParser/RtpHeader.h"
#include "StreamParser/RtpNotify.h"

namespace Kavio {
namespace Vidora {

// How a packet follows the one before it.
enum rtp_order_t {
    RTP_ORDER_NEXT,   // it is the next one
    RTP_ORDER_JOINS,  // it is the first one of its synchronisation source: nothing shows what came before it
    RTP_ORDER_GAP     // packets were lost, doubled or swapped in front of it
};

// CRtpSequenceWatch: watches the synchronisation source and the sequence numbers of one track, and calls the notify
// what it finds.
//
// Packets of another payload type may be of a sender that interleaves its tracks in one session and counts the packets
// of all of them with one sequence. The first own packet behind a foreign one settles that, once.
//
// OWNERSHIP  The notify is borrowed.
// THREADING  No lock: one thread at a time.
class CRtpSequenceWatch {
public:
    // Who hears of changes and gaps; null for nobody.
    void SetNotify(IRtpNotify* notify) { m_notify = notify; }

    // Looks at a packet of the track, which isn't taken by that. Reports a new synchronisation source; a gap is logged
    // only, see NotifyGap.
    rtp_order_t Look(const RtpHeader& header) {
        const bool follows = header.sequence == static_cast<uint16_t>(m_last_seq + 1) && !m_foreign_gap;
        return follows && header.ssrc == m_last_ssrc && !IsFresh() ? RTP_ORDER_NEXT : look_closer(header);
    }
    // Reports the gap in front of a packet.
    void NotifyGap(const RtpHeader& header) const;
    // Takes a packet: the next one is expected to follow it.
    void Take(const RtpHeader& header) {
        m_last_ssrc = header.ssrc;
        m_last_seq = header.sequence;
        m_foreign_gap = false;
        ++m_packets;
    }
    // Takes the number of a packet of another payload type. False if a packet was lost in front of it: the next own
    // packet is behind a gap then.
    bool TakeForeign(uint16_t sequence);
    // Takes the number of a packet without payload, which isn't part of a frame. If packets were lost in front of it
    // the next one is behind a gap. One of another source, or one that comes late, says nothing.
    void TakeEmpty(const RtpHeader& header);
    // To be called for each own packet: settles whether foreign packets count, if one came since the last call.
    void Probe(uint16_t sequence) {
        if (m_probe_armed) {
            settle_probe(sequence);
        }
    }

    // No packet was taken yet.
    bool IsFresh() const { return m_packets == 0; }
    // Of the packet that was taken last.
    uint32_t GetSsrc() const { return m_last_ssrc; }
    uint16_t GetLastSeq() const { return m_last_seq; }

private:
    rtp_order_t look_closer(const RtpHeader& header);
    void settle_probe(uint16_t sequence);

    IRtpNotify* m_notify = nullptr;
    Ostra::CLogGate m_ssrc_log;
    uint32_t m_last_ssrc = 0;
    uint16_t m_last_seq = 0;
    uint64_t m_packets = 0;      // packets taken in all
    bool m_foreign_gap = false;  // packets were lost among foreign or empty ones since the last own one

    // Whether foreign packets share this track's sequence numbers.
    bool m_probed = false;
    bool m_shared_seq = false;
    bool m_probe_armed = false;
    uint16_t m_probe_seq = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPSEQUENCEWATCH_H
