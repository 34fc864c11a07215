#ifndef VIDORA_STREAMPARSER_RTPCUTASSISTFRAME_H
#define VIDORA_STREAMPARSER_RTPCUTASSISTFRAME_H

#include <cstdint>

#include "StreamParser/RtpPacketNode.h"

namespace Kavio {
namespace Vidora {

constexpr uint32_t ASSIST_HEADER_LEN = 8;

// Cuts an assist frame: `header` (the assist type and seven zeros), which is borrowed, and the frame, in pieces of
// RTP_MAX_PAYLOAD bytes. Fills `list`, which it empties first. The number of packets, or -1 if memory is short.
int rtp_cut_assist_frame(const unsigned char* data, uint32_t len, const unsigned char header[ASSIST_HEADER_LEN],
                         CRtpPacketList& list);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPCUTASSISTFRAME_H
