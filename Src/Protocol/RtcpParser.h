#ifndef VIDORA_PROTOCOL_RTCPPARSER_H
#define VIDORA_PROTOCOL_RTCPPARSER_H

#include <cstdint>

#include "Protocol/RtcpRecords.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CRtcpParser: reads the RTCP of one media track and builds its own (RFC 3550).
//
// ParseData checks a compound and records its packets; their contents are decoded only when asked for:
//
//     if (parser.ParseData(bytes, &length, true)) {
//         rtcp_pack* packs = parser.get_packets(&count);
//         if (packs[0].common.pt == CRtcpParser::RTCP_TYPE_SR && packs[0].parse(&packs[0]) == 0) ... packs[0].sr ...
//
// THREADING  No lock: used by its owner's handler.
// OWNERSHIP  The table is the parser's, valid until the next ParseData or reset. Until an entry is decoded it leads
//            into the buffer that was parsed. Arguments of the building operations are copied.
// MEMORY     Decoded contents take at most some 20 times their bytes on the wire (an SDES item of no text).
class CRtcpParser {
public:
    enum {
        RTCP_TYPE_SR = 200,
        RTCP_TYPE_RR = 201,
        RTCP_TYPE_SDES = 202,
        RTCP_TYPE_BYE = 203,
    };
    static const int MAX_PACKETS = 32;  // of one compound that are recorded
    static const int MAX_COUNT = 31;    // what the count of a packet's header can say

    // `ssrc`: that of the reports that this object sends.
    explicit CRtcpParser(unsigned int ssrc);
    ~CRtcpParser();
    CRtcpParser(const CRtcpParser&) = delete;
    CRtcpParser& operator=(const CRtcpParser&) = delete;

    // Reads `*length` bytes. With `compound` the first packet must be a report, and nothing behind a BYE is looked at
    // (RFC 3550 6.1). Packets with padding are refused. What was good before the first bad packet stays in the table.
    // True if something was recorded.
    bool ParseData(const unsigned char* buffer, const unsigned int* length, bool compound);
    // The table, with its number of packets in `count` (which may be null).
    rtcp_pack* get_packets(int* count);
    // Empties the table and all that was set to be sent.
    void reset();

    // For the first block of the next RR.
    void set_report_info(const rtcp_loss_info& info);
    // For the next SR: the sender's packets and octets so far, and its RTP time stamp now.
    void set_sender_info(uint32_t packets, uint32_t octets, uint32_t timestamp);
    // The wall time of that time stamp, microseconds since 1970, for NTP time as RFC 3550 4 counts it. Without it, or
    // with 0, the seconds of now go out.
    void set_sender_time(uint64_t wall_us) { m_sender_wall_us = wall_us; }
    // Appends a report block about `ssrc`. 0, or -1 without memory or when there are 31 already.
    int add_report_block(unsigned int ssrc, const rtcp_loss_info& info);
    // Makes `block` the only one of the next reports, unchanged; null: they have none. 0, or -1 without memory.
    int set_report_block(const rtcp_report* block);
    // Sets the BYE of the own SSRC and `count` others, 0 to 31, with a reason of 0 to 254 bytes or null. A packet names
    // 31 sources at most: with `count` 31 the last one is left out. 0, or -1 for a larger count, null, or no memory.
    int set_bye(const unsigned int* ssrcs, unsigned char count, const void* reason, unsigned char reason_length);
    // Appends an item (type 1 is CNAME) to the SDES chunk of the own SSRC. 0, or -1 for null, length 0 or no memory.
    int add_sdes_item(unsigned char type, unsigned char length, const void* text);
    // Appends a copy of `item` with its items as a further SDES chunk. 0, or -1 for null, no memory, or when there are
    // 31 chunks already.
    int add_sdes_chunk(const rtcp_sdes_chunk* item);

    // Write packets of `count` types, in that order, or the usual compounds: a report, an SDES with at least a CNAME,
    // and the BYE if one is set. `*length` brings the room and takes back the bytes written. The result is `buffer`;
    // null if nothing was written, or, by the latter two, if a packet didn't fit.
    unsigned char* GetCompoundPacket(unsigned char* buffer, unsigned int* length, const int* types, int count);
    unsigned char* get_rr_compound(unsigned char* buffer, unsigned int* length);
    unsigned char* get_sr_compound(unsigned char* buffer, unsigned int* length);

private:
    typedef void (*free_func_t)(rtcp_pack* pack);
    struct type_row {
        int pt;
        int (*parse)(rtcp_pack* pack);
        free_func_t free;
        int (CRtcpParser::*prepare)();
        void (CRtcpParser::*write)(CByteWriter& writer) const;
    };
    static const type_row TYPES[];
    static const type_row* find_type(int pt);

    void record(const rtcp_common& common, const uint8_t* payload);
    void reset_table();

    static int parse_sr_pack(rtcp_pack* pack);
    static int parse_rr_pack(rtcp_pack* pack);
    static int parse_sdes_pack(rtcp_pack* pack);
    static int parse_bye_pack(rtcp_pack* pack);
    static void free_sr_pack(rtcp_pack* pack);
    static void free_rr_pack(rtcp_pack* pack);
    static void free_sdes_pack(rtcp_pack* pack);
    static void free_bye_pack(rtcp_pack* pack);
    static rtcp_pack* make_bye(int ssrc_count, uint8_t reason_length);

    // Each makes ready what its packet says. 0; 1 if there is nothing to send; -1 without memory.
    int prepare_sr();
    int prepare_rr();
    int prepare_sdes();
    int prepare_bye();
    void write_sr(CByteWriter& writer) const;
    void write_rr(CByteWriter& writer) const;
    void write_sdes(CByteWriter& writer) const;
    void write_bye(CByteWriter& writer) const;
    int write_packet(CByteWriter& writer, const type_row& row);
    unsigned char* write_usual(unsigned char* buffer, unsigned int* length, int report_type);

    rtcp_sdes_chunk* add_chunk(uint32_t ssrc);
    rtcp_sdes_chunk* own_chunk();

    uint32_t m_ssrc;
    free_func_t m_free_funcs[MAX_PACKETS];
    rtcp_pack m_packets[MAX_PACKETS];
    int m_packet_count;
    rtcp_loss_info m_report_info;
    struct SenderInfo {
        uint32_t packets;
        uint32_t octets;
        uint32_t timestamp;
    } m_sender_info;
    uint64_t m_sender_wall_us = 0;
    rtcp_report* m_report_list;
    bool m_has_whole_block = false;  // by set_report_block
    rtcp_pack* m_sdes;
    rtcp_pack* m_bye;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_RTCPPARSER_H
