#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "Protocol/RtcpParser.h"
#include "support/Capture.h"

using namespace Kavio::Vidora;
using Kavio::Support::CAssertCapture;
using Kavio::Support::CLogCapture;

namespace {

std::vector<uint8_t> from_hex(const std::string& hex) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

std::string to_hex(const uint8_t* bytes, size_t size) {
    std::string hex;
    for (size_t i = 0; i < size; ++i) {
        char byte[3];
        std::snprintf(byte, sizeof(byte), "%02x", static_cast<unsigned>(bytes[i]));
        hex += byte;
    }
    return hex;
}

// A parser, and the bytes that its table leads into.
struct parsed_t {
    explicit parsed_t(const std::string& hex, bool compound = true) : bytes(from_hex(hex)) {
        const unsigned int length = static_cast<unsigned int>(bytes.size());
        good = parser.ParseData(bytes.data(), &length, compound);
        packs = parser.get_packets(&count);
    }

    std::vector<uint8_t> bytes;
    CRtcpParser parser{1};
    bool good = false;
    int count = 0;
    rtcp_pack* packs = nullptr;
};

std::string text_of(const rtcp_sdes_item* item) {
    return std::to_string(item->type) + " " + std::string(reinterpret_cast<const char*>(item->text), item->length);
}

// What the object writes for the given types, in hexadecimal; "-" for null.
std::string written(CRtcpParser& parser, const std::vector<int>& types, unsigned int room = 1024) {
    std::vector<uint8_t> buffer(room);
    unsigned char* result =
        parser.GetCompoundPacket(buffer.data(), &room, types.data(), static_cast<int>(types.size()));
    return result != nullptr ? to_hex(result, room) : "-";
}

}  // namespace

// Sent by GStreamer's rtpbin: a receiver report, and the last report of a sender.
TEST(RtcpParser, DecodesReportsOfAnotherImplementation) {
    parsed_t rr(
        "81c90007b78ff88c4019e96a00ffffff000017f200000005cc9e3abf0000386481ca000cb78ff88c011c75736572323531373430373132"
        "3140686f73742d636538613161343506094753747265616d6572000000");
    ASSERT_TRUE(rr.good);
    ASSERT_EQ(rr.count, 2);
    ASSERT_EQ(rr.packs[0].parse(&rr.packs[0]), 0);
    EXPECT_EQ(rr.packs[0].rr.ssrc, 0xb78ff88cU);
    const rtcp_report* report = rr.packs[0].rr.reports;
    ASSERT_NE(report, nullptr);
    EXPECT_EQ(report->ssrc, 0x4019e96aU);
    EXPECT_EQ(report->fraction, 0U);
    EXPECT_EQ(report->lost, 0xffffffU);
    EXPECT_EQ(report->highest_seq, 0x17f2U);
    EXPECT_EQ(report->jitter, 5U);
    EXPECT_EQ(report->last_sr, 0xcc9e3abfU);
    EXPECT_EQ(report->delay_last_sr, 0x3864U);
    EXPECT_EQ(report->next, nullptr);
    ASSERT_EQ(rr.packs[1].parse(&rr.packs[1]), 0);
    EXPECT_EQ(rr.packs[1].sdes.ssrc, 0xb78ff88cU);
    EXPECT_EQ(text_of(rr.packs[1].sdes.items), "1 user2517407121@host-ce8a1a45");
    EXPECT_EQ(text_of(rr.packs[1].sdes.items->next), "6 GStreamer");
    EXPECT_EQ(rr.packs[1].sdes.items->next->next, nullptr);
    EXPECT_EQ(rr.packs[1].sdes.next, nullptr);

    parsed_t bye(
        "80c800064019e96aeeabcca54478316a982e7d41000000700001c00081ca000c4019e96a011c75736572313235313631393436"
        "3440686f73742d373339633039323206094753747265616d657200000081cb00014019e96a");
    ASSERT_TRUE(bye.good);
    ASSERT_EQ(bye.count, 3);
    ASSERT_EQ(bye.packs[0].parse(&bye.packs[0]), 0);
    EXPECT_EQ(bye.packs[0].sr.ntp_sec, 0xeeabcca5U);
    EXPECT_EQ(bye.packs[0].sr.ntp_frac, 0x4478316aU);
    EXPECT_EQ(bye.packs[0].sr.rtp_ts, 0x982e7d41U);
    EXPECT_EQ(bye.packs[0].sr.packet_count, 112U);
    EXPECT_EQ(bye.packs[0].sr.octet_count, 114688U);
    EXPECT_EQ(bye.packs[0].sr.reports, nullptr);
    EXPECT_EQ(bye.packs[0].data, nullptr);
    EXPECT_EQ(bye.packs[0].parse(&bye.packs[0]), -1);  // once only
    ASSERT_EQ(bye.packs[2].parse(&bye.packs[2]), 0);
    EXPECT_EQ(bye.packs[2].bye.ssrcs[0], 0x4019e96aU);
    EXPECT_EQ(bye.packs[2].bye.reason, nullptr);
}

