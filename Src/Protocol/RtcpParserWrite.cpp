#include <cstring>
#include <new>

#include "Ostra/NtpTime.h"
#include "Protocol/RtcpParser.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint8_t VERSION_FLAGS = 0x80;                      // version 2, no padding
const size_t MAX_PACKET_SIZE = 0x10000 * RTCP_WORD_LEN;  // what the length field can say
const uint64_t US_PER_SECOND = 1000000;
const uint8_t SDES_CNAME = 1;  // RFC 3550 6.5.1
const char DEFAULT_CNAME[] = "Private";

void apply_info(rtcp_report& block, const rtcp_loss_info& info) {
    block.fraction = info.fraction & RTCP_FRACTION_MASK;
    block.lost = info.lost & RTCP_LOST_MASK;
    block.highest_seq = info.highest_seq;
}

int count_reports(const rtcp_report* list) {
    int count = 0;
    for (; list != nullptr; list = list->next) {
        ++count;
    }
    return count;
}

// A packet that is kept to be sent.
rtcp_pack* make_pack(int pt) {
    rtcp_pack* pack = new (std::nothrow) rtcp_pack();
    if (pack != nullptr) {
        pack->common.flags = VERSION_FLAGS;
        pack->common.pt = static_cast<uint8_t>(pt);
    }
    return pack;
}

}  // namespace

// A BYE with room for that many SSRCs and for a reason of that length; null without memory.
rtcp_pack* CRtcpParser::make_bye(int ssrc_count, uint8_t reason_length) {
    rtcp_pack* pack = make_pack(RTCP_TYPE_BYE);
    if (pack == nullptr) {
        return nullptr;
    }
    pack->common.flags = static_cast<uint8_t>(VERSION_FLAGS | ssrc_count);
    pack->bye.ssrcs = new (std::nothrow) uint32_t[static_cast<size_t>(ssrc_count)];
    pack->bye.reason = new (std::nothrow) uint8_t[size_t{reason_length} + 1];
    pack->bye.reason_length = reason_length;
    if (pack->bye.ssrcs == nullptr || pack->bye.reason == nullptr) {
        free_bye_pack(pack);
        delete pack;
        return nullptr;
    }
    return pack;
}

void CRtcpParser::reset() {
    reset_table();
    RtcpFreeReports(m_report_list);
    m_has_whole_block = false;
    if (m_sdes != nullptr) {
        free_sdes_pack(m_sdes);
    }
    if (m_bye != nullptr) {
        free_bye_pack(m_bye);
    }
    delete m_sdes;
    delete m_bye;
    m_sdes = nullptr;
    m_bye = nullptr;
    m_report_info = {};
    m_sender_info = {};
}

void CRtcpParser::set_report_info(const rtcp_loss_info& info) {
    m_report_info = info;
}

void CRtcpParser::set_sender_info(uint32_t packets, uint32_t octets, uint32_t timestamp) {
    m_sender_info = {packets, octets, timestamp};
}

int CRtcpParser::add_report_block(unsigned int ssrc, const rtcp_loss_info& info) {
    if (count_reports(m_report_list) >= MAX_COUNT) {
        return -1;
    }
    rtcp_report* block = new (std::nothrow) rtcp_report();
    if (block == nullptr) {
        return -1;
    }
    block->ssrc = ssrc;
    apply_info(*block, info);
    rtcp_report** place = &m_report_list;
    while (*place != nullptr) {
        place = &(*place)->next;
    }
    *place = block;
    return 0;
}

int CRtcpParser::set_report_block(const rtcp_report* block) {
    RtcpFreeReports(m_report_list);
    m_has_whole_block = true;
    if (block == nullptr) {
        return 0;
    }
    m_report_list = new (std::nothrow) rtcp_report(*block);
    if (m_report_list == nullptr) {
        return -1;
    }
    m_report_list->next = nullptr;
    return 0;
}

int CRtcpParser::set_bye(const unsigned int* ssrcs, unsigned char count, const void* reason,
                         unsigned char reason_length) {
    if (count > MAX_COUNT || (ssrcs == nullptr && count > 0)) {
        return -1;
    }
    // 31 others and the own SSRC would be one more than the header's five bits can count.
    const int total = count < MAX_COUNT ? count + 1 : MAX_COUNT;
    const uint8_t kept = reason != nullptr && reason_length != RTCP_NO_REASON ? reason_length : uint8_t{0};
    rtcp_pack* pack = make_bye(total, kept);
    if (pack == nullptr) {
        return -1;
    }
    pack->bye.ssrcs[0] = m_ssrc;
    for (int i = 1; i < total; ++i) {
        pack->bye.ssrcs[i] = ssrcs[i - 1];
    }
    if (kept > 0) {
        std::memcpy(pack->bye.reason, reason, kept);
    }
    if (m_bye != nullptr) {
        free_bye_pack(m_bye);
        delete m_bye;
    }
    m_bye = pack;
    return 0;
}

