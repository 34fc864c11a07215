#ifndef VIDORA_PROTOCOL_RTCPRECORDS_H
#define VIDORA_PROTOCOL_RTCPRECORDS_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

// The records of RTCP packets, as CRtcpParser reads and builds them. Host byte order.

// The first word of every RTCP packet (RFC 3550 6.4.1).
struct rtcp_common {
    uint8_t flags;    // version in the two high bits, padding bit, count in the low five bits
    uint8_t pt;       // packet type
    uint16_t length;  // 32-bit words behind this one
};

// A report block of RFC 3550 6.4.1.
struct rtcp_report {
    uint32_t ssrc;
    uint32_t fraction : 8;  // of lost packets since the last report, in 256ths
    uint32_t lost : 24;     // packets lost in all
    uint32_t highest_seq;   // highest sequence number, with the count of its cycles in the high half
    uint32_t jitter;        // in units of the RTP clock
    uint32_t last_sr;
    uint32_t delay_last_sr;  // in 1/65536 seconds
    rtcp_report* next;
};

// An SDES item of RFC 3550 6.5; `text` has no final NUL.
struct rtcp_sdes_item {
    uint8_t type;
    uint8_t length;
    const uint8_t* text;
    rtcp_sdes_item* next;
};

struct rtcp_sdes_chunk {
    uint32_t ssrc;
    rtcp_sdes_item* items;
    rtcp_sdes_chunk* next;
};

struct rtcp_sr {
    uint32_t ssrc;
    uint32_t ntp_sec;
    uint32_t ntp_frac;
    uint32_t rtp_ts;
    uint32_t packet_count;
    uint32_t octet_count;
    rtcp_report* reports;
};

struct rtcp_rr {
    uint32_t ssrc;
    rtcp_report* reports;
};

struct rtcp_bye {
    uint32_t* ssrcs;  // as many as the packet's count; those that the packet doesn't reach are 0. Null for a count of 0
    uint8_t* reason;  // no final NUL; null if there is none
    uint8_t reason_length;
};

// One packet of a compound. `data` and `parse` lead to its contents, which are in the union after parse(entry) has
// given 0; a packet that has no decoder is told by its header alone.
struct rtcp_pack {
    rtcp_common common;
    const uint8_t* data;            // the payload in the buffer given to ParseData; null once decoded
    int (*parse)(rtcp_pack* pack);  // decoder of this type, or null
    union {
        rtcp_sr sr;
        rtcp_rr rr;
        rtcp_sdes_chunk sdes;  // the first chunk in place
        rtcp_bye bye;
    };
};

// What a report block without times says of a source (RFC 3550 6.4.1). The low 8 and 24 bits of the first two are sent.
struct rtcp_loss_info {
    uint32_t fraction;     // since the last report
    uint32_t lost;         // in all
    uint32_t highest_seq;  // extended
};

const unsigned int RTCP_FRACTION_MASK = 0xff;
const unsigned int RTCP_LOST_MASK = 0xffffff;
const unsigned int RTCP_WORD_LEN = 4;  // the unit of lengths

// The count of a packet: of its report blocks, SDES chunks or BYE sources.
const unsigned int RTCP_COUNT_MASK = 0x1f;
inline int RtcpCount(const rtcp_pack& pack) {
    return static_cast<int>(pack.common.flags & RTCP_COUNT_MASK);
}

const unsigned int RTCP_HEADER_SIZE = 4;
const uint8_t RTCP_NO_REASON = 255;  // a BYE's reason of this length is not kept

// Lists of records. Freeing leaves an empty list; making returns null without memory.
void RtcpFreeReports(rtcp_report*& list);
// An item and its text in one block. The text is copied; it may be null for a length of 0.
rtcp_sdes_item* RtcpMakeItem(uint8_t type, uint8_t length, const void* text);
void RtcpFreeItems(rtcp_sdes_item*& items);
// Frees the items of a chunk, and all chunks behind it.
void RtcpFreeChunks(rtcp_sdes_chunk& first);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTCPRECORDS_H
