// CRtcpParser: any datagram is read and decoded within its bounds; what the decoders found is written and read again.
// The first byte chooses the compound rules.
#include <vector>

#include "FuzzSupport.h"
#include "Protocol/RtcpParser.h"

using namespace Kavio::Vidora;

namespace {

int count_of(const rtcp_report* list) {
    int count = 0;
    for (; list != nullptr; list = list->next) {
        ++count;
    }
    return count;
}

// Bytes of all items, each of which is read to its end.
unsigned int size_of(const rtcp_sdes_chunk* chunk) {
    unsigned int bytes = 0;
    for (; chunk != nullptr; chunk = chunk->next) {
        for (const rtcp_sdes_item* item = chunk->items; item != nullptr; item = item->next) {
            bytes += 2 + static_cast<unsigned int>(Fuzz::Bytes(item->text, item->text + item->length).size());
        }
    }
    return bytes;
}

void decode(rtcp_pack& pack, CRtcpParser& mirror) {
    const unsigned int payload = pack.common.length * 4U;
    const int count = pack.common.flags & 31;
    if (pack.parse == nullptr) {
        Fuzz::Require(pack.common.pt > CRtcpParser::RTCP_TYPE_BYE);
        return;
    }
    const bool whole = pack.parse(&pack) == 0;
    Fuzz::Require(pack.data == nullptr && pack.parse(&pack) == -1);
    if (pack.common.pt == CRtcpParser::RTCP_TYPE_SR || pack.common.pt == CRtcpParser::RTCP_TYPE_RR) {
        const bool sr = pack.common.pt == CRtcpParser::RTCP_TYPE_SR;
        const int reports = count_of(sr ? pack.sr.reports : pack.rr.reports);
        Fuzz::Require(static_cast<unsigned int>(reports) * 24 <= payload);
        Fuzz::Require((reports == count && payload >= (sr ? 24 : 4)) == whole);
    } else if (pack.common.pt == CRtcpParser::RTCP_TYPE_SDES) {
        Fuzz::Require(whole && size_of(&pack.sdes) <= payload);
        for (const rtcp_sdes_chunk* chunk = &pack.sdes; chunk != nullptr; chunk = chunk->next) {
            mirror.add_sdes_chunk(chunk);
        }
    } else {
        Fuzz::Require(whole && (pack.bye.ssrcs != nullptr) == (count > 0) && pack.bye.reason_length <= payload);
        mirror.set_bye(pack.bye.ssrcs, static_cast<unsigned char>(count), pack.bye.reason, pack.bye.reason_length);
    }
}

void write_and_read(CRtcpParser& mirror, unsigned int room) {
    Fuzz::Bytes out(room);
    unsigned int written = room;
    if (mirror.get_sr_compound(out.data(), &written) == nullptr) {
        return;
    }
    Fuzz::Require(written <= room && written % 4 == 0);
    CRtcpParser reader(3);
    Fuzz::Require(reader.ParseData(out.data(), &written, true));
    int count = 0;
    rtcp_pack* packs = reader.get_packets(&count);
    Fuzz::Require(count == 2 || count == 3);
    for (int i = 0; i < count; ++i) {
        Fuzz::Require(packs[i].parse(&packs[i]) == 0);
    }
    Fuzz::Require(count == 2 || packs[2].bye.ssrcs[0] == 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    if (size < 1) {
        return 0;
    }
    // A block of exactly the datagram's size, so that a byte too far is seen.
    const Fuzz::Bytes bytes(data + 1, data + size);
    const unsigned int length = static_cast<unsigned int>(bytes.size());
    CRtcpParser parser(1);
    CRtcpParser mirror(2);
    const bool good = parser.ParseData(bytes.data(), &length, (data[0] & 1) != 0);
    int count = 0;
    rtcp_pack* packs = parser.get_packets(&count);
    Fuzz::Require(good == (count > 0) && count <= CRtcpParser::MAX_PACKETS);
    for (int i = 0; i < count; ++i) {
        decode(packs[i], mirror);
    }
    for (const unsigned int room : {65536U, 100U, length}) {
        write_and_read(mirror, room);
    }
    return 0;
}
