#include "RtspClient/ClientTypes.h"

#include <strings.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string_view>

#include "Protocol/LogQuote.h"
#include "Tramel/IpText.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

namespace {

// RFC 3986 2.1: what may not stand in a URL, such as "@" and "/", is "%" with two hexadecimal digits there.
std::string decoded(std::string_view text) {
    const size_t ESCAPE_SIZE = 3;
    std::string out;
    while (!text.empty()) {
        unsigned int byte = 0;
        const char* end = text.data() + std::min(text.size(), ESCAPE_SIZE);
        const bool is_escape = text[0] == '%' && text.size() >= ESCAPE_SIZE &&
                               std::from_chars(text.data() + 1, end, byte, 16).ptr == end && byte >= ' ';
        out.push_back(is_escape ? static_cast<char>(byte) : text[0]);
        text.remove_prefix(is_escape ? ESCAPE_SIZE : 1);
    }
    return out;
}

}  // namespace

client_timing& ClientTiming() {
    static client_timing timing;
    return timing;
}

bool client_host::Reads(const std::string& url) {
    CRtspUrlParser parser;
    char addr[128] = "";
    const unsigned int length = static_cast<unsigned int>(url.size());
    if (!parser.ParseUrl(url.c_str(), length) || parser.GetConnection(0, addr, sizeof(addr), port) < 0) {
        return false;
    }
    name = addr;
    return true;
}

CSockAddrStorage client_host::Address() const {
    sockaddr_storage native = {};
    CSockAddrStorage addr;
    if (Tramel::ParseIpText(name.c_str(), native)) {
        addr.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native));
        addr.SetPort(port);
    }
    return addr;
}

bool client_host::operator==(const client_host& other) const {
    return port == other.port && strcasecmp(name.c_str(), other.name.c_str()) == 0;
}

bool ReadClientUrl(const std::string& url, client_settings& settings, client_host& host) {
    CRtspUrlParser parser;
    char user[AUTH_TEXT_SIZE] = "";
    char password[AUTH_TEXT_SIZE] = "";
    auth_info_tc auth = {user, password};
    const unsigned int length = static_cast<unsigned int>(url.size());
    if (url.size() > RTSP_MAX_TEXT || !parser.ParseUrl(url.c_str(), length) || !host.Reads(url)) {
        const CLogQuote quote(Ostra::LOG_LEVEL_WARN, url.c_str());
        logWarn("%s:%d invalid rtsp url: %s\n", __FILE__, __LINE__, quote.Text());
        return false;
    }
    if (parser.GetAuthInfo(auth, 0) == 0) {
        settings.user = settings.conformance ? decoded(user) : user;
        settings.password = settings.conformance ? decoded(password) : password;
        settings.has_auth = true;
    }
    return true;
}

int client_settings::SetUser(const char* name, const char* secret) {
    if (name == nullptr) {
        logWarn("%s:%d return -1\n", __FILE__, __LINE__);
        return -1;
    }
    user = name;
    password = secret != nullptr ? secret : "";
    has_auth = true;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