// A further chunk of the SDES that is sent; null without memory or when it is full.
rtcp_sdes_chunk* CRtcpParser::add_chunk(uint32_t ssrc) {
    const bool is_first = m_sdes == nullptr;
    if (is_first) {
        m_sdes = make_pack(RTCP_TYPE_SDES);
    }
    if (m_sdes == nullptr || RtcpCount(*m_sdes) >= MAX_COUNT) {
        return nullptr;
    }
    rtcp_sdes_chunk* chunk = &m_sdes->sdes;
    if (!is_first) {
        while (chunk->next != nullptr) {
            chunk = chunk->next;
        }
        chunk->next = new (std::nothrow) rtcp_sdes_chunk();
        chunk = chunk->next;
    }
    if (chunk != nullptr) {
        chunk->ssrc = ssrc;
        ++m_sdes->common.flags;
    }
    return chunk;
}

rtcp_sdes_chunk* CRtcpParser::own_chunk() {
    for (rtcp_sdes_chunk* chunk = m_sdes != nullptr ? &m_sdes->sdes : nullptr; chunk != nullptr; chunk = chunk->next) {
        if (chunk->ssrc == m_ssrc) {
            return chunk;
        }
    }
    return add_chunk(m_ssrc);
}

namespace {

// Appends a copy of the item. False without memory.
bool add_item(rtcp_sdes_chunk& chunk, uint8_t type, uint8_t length, const void* text) {
    rtcp_sdes_item** place = &chunk.items;
    while (*place != nullptr) {
        place = &(*place)->next;
    }
    *place = RtcpMakeItem(type, length, text);
    return *place != nullptr;
}

}  // namespace

int CRtcpParser::add_sdes_item(unsigned char type, unsigned char length, const void* text) {
    if (text == nullptr || length == 0) {
        return -1;
    }
    rtcp_sdes_chunk* chunk = own_chunk();
    return chunk != nullptr && add_item(*chunk, type, length, text) ? 0 : -1;
}

int CRtcpParser::add_sdes_chunk(const rtcp_sdes_chunk* item) {
    rtcp_sdes_chunk* chunk = item != nullptr ? add_chunk(item->ssrc) : nullptr;
    if (chunk == nullptr) {
        return -1;
    }
    for (const rtcp_sdes_item* from = item->items; from != nullptr; from = from->next) {
        if ((from->text == nullptr && from->length > 0) || !add_item(*chunk, from->type, from->length, from->text)) {
            return -1;
        }
    }
    return 0;
}

unsigned char* CRtcpParser::GetCompoundPacket(unsigned char* buffer, unsigned int* length, const int* types,
                                              int count) {
    if (buffer == nullptr || length == nullptr || types == nullptr || count < 0 || *length < RTCP_HEADER_SIZE) {
        return nullptr;
    }
    CByteWriter writer(buffer, *length);
    for (int i = 0; i < count; ++i) {
        const type_row* row = find_type(types[i]);
        if (row == nullptr) {
            logWarn("%s:%d:%s unknow type!\n", __FILE__, __LINE__, __func__);
        } else if (write_packet(writer, *row) < 0) {
            break;
        }
    }
    *length = static_cast<unsigned int>(writer.Offset());
    return *length > 0 ? buffer : nullptr;
}

unsigned char* CRtcpParser::get_rr_compound(unsigned char* buffer, unsigned int* length) {
    return write_usual(buffer, length, RTCP_TYPE_RR);
}

unsigned char* CRtcpParser::get_sr_compound(unsigned char* buffer, unsigned int* length) {
    return write_usual(buffer, length, RTCP_TYPE_SR);
}

unsigned char* CRtcpParser::write_usual(unsigned char* buffer, unsigned int* length, int report_type) {
    if (buffer == nullptr || length == nullptr || *length < RTCP_HEADER_SIZE) {
        return nullptr;
    }
    CByteWriter writer(buffer, *length);
    *length = 0;
    for (const int type : {report_type, static_cast<int>(RTCP_TYPE_SDES), static_cast<int>(RTCP_TYPE_BYE)}) {
        if (write_packet(writer, *find_type(type)) < 0) {
            return nullptr;
        }
    }
    *length = static_cast<unsigned int>(writer.Offset());
    return buffer;
}

// Writes the packet whole or not at all.
int CRtcpParser::write_packet(CByteWriter& writer, const type_row& row) {
    const int prepared = (this->*row.prepare)();
    if (prepared != 0) {
        return prepared < 0 ? -1 : 0;
    }
    CByteWriter counter(nullptr, 0);
    (this->*row.write)(counter);
    if (counter.Offset() > writer.Remaining() || counter.Offset() > MAX_PACKET_SIZE) {
        return -1;
    }
    (this->*row.write)(writer);
    return 0;
}

int CRtcpParser::prepare_sr() {
    return 0;
}

