// CRtcpParser: any datagram is read and decoded within its bounds; what the decoders found is written and read again.
// The first byte chooses the compound rules.
#include <cstdint>
#include <vector>

#include "Protocol/RtcpParser.h"
#include "Vidora/Ostra/Log.h"
#include "require.h"

using namespace Kavio::Vidora;

namespace {

int check_reports(const rtcp_report* list, unsigned int payload) {
    int count = 0;
    for (; list != nullptr; list = list->next) {
        ++count;
    }
    require(static_cast<unsigned int>(count) * 24 <= payload && count <= CRtcpParser::MAX_COUNT);
    return count;
}

void check_chunks(const rtcp_sdes_chunk* chunk, unsigned int payload) {
    unsigned int bytes = 0;
    for (; chunk != nullptr; chunk = chunk->next) {
        for (const rtcp_sdes_item* item = chunk->items; item != nullptr; item = item->next) {
            bytes += 2U + item->length;
            const std::vector<uint8_t> text(item->text, item->text + item->length);  // all of it is there
            require(text.size() == item->length);
        }
    }
    require(bytes <= payload);
}

void decode(rtcp_pack& pack, CRtcpParser& mirror) {
    const unsigned int payload = pack.common.length * 4U;
    const int count = pack.common.flags & 31;
    if (pack.parse == nullptr) {
        require(pack.common.pt > CRtcpParser::RTCP_TYPE_BYE);
        return;
    }
    const int result = pack.parse(&pack);
    require(pack.data == nullptr && pack.parse(&pack) == -1);
    switch (pack.common.pt) {
        case CRtcpParser::RTCP_TYPE_SR:
            require((check_reports(pack.sr.reports, payload) == count && payload >= 24) == (result == 0));
            break;
        case CRtcpParser::RTCP_TYPE_RR:
            require((check_reports(pack.rr.reports, payload) == count && payload >= 4) == (result == 0));
            break;
        case CRtcpParser::RTCP_TYPE_SDES:
            require(result == 0);
            check_chunks(&pack.sdes, payload);
            for (const rtcp_sdes_chunk* chunk = &pack.sdes; chunk != nullptr; chunk = chunk->next) {
                mirror.add_sdes_chunk(chunk);
            }
            break;
        default:
            require(result == 0 && (pack.bye.ssrcs != nullptr) == (count > 0));
            require(pack.bye.reason_length <= payload);
            mirror.set_bye(pack.bye.ssrcs, static_cast<unsigned char>(count), pack.bye.reason, pack.bye.reason_length);
            break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Kavio::Ostra::SetLogLevel(Kavio::Ostra::LOG_LEVEL_NONE);
    if (size < 1) {
        return 0;
    }
    // A block of exactly the datagram's size, so that a byte too far is seen.
    const std::vector<uint8_t> bytes(data + 1, data + size);
    const unsigned int length = static_cast<unsigned int>(bytes.size());
    CRtcpParser parser(1);
    CRtcpParser mirror(2);
    const bool good = parser.ParseData(bytes.data(), &length, (data[0] & 1) != 0);
    int count = 0;
    rtcp_pack* packs = parser.get_packets(&count);
    require(good == (count > 0) && count <= CRtcpParser::MAX_PACKETS);
    for (int i = 0; i < count; ++i) {
        decode(packs[i], mirror);
    }

    for (const unsigned int room : {65536U, 100U, length}) {
        std::vector<uint8_t> out(room);
        unsigned int written = room;
        if (mirror.get_sr_compound(out.data(), &written) == nullptr) {
            continue;
        }
        require(written <= room && written % 4 == 0);
        CRtcpParser reader(3);
        require(reader.ParseData(out.data(), &written, true));
        packs = reader.get_packets(&count);
        require(count == 2 || count == 3);
        for (int i = 0; i < count; ++i) {
            require(packs[i].parse(&packs[i]) == 0);
        }
        require(count == 2 || packs[2].bye.ssrcs[0] == 2);
    }
    return 0;
}
