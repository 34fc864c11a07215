#include "StreamSource/ReplayExtension.h"

#include <cmath>

#include "Ostra/NtpTime.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/StreamSource.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint16_t PROFILE = 0xABAC;
const uint16_t LENGTH_WORDS = 3;
const double NTP_OFFSET = static_cast<double>(Ostra::NTP_TO_UNIX_SECONDS);
const uint8_t CLEAN_POINT = 0x80;
const uint8_t END = 0x40;
const uint8_t DISCONTINUITY = 0x20;
const double LARGEST_STEP = 1.0;  // seconds between two frames without a discontinuity

}  // namespace

void CReplayExtension::Write(const Flumen::CMediaFrame& frame, int packet_state, int cseq) {
    const double utc = frame.getUtc();
    const int type = frame.getType();
    m_flags = static_cast<uint8_t>(m_flags & END);
    if (packet_state == PACKET_STATE_RUNS || packet_state == PACKET_STATE_END) {  // any other leaves the bit as it was
        m_flags = packet_state == PACKET_STATE_END ? END : 0;
    }
    if (type == FRAME_TYPE_I || type == FRAME_TYPE_JPEG) {
        m_flags = static_cast<uint8_t>(m_flags | CLEAN_POINT);
    }
    if (std::fabs(utc - m_last_utc) > LARGEST_STEP) {
        m_flags = static_cast<uint8_t>(m_flags | DISCONTINUITY);
    }
    m_last_utc = utc;

    CByteWriter writer(m_bytes, sizeof(m_bytes));
    writer.WriteU16(PROFILE);
    writer.WriteU16(LENGTH_WORDS);
    // The 32-bit seconds of RFC 5905 wrap in 2036: kept modulo 2^32.
    writer.WriteU32(static_cast<uint32_t>(static_cast<uint64_t>(utc > 0.0 ? utc + NTP_OFFSET : NTP_OFFSET)));
    writer.WriteU32(0);
    writer.WriteU8(m_flags);
    writer.WriteU8(static_cast<uint8_t>(cseq));
    writer.WriteU16(0);
}

}  // namespace Vidora
}  // namespace Kavio
