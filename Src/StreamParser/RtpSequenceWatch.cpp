#include "StreamParser/RtpSequenceWatch.h"

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// A packet that isn't the next one.
rtp_order_t CRtpSequenceWatch::look_closer(const RtpHeader& header) {
    if (header.ssrc != m_last_ssrc || IsFresh()) {
        // The first packet of a session comes here too, which is nothing to warn of.
        const auto log = IsFresh() ? logInfo : logWarn;
        if (header.ssrc != m_last_ssrc) {
            if (m_ssrc_log.Pass()) {
                log(">>> RTP SSRC CHANGES from [%08x] to [%08x]\n", m_last_ssrc, header.ssrc);
            }
            if (m_notify != nullptr) {
                m_notify->OnSsrcChanged(m_last_ssrc, header.ssrc);
            }
        }
        return RTP_ORDER_JOINS;
    }
    logInfo(">>> RTP SEQ DISORDER! last[%d] now[%d]\n", m_last_seq, header.sequence);
    return RTP_ORDER_GAP;
}

void CRtpSequenceWatch::NotifyGap(const RtpHeader& header) const {
    if (m_notify != nullptr) {
        m_notify->OnSequenceDisorder(m_last_seq, header.sequence);
    }
}

// One that follows the own number 0 isn't counted, as that means "none yet", and the next own one looks like a
// gap.
bool CRtpSequenceWatch::TakeForeign(uint16_t sequence) {
    if (m_last_seq != 0 && m_shared_seq) {
        const bool follows = static_cast<uint16_t>(sequence - m_last_seq) == 1;
        m_foreign_gap = m_foreign_gap || !follows;
        m_last_seq = sequence;
        return follows;
    }
    if (!m_probed) {
        m_probe_armed = true;
        m_probe_seq = sequence;
    }
    return true;
}

void CRtpSequenceWatch::TakeEmpty(const RtpHeader& header) {
    Probe(header.sequence);
    const int step = static_cast<int16_t>(header.sequence - m_last_seq);
    if (IsFresh() || header.ssrc != m_last_ssrc || step <= 0) {
        return;
    }
    m_foreign_gap = m_foreign_gap || step > 1;
    m_last_seq = header.sequence;
}

void CRtpSequenceWatch::settle_probe(uint16_t sequence) {
    if (!m_probed) {
        m_shared_seq = static_cast<uint16_t>(sequence - m_probe_seq) == 1;
        m_probed = true;
    }
    m_probe_armed = false;
}

}  // namespace Vidora
}  // namespace Kavio
