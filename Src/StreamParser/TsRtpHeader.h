#ifndef VIDORA_STREAMPARSER_TSRTPHEADER_H
#define VIDORA_STREAMPARSER_TSRTPHEADER_H

#include "StreamParser/ForwardTime.h"
#include "StreamParser/RtpHeader.h"
#include "StreamParser/StreamParser.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

// CTsRtpHeader: the RTP headers in front of the units of a transport stream (RFC 2250 2), whose time stamp is the
// stream's clock at the frame in them. Until it begins there are none.
//
// THREADING  No lock: one thread at a time.
class CTsRtpHeader {
public:
    static const uint8_t PAYLOAD_TYPE = 33;  // RFC 3551 table 5

    // Begins a time line with the block's SSRC, sequence number and time stamp.
    void Begin(const RtpEncParam& param) {
        m_begun = true;
        m_ssrc = param.ssrc;
        m_sequence = param.sequence;
        m_timestamp = param.timestamp;
        m_is_first = true;
        m_time = CForwardTime();
        m_ticks = 0;
    }
    // Where it is: the next sequence number, and the time stamp of the frame in work.
    void Get(RtpEncParam& param) const {
        param.ssrc = m_ssrc;
        param.sequence = m_sequence;
        param.timestamp = m_timestamp + m_ticks;
    }
    bool HasBegun() const { return m_begun; }
    unsigned int Size() const { return m_begun ? RTP_HEADER_LEN : 0; }

    // The next frame's time in milliseconds.
    void SetTime(uint64_t pts_ms) {
        m_first_pts = m_is_first ? pts_ms : m_first_pts;
        m_is_first = false;
        m_ticks = static_cast<uint32_t>((m_time.Take(pts_ms) - m_first_pts) * TICKS_PER_MS);  // wraps, as it is to
    }
    // Writes the header of the next unit, if there is to be one.
    void Write(CByteWriter& writer) {
        const uint8_t VERSION = 0x80;
        if (m_begun) {
            writer.WriteU8(VERSION);
            writer.WriteU8(PAYLOAD_TYPE);
            writer.WriteU16(m_sequence++);
            writer.WriteU32(m_timestamp + m_ticks);
            writer.WriteU32(m_ssrc);
        }
    }

private:
    static const uint32_t TICKS_PER_MS = 90;

    bool m_begun = false;
    uint32_t m_ssrc = 0;
    uint16_t m_sequence = 0;
    uint32_t m_timestamp = 0;  // of the first frame
    bool m_is_first = true;    // no frame has come yet
    uint64_t m_first_pts = 0;
    CForwardTime m_time;
    uint32_t m_ticks = 0;  // from the first frame
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_TSRTPHEADER_H
