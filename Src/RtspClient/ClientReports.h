#ifndef VIDORA_RTSPCLIENT_CLIENTREPORTS_H
#define VIDORA_RTSPCLIENT_CLIENTREPORTS_H

#include <cstdint>
#include <memory>

#include "Protocol/RtcpParser.h"
#include "ReceptionStats.h"
#include "RtspClient/ClientTypes.h"

namespace Kavio {
namespace Vidora {

// CClientReports: the receiver reports (RFC 3550 6.4.2) of a client's tracks.
//
// A report is sent under a source identifier that isn't the media's. By default it holds one block, about that
// identifier, with the three figures that servers of this kind read. With conformance the block is about the media's
// source and whole, and the identifier is drawn.
//
// THREADING  The strand.
class CClientReports {
public:
    static const unsigned int MAX_CHANNEL = 31;  // 16 pairs
    static const unsigned int MAX_REPORT_SIZE = 2048;

    void SetConformance(bool on) { m_conformance = on; }
    // Makes the writer of a track by its RTCP channel. `ssrc`: the media's, 0 if it isn't known. 0, or -1: a channel
    // beyond 31, or memory short.
    int Add(int rtcp_channel, uint32_t ssrc);
    bool Has(int rtcp_channel) const { return parser_of(rtcp_channel) != nullptr; }
    // Writes a report on `stats` into `buffer`, which has room for `*length` bytes; null on failure.
    unsigned char* Write(int rtcp_channel, const reception_stats_t& stats, unsigned char* buffer, unsigned int* length);

private:
    CRtcpParser* parser_of(int rtcp_channel) const;

    std::unique_ptr<CRtcpParser> m_parsers[(MAX_CHANNEL + 1) / 2];
    uint32_t m_own_ssrc = 0;  // of all tracks, as they are one participant
    bool m_conformance = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTREPORTS_H