TEST(RtcpParser, RecordsWhatIsGoodInFrontOfTheFirstFault) {
    const std::string rr = "80c9000100000001";
    const std::string bad_header = "invalid rtcp packet, checkout rtcp header failed! \n";
    std::string many;
    for (int i = 0; i < 33; ++i) {
        many += rr;
    }
    struct {
        std::string hex;
        bool compound;
        int count;
        std::string log;  // empty: no line
    } const rows[] = {
        {"", true, 0, ""},
        {"81ca000100000001" + rr, true, 0, ":ParseData invalid compound rule!\n"},
        {"81ca000100000001" + rr, false, 2, ""},
        {many, true, 32, ":ParseData compound packet is beyond max number:32! \n"},
        {rr + "81cb000100000001" + rr, true, 2, ""},  // nothing behind a BYE is looked at
        {rr + "81cb000100000001" + rr, false, 3, ""},
        {rr + "81cc000100000001", true, 2, ""},          // an application packet takes an entry
        {rr + "a0c9000100000001", true, 1, bad_header},  // padding
        {rr + "40c9000100000001", true, 1, bad_header},  // version 1
        {"8060000100000001", true, 0, bad_header},       // RTP
        {rr + "80c900", true, 1, bad_header},
        {"80c80006000000010000000200000003", true, 0, "rtcp packet length error, expect:28, actual:16!\n"},
        {rr + "80c9000200000001", true, 1, "rtcp packet length error, expect:12, actual:8!\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.hex);
        const CLogCapture log;
        const parsed_t parsed(row.hex, row.compound);
        EXPECT_EQ(parsed.count, row.count);
        EXPECT_EQ(parsed.good, row.count > 0);
        EXPECT_EQ(log.Lines().size(), row.log.empty() ? 0U : 1U);
        EXPECT_EQ(log.Count(row.log), row.log.empty() ? 0 : 1);
    }
    CRtcpParser parser(1);
    const unsigned int length = 8;
    EXPECT_FALSE(parser.ParseData(nullptr, &length, true));
    EXPECT_EQ(parsed_t(rr + "81cc000100000001").packs[1].parse, nullptr);
}

TEST(RtcpParser, DecodersStayInsideTheirPacket) {
    // A count of 2 with one block, and with half of another.
    const std::string block = "000000a1010000020000000300000004000000050000000600";
    for (const char* half : {"", "000000b1"}) {
        const std::string size = *half != '\0' ? "0d" : "0c";
        parsed_t sr("82c800" + size + "000000010000000200000003000000040000000500000006" + block.substr(0, 48) + half);
        ASSERT_TRUE(sr.good);
        EXPECT_EQ(sr.packs[0].parse(&sr.packs[0]), -1);
        ASSERT_NE(sr.packs[0].sr.reports, nullptr);
        EXPECT_EQ(sr.packs[0].sr.reports->ssrc, 0xa1U);
        EXPECT_EQ(sr.packs[0].sr.reports->next, nullptr);
    }
    parsed_t short_sr("80c80001000000ff");
    EXPECT_EQ(short_sr.packs[0].parse(&short_sr.packs[0]), -1);

    parsed_t wrong("80c9000100000001");
    wrong.packs[0].common.pt = CRtcpParser::RTCP_TYPE_SR;
    const CAssertCapture asserts;
    EXPECT_EQ(wrong.packs[0].parse(&wrong.packs[0]), -1);
    EXPECT_EQ(asserts.Texts().size(), 1U);

    struct {
        const char* hex;
        int sources;  // those that differ from 0
        const char* reason;
    } const byes[] = {
        {"82cb000400000001000000020461626364000000", 2, "abcd"},
        {"82cb0003000000010000000200616263", 2, "-"},  // length 0
        {"82cb00030000000100000002ff616263", 2, "-"},  // 255 keeps no reason
        {"82cb000300000001000000020f616263", 2, "abc"},
        {"83cb00020000000100000002", 2, "-"},
        {"80cb000103616263", 0, "abc"},
    };
    for (const auto& row : byes) {
        SCOPED_TRACE(row.hex);
        parsed_t bye(row.hex, false);
        ASSERT_TRUE(bye.good);
        ASSERT_EQ(bye.packs[0].parse(&bye.packs[0]), 0);
        const rtcp_bye& got = bye.packs[0].bye;
        EXPECT_EQ(got.ssrcs != nullptr, (bye.packs[0].common.flags & 31) > 0);
        for (int i = 0; i < (bye.packs[0].common.flags & 31); ++i) {
            EXPECT_EQ(got.ssrcs[i] != 0, i < row.sources);
        }
        EXPECT_EQ(got.reason != nullptr ? std::string(reinterpret_cast<char*>(got.reason), got.reason_length) : "-",
                  row.reason);
    }

    // Two chunks, each on a boundary; an item of no text; a second chunk that isn't there; an item that runs out.
    parsed_t chunks(
        "83ca0006"
        "00000001"
        "0103616263000000"
        "00000002"
        "0200010178000000",
        false);
    ASSERT_EQ(chunks.packs[0].parse(&chunks.packs[0]), 0);
    const rtcp_sdes_chunk& first = chunks.packs[0].sdes;
    EXPECT_EQ(text_of(first.items), "1 abc");
    ASSERT_NE(first.next, nullptr);
    EXPECT_EQ(first.next->ssrc, 2U);
    EXPECT_EQ(text_of(first.next->items), "2 ");
    EXPECT_EQ(text_of(first.next->items->next), "1 x");
    EXPECT_EQ(first.next->next, nullptr);
    parsed_t runs_out("81ca00030000000101ff616263646566", false);
    ASSERT_EQ(runs_out.packs[0].parse(&runs_out.packs[0]), 0);
    EXPECT_EQ(runs_out.packs[0].sdes.items, nullptr);
}

TEST(RtcpParser, WritesPacketsInTheOrderOfTheirTypes) {
    CRtcpParser parser(0x11223344);
    const int report[3] = {0x102, 0x3000004, 5};
    parser.set_report_info(report);
    parser.set_report_info(nullptr);
    // An RR without any block goes out with one for the own SSRC. The low 8 and 24 bits of the numbers are sent.
    EXPECT_EQ(written(parser, {201}),
              "81c90007"
              "11223344"
              "11223344"
              "02000004"
              "00000005"
              "00000000"
              "00000000"
              "00000000");
    const int second[3] = {1, -1, 7};
    EXPECT_EQ(parser.add_report_block(0x55, second), 0);
    EXPECT_EQ(parser.add_report_block(0x55, nullptr), -1);
    const int newer[3] = {9, 8, 7};
    parser.set_report_info(newer);
    EXPECT_EQ(written(parser, {201}),
              "82c9000d"
              "11223344"
              "11223344"
              "09000008"
              "00000007"
              "00000000"
              "00000000"
              "00000000"
              "00000055"
              "01ffffff"
              "00000007"
              "00000000"
              "00000000"
              "00000000");
    // The usual name, and nothing for a BYE that isn't set.
    EXPECT_EQ(written(parser, {202, 203}),
              "81ca0004"
              "11223344"
              "0107"
              "50726976617465"
              "00"
              "0000");
    {
        const CLogCapture log;
        EXPECT_EQ(written(parser, {203, 204}), "-");
        EXPECT_EQ(log.Count(":GetCompoundPacket unknow type!\n"), 1);
    }
    EXPECT_EQ(parser.set_bye(nullptr, 0, nullptr, 3), 0);
    EXPECT_EQ(written(parser, {203}),
              "81cb0002"
              "11223344"
              "00000000");
    const unsigned int others[32] = {0xaa, 0xbb};
    EXPECT_EQ(parser.set_bye(others, 2, "End", 3), 0);
    EXPECT_EQ(parser.set_bye(others, 32, nullptr, 0), -1);
    EXPECT_EQ(parser.set_bye(nullptr, 1, nullptr, 0), -1);
    EXPECT_EQ(written(parser, {203, 202}),
              "83cb0004"
              "11223344"
              "000000aa"
              "000000bb"
              "03456e64"
              "81ca0004"
              "11223344"
              "0107"
              "50726976617465"
              "00"
              "0000");
    EXPECT_EQ(parser.set_bye(others, 31, "x", 255), 0);  // 32 sources don't fit the header's count
    EXPECT_EQ(written(parser, {203}).substr(0, 16),
              "9fcb0020"
              "11223344");
    parser.reset();
    EXPECT_EQ(written(parser, {203}), "-");
    EXPECT_EQ(written(parser, {201}).substr(0, 32),
              "81c90007"
              "11223344"
              "11223344"
              "00000000");
}

TEST(RtcpParser, WritesNothingThatDoesNotFit) {
    CRtcpParser parser(1);
    const int sender[3] = {10, 2000, 30};
    parser.set_sender_info(sender);
    ASSERT_EQ(parser.add_sdes_item(1, 3, "abc"), 0);
    EXPECT_EQ(parser.add_sdes_item(1, 0, "abc"), -1);
    EXPECT_EQ(parser.add_sdes_item(1, 3, nullptr), -1);
    ASSERT_EQ(parser.set_bye(nullptr, 0, "End of Stream", 13), 0);
    uint8_t buffer[128];
    unsigned int needed = sizeof(buffer);
    ASSERT_EQ(parser.get_sr_compound(buffer, &needed), buffer);
    EXPECT_EQ(needed, 28U + 16 + 24);
    for (unsigned int room = 0; room < needed; ++room) {
        std::vector<uint8_t> exact(room);
        unsigned int length = room;
        EXPECT_EQ(parser.get_sr_compound(exact.data(), &length), nullptr) << room;
        // Whole packets only.
        const size_t whole = room < 28 ? 0 : room < 44 ? 28 : 44;
        EXPECT_EQ(written(parser, {200, 202, 203}, room).size(), whole == 0 ? 1 : whole * 2) << room;
    }
    for (int i = 0; i < CRtcpParser::MAX_COUNT; ++i) {
        EXPECT_EQ(parser.add_report_block(2, sender), 0);
    }
    EXPECT_EQ(parser.add_report_block(2, sender), -1);
    unsigned int length = sizeof(buffer);
    EXPECT_EQ(parser.get_rr_compound(nullptr, &length), nullptr);
    EXPECT_EQ(parser.GetCompoundPacket(buffer, &length, sender, -1), nullptr);
    EXPECT_EQ(parser.GetCompoundPacket(buffer, &length, nullptr, 0), nullptr);
}

TEST(RtcpParser, ReadsWhatItWrites) {
    CRtcpParser sender(0xcafe);
    const int info[3] = {10, 2000, -1};
    sender.set_sender_info(info);
    ASSERT_EQ(sender.add_report_block(7, info), 0);
    ASSERT_EQ(sender.add_sdes_item(1, 4, "name"), 0);
    rtcp_sdes_item item = {2, 5, reinterpret_cast<const uint8_t*>("other"), nullptr};
    const rtcp_sdes_chunk chunk = {0xbeef, &item, nullptr};
    // Only the packet's end is padded, so the chunk in front has to end on a boundary to be read.
    ASSERT_EQ(sender.add_sdes_item(2, 3, "abc"), 0);
    ASSERT_EQ(sender.add_sdes_chunk(&chunk), 0);
    EXPECT_EQ(sender.add_sdes_chunk(nullptr), -1);
    ASSERT_EQ(sender.set_bye(nullptr, 0, "End of Stream", 13), 0);
    std::vector<uint8_t> buffer(512);
    unsigned int length = 512;
    const uint64_t before = CTime::getCurrentTime().makeTime();
    ASSERT_NE(sender.get_sr_compound(buffer.data(), &length), nullptr);

    CRtcpParser receiver(1);
    ASSERT_TRUE(receiver.ParseData(buffer.data(), &length, true));
    int count = 0;
    rtcp_pack* packs = receiver.get_packets(&count);
    ASSERT_EQ(count, 3);
    for (int i = 0; i < count; ++i) {
        ASSERT_EQ(packs[i].parse(&packs[i]), 0);
    }
    EXPECT_EQ(packs[0].sr.ssrc, 0xcafeU);
    EXPECT_GE(packs[0].sr.ntp_sec, before);  // seconds from 1970, not from 1900
    EXPECT_LE(packs[0].sr.ntp_sec, before + 5);
    EXPECT_EQ(packs[0].sr.ntp_frac, 0U);
    EXPECT_EQ(packs[0].sr.rtp_ts, 0xffffffffU);
    EXPECT_EQ(packs[0].sr.packet_count, 10U);
    EXPECT_EQ(packs[0].sr.octet_count, 2000U);
    EXPECT_EQ(packs[0].sr.reports->ssrc, 7U);
    EXPECT_EQ(text_of(packs[1].sdes.items), "1 name");
    EXPECT_EQ(packs[1].sdes.next->ssrc, 0xbeefU);
    EXPECT_EQ(text_of(packs[1].sdes.next->items), "2 other");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(packs[2].bye.reason), packs[2].bye.reason_length), "End of Stream");
}