int CRtcpParser::prepare_rr() {
    if (m_has_whole_block) {
        return 0;
    }
    if (m_report_list == nullptr) {
        return add_report_block(m_ssrc, m_report_info);
    }
    apply_info(*m_report_list, m_report_info);
    return 0;
}

int CRtcpParser::prepare_sdes() {
    if (m_sdes != nullptr) {
        return 0;
    }
    return add_sdes_item(SDES_CNAME, static_cast<unsigned char>(std::strlen(DEFAULT_CNAME)), DEFAULT_CNAME);
}

int CRtcpParser::prepare_bye() {
    return m_bye != nullptr ? 0 : 1;
}

namespace {

// Writes the header with a length to be filled in, and returns its place.
size_t begin_packet(CByteWriter& writer, int pt, int count) {
    const size_t start = writer.Offset();
    writer.WriteU8(static_cast<uint8_t>(VERSION_FLAGS | count));
    writer.WriteU8(static_cast<uint8_t>(pt));
    writer.WriteU16(0);
    return start;
}

// Pads to a 32-bit boundary and fills the length in: 32-bit words without the first one.
void end_packet(CByteWriter& writer, size_t start) {
    writer.Fill(0, (RTCP_WORD_LEN - (writer.Offset() - start) % RTCP_WORD_LEN) % RTCP_WORD_LEN);
    writer.PatchU16(start + 2, static_cast<uint16_t>((writer.Offset() - start) / RTCP_WORD_LEN - 1));
}

void write_reports(CByteWriter& writer, const rtcp_report* list) {
    for (; list != nullptr; list = list->next) {
        writer.WriteU32(list->ssrc);
        writer.WriteU8(static_cast<uint8_t>(list->fraction));
        writer.WriteU24(list->lost);
        writer.WriteU32(list->highest_seq);
        writer.WriteU32(list->jitter);
        writer.WriteU32(list->last_sr);
        writer.WriteU32(list->delay_last_sr);
    }
}

}  // namespace

void CRtcpParser::write_sr(CByteWriter& writer) const {
    const size_t start = begin_packet(writer, RTCP_TYPE_SR, count_reports(m_report_list));
    writer.WriteU32(m_ssrc);
    if (m_sender_wall_us != 0) {
        writer.WriteU32(static_cast<uint32_t>(m_sender_wall_us / US_PER_SECOND + Ostra::NTP_TO_UNIX_SECONDS));
        writer.WriteU32(static_cast<uint32_t>(((m_sender_wall_us % US_PER_SECOND) << 32) / US_PER_SECOND));
    } else {
        // RFC 3550 4 counts NTP time from 1900. Receivers of this system take these seconds as they are, from 1970 and
        // without a fraction, so they stay so.
        writer.WriteU32(static_cast<uint32_t>(CTime::getCurrentTime().makeTime()));
        writer.WriteU32(0);
    }
    writer.WriteU32(m_sender_info.timestamp);
    writer.WriteU32(m_sender_info.packets);
    writer.WriteU32(m_sender_info.octets);
    write_reports(writer, m_report_list);
    end_packet(writer, start);
}

void CRtcpParser::write_rr(CByteWriter& writer) const {
    const size_t start = begin_packet(writer, RTCP_TYPE_RR, count_reports(m_report_list));
    writer.WriteU32(m_ssrc);
    write_reports(writer, m_report_list);
    end_packet(writer, start);
}

// RFC 3550 6.5 pads each chunk to a 32-bit boundary; here only the packet's end is padded, so a chunk behind one whose
// items don't end on a boundary is not where other receivers look for it. The own chunk, which is all that is sent
// today, comes first.
void CRtcpParser::write_sdes(CByteWriter& writer) const {
    const size_t start = begin_packet(writer, RTCP_TYPE_SDES, RtcpCount(*m_sdes));
    for (const rtcp_sdes_chunk* chunk = &m_sdes->sdes; chunk != nullptr; chunk = chunk->next) {
        writer.WriteU32(chunk->ssrc);
        for (const rtcp_sdes_item* item = chunk->items; item != nullptr; item = item->next) {
            writer.WriteU8(item->type);
            writer.WriteU8(item->length);
            writer.WriteBytes(item->text, item->length);
        }
        writer.WriteU8(0);
    }
    end_packet(writer, start);
}

// The length byte of the reason is written without a reason as well.
void CRtcpParser::write_bye(CByteWriter& writer) const {
    const size_t start = begin_packet(writer, RTCP_TYPE_BYE, RtcpCount(*m_bye));
    for (int i = 0; i < RtcpCount(*m_bye); ++i) {
        writer.WriteU32(m_bye->bye.ssrcs[i]);
    }
    writer.WriteU8(m_bye->bye.reason_length);
    writer.WriteBytes(m_bye->bye.reason, m_bye->bye.reason_length);
    end_packet(writer, start);
}

}  // namespace Vidora
}  // namespace Kavio
