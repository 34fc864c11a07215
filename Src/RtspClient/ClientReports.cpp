#include "RtspClient/ClientReports.h"

#include <new>

#include "StreamParser/RandomDraw.h"

namespace Kavio {
namespace Vidora {

CRtcpParser* CClientReports::parser_of(int rtcp_channel) const {
    const bool is_valid = rtcp_channel >= 0 && rtcp_channel <= static_cast<int>(MAX_CHANNEL);
    return is_valid ? m_parsers[rtcp_channel / 2].get() : nullptr;
}

int CClientReports::Add(int rtcp_channel, uint32_t ssrc) {
    if (rtcp_channel < 0 || rtcp_channel > static_cast<int>(MAX_CHANNEL)) {
        return -1;
    }
    while (m_own_ssrc == 0 || m_own_ssrc == ssrc) {
        m_own_ssrc = random_draw32();
    }
    m_parsers[rtcp_channel / 2].reset(new (std::nothrow) CRtcpParser(m_own_ssrc));
    return m_parsers[rtcp_channel / 2] != nullptr ? 0 : -1;
}

unsigned char* CClientReports::Write(int rtcp_channel, const reception_stats_t& stats, unsigned char* buffer,
                                     unsigned int* length) {
    CRtcpParser* parser = parser_of(rtcp_channel);
    if (parser == nullptr) {
        return nullptr;
    }
    if (!m_conformance) {
        parser->set_report_info({stats.lost, stats.lost_total, stats.last_seq});
        return parser->get_rr_compound(buffer, length);
    }
    rtcp_report block = {};
    block.ssrc = stats.ssrc;
    block.fraction = stats.fraction;
    block.lost = static_cast<uint32_t>(stats.cumulative_lost) & RTCP_LOST_MASK;
    block.highest_seq = stats.highest_seq;
    block.jitter = stats.jitter;
    block.last_sr = stats.last_sr;
    block.delay_last_sr = stats.delay_last_sr;
    // Before the first packet there is nothing to report on: no block.
    if (parser->set_report_block(stats.have_seq != 0 ? &block : nullptr) < 0) {
        return nullptr;
    }
    return parser->get_rr_compound(buffer, length);
}

}  // namespace Vidora
}  // namespace Kavio
