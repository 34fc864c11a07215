#include "RtspClient/DigestResponse.h"

#include <cstdio>

#include "Protocol/HeaderText.h"
#include "Vidora/Names.h"
#include "Vidora/Ostra/Md5.h"

namespace Kavio {
namespace Vidora {

std::string DigestHash(std::initializer_list<std::string_view> parts) {
    Utils::CMd5 md5;
    bool first = true;
    for (const std::string_view part : parts) {
        if (!first) {
            md5.update(reinterpret_cast<const unsigned char*>(":"), 1);
        }
        md5.update(reinterpret_cast<const unsigned char*>(part.data()), static_cast<unsigned int>(part.size()));
        first = false;
    }
    char hex[33];
    md5.hex(hex);
    return hex;
}

bool DigestUsesQop(std::string_view qop) {
    return EqualsAnyCase(qop, "auth") || EqualsAnyCase(qop, "auth-int");
}

std::string DigestResponse(const std::string& ha1, const digest_request& request) {
    const std::string_view uri = request.uri.empty() ? std::string_view("/") : request.uri;
    const std::string ha2 = EqualsAnyCase(request.qop, "auth-int")
                                ? DigestHash({request.method, uri, DigestHash({request.entity})})
                                : DigestHash({request.method, uri});
    if (!DigestUsesQop(request.qop)) {
        return DigestHash({ha1, request.nonce, ha2});
    }
    char nc[16];
    std::snprintf(nc, sizeof nc, "%08x", request.nc);
    return DigestHash({ha1, request.nonce, nc, request.cnonce, request.qop, ha2});
}

}  // namespace Vidora
}  // namespace Kavio
