// What the protocol layer writes, for independent programs to read:
//     interop_protocol rtcp         prints RTCP compounds, one a line, in hexadecimal
//     interop_protocol sdp IN OUT   reads a description and writes it again
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "Protocol/RtcpParser.h"
#include "Protocol/SdpParser.h"

#include "../support/StreamBytes.h"

using namespace Kavio::Vidora;

namespace {

const unsigned int ROOM = 2048;

void need(bool done) {
    if (!done) {
        std::exit(1);
    }
}

// Prints a compound as a line of hexadecimal digits, and gives the whole room to the next one.
void put(const uint8_t* compound, unsigned int& length) {
    need(compound != nullptr);
    std::printf("%s\n", Kavio::Support::ToHex(Kavio::Support::Bytes(compound, compound + length)).c_str());
    length = ROOM;
}

void write_rtcp() {
    uint8_t buffer[ROOM];
    unsigned int length = ROOM;

    // 1: what a server sends. 2: what a client sends.
    CRtcpParser server(0x11223344);
    server.set_sender_info(1000, 1400000, 90000);
    put(server.get_sr_compound(buffer, &length), length);
    CRtcpParser client(0x55667788);
    client.set_report_info({25, 300, 0x10002});
    put(client.get_rr_compound(buffer, &length), length);

    // 3: a server's end, with blocks and items of every kind.
    need(server.add_report_block(0xaabbccdd, {1, 0xffffffff, 7}) == 0 &&
         server.add_report_block(0xeeff0011, {255, 0x7fffff, 0xffffffff}) == 0);
    need(server.add_sdes_item(1, 9, "user@host") == 0 && server.add_sdes_item(2, 4, "Name") == 0);
    need(server.set_bye(nullptr, 0, "End of Stream", 13) == 0);
    put(server.get_sr_compound(buffer, &length), length);

    // 4: a BYE of three sources without a reason.
    CRtcpParser mixer(1);
    const unsigned int sources[2] = {2, 3};
    const int types[] = {CRtcpParser::RTCP_TYPE_RR, CRtcpParser::RTCP_TYPE_BYE};
    need(mixer.set_bye(sources, 2, nullptr, 0) == 0);
    put(mixer.GetCompoundPacket(buffer, &length, types, 2), length);
}

void rewrite_sdp(const char* in_path, const char* out_path) {
    std::ifstream in(in_path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    CSdpParser sdp;
    need(!text.empty() && sdp.Parse(text.data(), static_cast<int>(text.size())) == 0 && sdp.GetStream() == 0);
    std::ofstream out(out_path, std::ios::binary);
    out << sdp.get_stream();
    need(out.flush().good());
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    need((mode == "rtcp" && argc == 2) || (mode == "sdp" && argc == 4));
    if (mode == "rtcp") {
        write_rtcp();
    } else {
        rewrite_sdp(argv[2], argv[3]);
    }
    return 0;
}
