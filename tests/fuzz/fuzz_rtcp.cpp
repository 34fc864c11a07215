// CRtcpParser: any datagram is read and decoded within its bounds; what the decoders found is written and read again.
// The first byte chooses the compound rules.
#include "FuzzSupport.h"
#include "Protocol/RtcpParser.h"

using namespace Kavio::Vidora;
using Fuzz::Require;

namespace {

// Reads all that a decoder found, to its end, and takes what is to be written again.
void decode(rtcp_pack& pack, CRtcpParser& mirror) {
    if (pack.parse == nullptr) {
        Require(pack.common.pt > CRtcpParser::RTCP_TYPE_BYE);
        return;
    }
    const bool whole = pack.parse(&pack) == 0;
    const bool is_sr = pack.common.pt == CRtcpParser::RTCP_TYPE_SR;
    size_t read = 0;
    if (is_sr || pack.common.pt == CRtcpParser::RTCP_TYPE_RR) {
        for (const rtcp_report* list = is_sr ? pack.sr.reports : pack.rr.reports; list != nullptr; list = list->next) {
            read += 24;
        }
    } else if (pack.common.pt == CRtcpParser::RTCP_TYPE_SDES) {
        for (const rtcp_sdes_chunk* chunk = &pack.sdes; chunk != nullptr; chunk = chunk->next) {
            for (const rtcp_sdes_item* item = chunk->items; item != nullptr; item = item->next) {
                read += 2 + Fuzz::Bytes(item->text, item->text + item->length).size();
            }
            mirror.add_sdes_chunk(chunk);
        }
    } else {
        const unsigned char count = pack.common.flags & 31;
        Require(whole && (pack.bye.ssrcs != nullptr) == (count > 0));
        read = pack.bye.reason_length;
        mirror.set_bye(pack.bye.ssrcs, count, pack.bye.reason, pack.bye.reason_length);
    }
    Require(read <= pack.common.length * 4U);
}

void write_and_read(CRtcpParser& mirror, unsigned int room) {
    Fuzz::Bytes out(room);
    unsigned int written = room;
    if (mirror.get_sr_compound(out.data(), &written) == nullptr) {
        return;
    }
    Require(written <= room && written % 4 == 0);
    CRtcpParser reader(3);
    Require(reader.ParseData(out.data(), &written, true));
    int count = 0;
    rtcp_pack* packs = reader.get_packets(&count);
    Require(count == 2 || count == 3);
    for (int i = 0; i < count; ++i) {
        Require(packs[i].parse(&packs[i]) == 0);
    }
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    Ostra::CByteReader input(data, size);
    const bool compound = (input.ReadU8() & 1) != 0;
    const unsigned int length = static_cast<unsigned int>(input.Remaining());
    CRtcpParser parser(1);
    CRtcpParser mirror(2);
    const bool good = parser.ParseData(input.Rest(), &length, compound);
    int count = 0;
    rtcp_pack* packs = parser.get_packets(&count);
    Require(good == (count > 0) && count <= CRtcpParser::MAX_PACKETS);
    for (int i = 0; i < count; ++i) {
        decode(packs[i], mirror);
    }
    for (const unsigned int room : {65536U, 100U, length}) {
        write_and_read(mirror, room);
    }
}
