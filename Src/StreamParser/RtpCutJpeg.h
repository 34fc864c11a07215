#ifndef VIDORA_STREAMPARSER_RTPCUTJPEG_H
#define VIDORA_STREAMPARSER_RTPCUTJPEG_H

#include <cstdint>

#include "StreamParser/RtpPacketNode.h"

namespace Kavio {
namespace Vidora {

constexpr uint32_t JPEG_QUANT_HEADER_LEN = 4;

// Cuts a whole JFIF image after RFC 2435: type 1 (4:2:0), Q 128 with the tables in the first packet. Fills `list`,
// which it empties first, with descriptors that point into `data`; `quant_header` keeps four bytes of the first packet.
// The number of packets, or -1 with a log line for a bad image, a null argument or short memory.
int rtp_cut_jpeg(const unsigned char* data, uint32_t len, unsigned char quant_header[JPEG_QUANT_HEADER_LEN],
                 CRtpPacketList& list);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPCUTJPEG_H
