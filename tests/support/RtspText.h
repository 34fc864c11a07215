#ifndef VIDORA_TESTS_SUPPORT_RTSPTEXT_H
#define VIDORA_TESTS_SUPPORT_RTSPTEXT_H

#include <string>

namespace Kavio {
namespace Support {

// A message written with plain line feeds, with CR LF as on the wire.
inline std::string Crlf(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (c == '\n') {
            out += '\r';
        }
        out += c;
    }
    return out;
}

}  // namespace Support
}  // namespace Kavio

#endif  // VIDORA_TESTS_SUPPORT_RTSPTEXT_H
