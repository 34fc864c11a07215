#include "ContentRule.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "Vidora/RtspUrlParser.h"

using namespace Kavio::Vidora;

namespace {

// Constant once the servers are open.
std::vector<ProxyOption> allowed_servers;
std::vector<LiveOption> live_options;

bool is_allowed(const CRtspUrlParser& parser) {
    char host[128] = "";
    unsigned short port = 0;
    if (parser.GetConnection(1, host, sizeof(host), port) < 0) {
        return false;
    }
    return std::any_of(allowed_servers.begin(), allowed_servers.end(), [&](const ProxyOption& option) {
        return strcasecmp(option.host.c_str(), host) == 0 && (option.port == 0 || option.port == port);
    });
}

bool is_refused(const char* content) {
    CRtspUrlParser parser;
    unsigned int length = static_cast<unsigned int>(std::strlen(content));
    return !parser.ParseContent(content, length) || !is_allowed(parser);
}

// The content that a name is published as; null if it isn't the name of a live stream.
const char* find_channel(std::string_view name) {
    if (!name.empty() && name.back() == '/') {
        name.remove_suffix(1);
    }
    const auto live = std::find_if(live_options.begin(), live_options.end(),
                                   [&](const LiveOption& option) { return option.name == name; });
    return live == live_options.end() ? nullptr : live->content.c_str();
}

}  // namespace

void SetContentRule(const Options& options) {
    allowed_servers = options.proxy_to;
    live_options = options.live;
}

char* RewriteContent(const char* content, char* buffer, int size) {
    const bool names_server = std::strstr(content, "proxy=") != nullptr;
    const char* other = names_server ? (is_refused(content) ? "refused" : nullptr) : find_channel(content);
    if (other == nullptr) {
        return nullptr;
    }
    std::snprintf(buffer, static_cast<size_t>(size), "%s", other);
    return buffer;
}
