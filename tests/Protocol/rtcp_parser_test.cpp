#include <gtest/gtest.h>

#include "Protocol/RtcpParser.h"
#include "support/Capture.h"
#include "support/SampleTable.h"
#include "support/StreamBytes.h"

namespace Kavio::Support {
namespace {

const char TABLES[] = VIDORA_TEST_DATA "/rtcp.txt";

// A parser, and the bytes that its table leads into.
struct Parsed {
    explicit Parsed(const std::string& hex, bool compound = true) : bytes(FromHex(hex)) {
        const unsigned int length = static_cast<unsigned int>(bytes.size());
        good = parser.ParseData(bytes.data(), &length, compound);
        packs = parser.get_packets(&count);
    }

    Bytes bytes;
    CRtcpParser parser{1};
    bool good = false;
    int count = 0;
    rtcp_pack* packs = nullptr;
};

void put_reports(std::ostringstream& out, const rtcp_report* list) {
    for (; list != nullptr; list = list->next) {
        out << " [" << list->ssrc << ' ' << list->fraction << ' ' << list->lost << ' ' << list->highest_seq << ' '
            << list->jitter << ' ' << list->last_sr << ' ' << list->delay_last_sr << ']';
    }
}

// What the packet's decoder gives and finds, in hexadecimal.
std::string decoded(rtcp_pack& pack) {
    std::ostringstream out;
    out << std::hex << (pack.parse(&pack) == 0 ? "0" : "-1");
    if (pack.common.pt == CRtcpParser::RTCP_TYPE_SR) {
        out << " SR " << pack.sr.ssrc << ' ' << pack.sr.ntp_sec << ' ' << pack.sr.ntp_frac << ' ' << pack.sr.rtp_ts
            << ' ' << pack.sr.packet_count << ' ' << pack.sr.octet_count;
        put_reports(out, pack.sr.reports);
    } else if (pack.common.pt == CRtcpParser::RTCP_TYPE_RR) {
        out << " RR " << pack.rr.ssrc;
        put_reports(out, pack.rr.reports);
    } else if (pack.common.pt == CRtcpParser::RTCP_TYPE_SDES) {
        for (const rtcp_sdes_chunk* chunk = &pack.sdes; chunk != nullptr; chunk = chunk->next) {
            out << " SDES " << chunk->ssrc;
            for (const rtcp_sdes_item* item = chunk->items; item != nullptr; item = item->next) {
                out << " [" << int{item->type} << ' ' << std::string(item->text, item->text + item->length) << ']';
            }
        }
    } else {
        out << " BYE";
        for (int i = 0; pack.bye.ssrcs != nullptr && i < (pack.common.flags & 31); ++i) {
            out << ' ' << pack.bye.ssrcs[i];
        }
        out << " [" << std::string(pack.bye.reason, pack.bye.reason + pack.bye.reason_length) << ']';
    }
    EXPECT_EQ(pack.data, nullptr);
    EXPECT_EQ(pack.parse(&pack), -1);  // once only
    return out.str();
}

// What the object writes for the given types, in hexadecimal; "-" for null.
std::string written(CRtcpParser& parser, const std::vector<int>& types, unsigned int room = 1024) {
    Bytes buffer(room);
    const int count = static_cast<int>(types.size());
    const bool done = parser.GetCompoundPacket(buffer.data(), &room, types.data(), count) != nullptr;
    return done ? ToHex(Part(buffer, 0, room)) : "-";
}

TEST(RtcpParser, RecordsWhatIsGoodInFrontOfTheFirstFault) {
    for (const auto& row : ReadTable(TABLES, "faults", 4)) {
        SCOPED_TRACE(row[0]);
        const CLogCapture log;
        const Parsed parsed(row[0], row[1] == "compound");
        EXPECT_EQ(std::to_string(parsed.count), row[2]);
        EXPECT_EQ(parsed.good, row[2] != "0");
        EXPECT_EQ(log.Lines().size(), row[3].empty() ? 0U : 1U);
        EXPECT_EQ(log.Count(row[3]), row[3].empty() ? 0 : 1);
    }
    CRtcpParser parser(1);
    const unsigned int length = 8;
    EXPECT_FALSE(parser.ParseData(nullptr, &length, true));
    EXPECT_EQ(Parsed("80c9000100000001 81cc000100000001").packs[1].parse, nullptr);
}

TEST(RtcpParser, DecodersStayInsideTheirPacket) {
    for (const auto& row : ReadTable(TABLES, "decoded", 2)) {
        SCOPED_TRACE(row[0]);
        Parsed parsed(row[0], false);
        std::string all;
        for (int i = 0; i < parsed.count; ++i) {
            all += (i > 0 ? ", " : "") + decoded(parsed.packs[i]);
        }
        EXPECT_EQ(all, row[1]);
    }
    Parsed wrong("80c9000100000001");
    wrong.packs[0].common.pt = CRtcpParser::RTCP_TYPE_SR;
    const CAssertCapture asserts;
    EXPECT_EQ(wrong.packs[0].parse(&wrong.packs[0]), -1);
    EXPECT_EQ(asserts.Texts().size(), 1U);
}

TEST(RtcpParser, WritesPacketsInTheOrderOfTheirTypes) {
    const std::string cname = "81ca000411223344010750726976617465000000";
    CRtcpParser parser(0x11223344);
    parser.set_report_info({0x102, 0x3000004, 5});
    // An RR without any block goes out with one for the own SSRC. The low 8 and 24 bits of the numbers are sent.
    EXPECT_EQ(written(parser, {201}), "81c9000711223344112233440200000400000005000000000000000000000000");
    EXPECT_EQ(parser.add_report_block(0x55, {1, 0xffffffff, 7}), 0);
    parser.set_report_info({9, 8, 7});
    EXPECT_EQ(written(parser, {201}),
              "82c9000d11223344112233440900000800000007000000000000000000000000"
              "0000005501ffffff00000007000000000000000000000000");
    EXPECT_EQ(written(parser, {202, 203}), cname);  // nothing for a BYE that isn't set
    {
        const CLogCapture log;
        EXPECT_EQ(written(parser, {203, 204}), "-");
        EXPECT_EQ(log.Count(":GetCompoundPacket unknow type!\n"), 1);
    }
    EXPECT_EQ(parser.set_bye(nullptr, 0, nullptr, 3), 0);
    EXPECT_EQ(written(parser, {203}), "81cb00021122334400000000");
    const unsigned int others[32] = {0xaa, 0xbb};
    EXPECT_EQ(parser.set_bye(others, 2, "End", 3), 0);
    EXPECT_EQ(parser.set_bye(others, 32, nullptr, 0), -1);
    EXPECT_EQ(parser.set_bye(nullptr, 1, nullptr, 0), -1);
    EXPECT_EQ(written(parser, {203, 202}), "83cb000411223344000000aa000000bb03456e64" + cname);
    EXPECT_EQ(parser.set_bye(others, 31, "x", 255), 0);  // 32 sources don't fit the header's count
    EXPECT_EQ(written(parser, {203}).substr(0, 16), "9fcb002011223344");
    // A further chunk follows without a gap: only the packet's end is padded.
    rtcp_sdes_item item = {2, 1, reinterpret_cast<const uint8_t*>("x"), nullptr};
    const rtcp_sdes_chunk chunk = {0x55667788, &item, nullptr};
    EXPECT_EQ(parser.add_sdes_chunk(&chunk), 0);
    EXPECT_EQ(parser.add_sdes_chunk(nullptr), -1);
    EXPECT_EQ(written(parser, {202}), "82ca0006112233440107507269766174650055667788020178000000");
    parser.reset();
    EXPECT_EQ(written(parser, {203}), "-");
    EXPECT_EQ(written(parser, {201}).substr(0, 32), "81c90007112233441122334400000000");
}

TEST(RtcpParser, WritesNothingThatDoesNotFit) {
    CRtcpParser parser(1);
    parser.set_sender_info(10, 2000, 30);
    ASSERT_EQ(parser.add_sdes_item(1, 3, "abc"), 0);
    EXPECT_EQ(parser.add_sdes_item(1, 0, "abc"), -1);
    EXPECT_EQ(parser.add_sdes_item(1, 3, nullptr), -1);
    ASSERT_EQ(parser.set_bye(nullptr, 0, "End of Stream", 13), 0);
    uint8_t buffer[128];
    unsigned int needed = sizeof(buffer);
    ASSERT_EQ(parser.get_sr_compound(buffer, &needed), buffer);
    EXPECT_EQ(needed, 28U + 16 + 24);
    for (unsigned int room = 0; room < needed; ++room) {  // whole packets only
        unsigned int length = room;
        EXPECT_EQ(parser.get_sr_compound(buffer, &length), nullptr) << room;
        const size_t whole = room < 28 ? 0 : room < 44 ? 28 : 44;
        EXPECT_EQ(written(parser, {200, 202, 203}, room).size(), whole == 0 ? 1 : whole * 2) << room;
    }
    for (int i = 0; i < CRtcpParser::MAX_COUNT; ++i) {
        EXPECT_EQ(parser.add_report_block(2, {10, 2000, 30}), 0);
    }
    EXPECT_EQ(parser.add_report_block(2, {10, 2000, 30}), -1);
    unsigned int length = sizeof(buffer);
    EXPECT_EQ(parser.get_rr_compound(nullptr, &length), nullptr);
    const int types[] = {CRtcpParser::RTCP_TYPE_RR};
    EXPECT_EQ(parser.GetCompoundPacket(buffer, &length, types, -1), nullptr);
    EXPECT_EQ(parser.GetCompoundPacket(buffer, &length, nullptr, 0), nullptr);
}

}  // namespace
}  // namespace Kavio::Support
