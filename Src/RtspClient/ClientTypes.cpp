#include "RtspClient/ClientTypes.h"

#include <strings.h>

#include <cstring>

#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

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

bool client_host::operator==(const client_host& other) const {
    return port == other.port && strcasecmp(name.c_str(), other.name.c_str()) == 0;
}

}  // namespace Vidora
}  // namespace Kavio
