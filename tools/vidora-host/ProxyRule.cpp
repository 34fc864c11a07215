#include "ProxyRule.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Vidora/RtspUrlParser.h"

using namespace Kavio::Vidora;

namespace {

std::vector<ProxyOption> allowed_servers;  // constant once the servers are open

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

}  // namespace

void SetProxyRule(const std::vector<ProxyOption>& allowed) {
    allowed_servers = allowed;
}

char* RefuseOtherProxies(const char* content, char* buffer, int size) {
    CRtspUrlParser parser;
    unsigned int length = static_cast<unsigned int>(std::strlen(content));
    const bool names_server = std::strstr(content, "proxy=") != nullptr;
    if (!names_server || (parser.ParseContent(content, length) && is_allowed(parser))) {
        return nullptr;
    }
    std::snprintf(buffer, static_cast<size_t>(size), "refused");
    return buffer;
}
