#ifndef VIDORA_TESTS_SUPPORT_RTSPTEXT_H
#define VIDORA_TESTS_SUPPORT_RTSPTEXT_H

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "Protocol/RtspParser.h"

namespace Kavio::Support {

// A message written with plain line feeds, with CR LF as on the wire.
inline std::string Crlf(const std::string& text) {
    std::string out;
    for (const char c : text) {
        out += c == '\n' ? "\r\n" : std::string(1, c);
    }
    return out;
}

// Packet kind, transport and the client's ports of a Transport header, as the samples write them.
inline std::string TransportText(const Vidora::transport_info& t, const Vidora::multicast_info& m) {
    std::string text = t.packet_type == Vidora::PACKET_TYPE_KX ? " KX" : " RTP";
    text += t.transport == Vidora::RTP_OVER_UDP ? " udp " : " tcp ";
    if (t.multicast != 0) {
        text += "multicast " + std::string(m.addr) + " ttl " + std::to_string(m.ttl) + " ";
    }
    return text + std::to_string(t.rtp_port) + "-" + std::to_string(t.rtcp_port);
}

// Messages with what their reader must make of them.
struct RtspSample {
    std::string message;
    std::string expected;
    size_t file;
};

// Files of samples: lines of "#" are comments, "=> " ends a message and says what is expected. A message without a
// body needs no blank line at its end.
inline std::vector<RtspSample> ReadRtspSamples(const std::vector<std::string>& paths) {
    std::vector<RtspSample> samples;
    for (size_t i = 0; i < paths.size(); ++i) {
        const size_t former = samples.size();
        std::ifstream file(paths[i]);
        std::string message;
        for (std::string line; std::getline(file, line);) {
            if (line.rfind("=> ", 0) == 0) {
                message += message.find("\n\n") == std::string::npos ? "\n" : "";
                samples.push_back({Crlf(message), line.substr(3), i});
                message.clear();
            } else if (line[0] != '#') {
                message += line + "\n";
            }
        }
        EXPECT_GT(samples.size(), former + 8) << paths[i];
    }
    return samples;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_RTSPTEXT_H
