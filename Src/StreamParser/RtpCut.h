#ifndef VIDORA_STREAMPARSER_RTPCUT_H
#define VIDORA_STREAMPARSER_RTPCUT_H

#include <cstdint>

#include "StreamParser/RtpPacketNode.h"

namespace Kavio {
namespace Vidora {

constexpr uint32_t RTP_MAX_PAYLOAD = 1440;  // of a packet behind its RTP header

constexpr uint32_t MPEG_AUDIO_HEADER_LEN = 4;
constexpr uint32_t MPEG_AUDIO_MAX_FRAGMENTS = 8;
constexpr uint32_t MPEG_AUDIO_HEADERS_LEN = MPEG_AUDIO_HEADER_LEN * MPEG_AUDIO_MAX_FRAGMENTS;

// The cutting rules. Each fills `list`, which it empties first, with descriptors that point into `data` of `len` bytes;
// no media is copied. The number of packets; 0 if the frame holds nothing to send; -1 on failure or if memory is short.

// Pieces of RTP_MAX_PAYLOAD bytes without a payload header.
int rtp_cut_plain(const unsigned char* data, uint32_t len, CRtpPacketList& list);

// H.264 (RFC 6184): the frame is a run of NAL units behind 00 00 00 01; a three-byte start code isn't seen. Parameter
// sets and the like go out one by one; the first slice takes all the rest of the frame with it. Single NAL unit packets
// and FU-A; no STAP.
int rtp_cut_h264(const unsigned char* data, uint32_t len, CRtpPacketList& list);

// The same with each NAL unit as one of its own, behind start codes of three or four bytes (ISO 14496-10 annex B), but
// those of types that no packet of its own can have.
int rtp_cut_nal_units(const unsigned char* data, uint32_t len, CRtpPacketList& list);

// MPEG audio (RFC 2250 3.5): pieces of 1436 bytes behind the 4-byte header, which is kept in `headers`. A frame of more
// than MPEG_AUDIO_MAX_FRAGMENTS pieces fails.
int rtp_cut_mpeg_audio(const unsigned char* data, uint32_t len, unsigned char headers[MPEG_AUDIO_HEADERS_LEN],
                       CRtpPacketList& list);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_RTPCUT_H
