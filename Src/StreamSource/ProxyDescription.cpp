#include "StreamSource/ProxyDescription.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace Kavio {
namespace Vidora {

namespace {

const char NEUTRAL_CONNECTION[] = "c=IN IP4 0.0.0.0\r\n";

bool starts_with(std::string_view line, std::string_view prefix) {
    return line.substr(0, prefix.size()) == prefix;
}

bool is_one_of(std::string_view line, std::initializer_list<std::string_view> prefixes) {
    for (const std::string_view prefix : prefixes) {
        if (starts_with(line, prefix)) {
            return true;
        }
    }
    return false;
}

// Lines that a player sets its decoders up by.
bool is_essential(std::string_view line) {
    return !starts_with(line, "a=") ||
           is_one_of(line,
                     {"a=rtpmap:", "a=fmtp:", "a=range:", "a=framerate:", "a=recvonly", "a=sendonly", "a=sendrecv"});
}

// "m=video 5004 RTP/AVP 96" at port 0.
void add_media(std::string& out, std::string_view line, int track) {
    const size_t type_end = line.find(' ');
    const size_t port_end = type_end == std::string_view::npos ? type_end : line.find(' ', type_end + 1);
    out.append(line.substr(0, type_end)).append(" 0");
    out.append(port_end == std::string_view::npos ? std::string_view() : line.substr(port_end)).append("\r\n");
    out.append("a=control:trackID=").append(std::to_string(track)).append("\r\n");
}

// Whether a line of what is kept goes on: not one that is the relayed server's own, and of what no decoder is set up by
// none in a lean description.
bool is_passed_on(std::string_view line, bool lean) {
    if (line.empty() || is_one_of(line, {"c=", "a=control:", "a=packetization-supported", "a=source-filter"})) {
        return false;
    }
    return !lean || (is_essential(line) && !is_one_of(line, {"i=", "u=", "e=", "p=", "b=", "k="}));
}

// Takes the first line off.
std::string_view take_line(std::string_view& rest) {
    const size_t end = rest.find_first_of("\r\n");
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return line;
}

// Of the media those that `keeps` says. `lean`: without the lines that players don't need.
std::string rewrite(const std::string& text, const std::vector<bool>& keeps, bool lean) {
    const int count = static_cast<int>(keeps.size());
    std::string out;
    std::string_view rest(text);
    int media = -1;
    int track = -1;
    bool has_connection = false;
    while (!rest.empty()) {
        const std::string_view line = take_line(rest);
        if (starts_with(line, "m=")) {
            if (!has_connection) {
                out.append(NEUTRAL_CONNECTION);
                has_connection = true;
            }
            ++media;
            if (media < count && keeps[static_cast<size_t>(media)]) {
                add_media(out, line, ++track);
            }
            continue;
        }
        const bool is_kept = media < 0 || (media < count && keeps[static_cast<size_t>(media)]);
        if (is_kept && is_passed_on(line, lean)) {
            out.append(line).append("\r\n");
        }
    }
    return out;
}

}  // namespace

std::string ProxyDescription(const std::string& text, const bool* keeps, int count, size_t limit) {
    std::vector<bool> kept(keeps, keeps + count);
    std::string out = rewrite(text, kept, false);
    bool has_media = true;
    while (out.size() > limit && has_media) {
        out = rewrite(text, kept, true);
        const auto last = std::find(kept.rbegin(), kept.rend(), true);
        has_media = last != kept.rend();
        if (has_media) {
            *last = false;
        }
    }
    return has_media ? out : std::string();
}

}  // namespace Vidora
}  // namespace Kavio
