// What the protocol layer writes, for independent programs to read:
//     interop_protocol rtcp         prints RTCP compounds, one a line, in hexadecimal
//     interop_protocol sdp IN OUT   reads a description and writes it again
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "Protocol/RtcpParser.h"
#include "Protocol/SdpParser.h"

using namespace Kavio::Vidora;

namespace {

const unsigned int ROOM = 2048;

// A compound as a line of hexadecimal digits.
void put(const uint8_t* bytes, unsigned int size) {
    for (unsigned int i = 0; i < size; ++i) {
        std::printf("%02x", static_cast<unsigned int>(bytes[i]));
    }
    std::printf("\n");
}

int write_rtcp() {
    uint8_t buffer[ROOM];
    unsigned int length = ROOM;

    // 1: what a server sends. 2: what a client sends.
    CRtcpParser server(0x11223344);
    const int sender[3] = {1000, 1400000, 90000};
    server.set_sender_info(sender);
    bool good = server.get_sr_compound(buffer, &length) != nullptr;
    put(buffer, length);

    CRtcpParser client(0x55667788);
    const int report[3] = {25, 300, 0x10002};
    client.set_report_info(report);
    good = client.get_rr_compound(buffer, &(length = ROOM)) != nullptr && good;
    put(buffer, length);

    // 3: a server's end, with blocks and items of every kind.
    const int first[3] = {1, -1, 7};
    const int second[3] = {255, 0x7fffff, -1};
    good = server.add_report_block(0xaabbccdd, first) == 0 && server.add_report_block(0xeeff0011, second) == 0 && good;
    good = server.add_sdes_item(1, 9, "user@host") == 0 && server.add_sdes_item(2, 4, "Name") == 0 && good;
    good = server.set_bye(nullptr, 0, "End of Stream", 13) == 0 && good;
    good = server.get_sr_compound(buffer, &(length = ROOM)) != nullptr && good;
    put(buffer, length);

    // 4: a BYE of three sources without a reason.
    CRtcpParser mixer(1);
    const unsigned int sources[2] = {2, 3};
    const int types[] = {CRtcpParser::RTCP_TYPE_RR, CRtcpParser::RTCP_TYPE_BYE};
    good = mixer.set_bye(sources, 2, nullptr, 0) == 0 && good;
    good = mixer.GetCompoundPacket(buffer, &(length = ROOM), types, 2) != nullptr && good;
    put(buffer, length);
    return good ? 0 : 1;
}

int rewrite_sdp(const char* in_path, const char* out_path) {
    std::ifstream in(in_path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    CSdpParser sdp;
    if (text.empty() || sdp.Parse(text.data(), static_cast<int>(text.size())) < 0 || sdp.GetStream() < 0) {
        return 1;
    }
    std::ofstream out(out_path, std::ios::binary);
    out << sdp.get_stream();
    return out.flush().good() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && std::strcmp(argv[1], "rtcp") == 0) {
        return write_rtcp();
    }
    if (argc == 4 && std::strcmp(argv[1], "sdp") == 0) {
        return rewrite_sdp(argv[2], argv[3]);
    }
    std::fprintf(stderr, "usage: interop_protocol rtcp | sdp IN OUT\n");
    return 2;
}
