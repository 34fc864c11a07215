// CRtspUrlParser: any URL and any content; what was found of a live channel is written and read again.

#include "FuzzSupport.h"
#include "Vidora/RtspUrlParser.h"

using namespace Kavio::Vidora;
using Fuzz::Require;

namespace {

void check_text(const char* text, size_t size) {
    Require(text == nullptr || ::strnlen(text, size) < size);
}

void check_state(CRtspUrlParser& parser, bool parsed) {
    Require((parser.GetContent() != nullptr) == parsed);
    Require(parser.GetSrcType() >= SRC_TYPE_PROXY && parser.GetSrcType() <= SRC_TYPE_NONE);
    Require(parser.GetLocalStreamProto() >= 0 && parser.GetLocalStreamProto() <= 2);
    const playback_info* playback = parser.GetPlayback_info();
    check_text(playback != nullptr ? playback->token : nullptr, sizeof(playback->token));
    for (const char* text : {parser.GetContent(), parser.GetProxyUrl(), parser.GenerateUrl("x.kav")}) {
        check_text(text, 512);
    }
    check_text(parser.GetFileName(), 128);
    check_text(parser.GetParam("ServiceType"), 64);
    for (int index = -1; index <= 2; ++index) {
        char user[AUTH_TEXT_SIZE];
        char password[AUTH_TEXT_SIZE];
        auth_info_tc auth = {user, password};
        if (parser.GetAuthInfo(auth, index) == 0) {
            check_text(user, sizeof(user));
            check_text(password, sizeof(password));
        }
    }
}

void check_live_channel(const identifier_t& identifier) {
    CRtspUrlParser writer;
    Require(writer.AddConnection(0, "127.0.0.1", 554) == 0);
    const std::string url = writer.GenerateUrl(&identifier);
    CRtspUrlParser reader;
    Require(reader.ParseUrl(url.data(), static_cast<unsigned>(url.size())));
    Require(reader.GetIdentifier() != nullptr && reader.GetIdentifier()->channel == identifier.channel &&
            reader.GetIdentifier()->subtype == identifier.subtype);
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    unsigned length = static_cast<unsigned>(size);
    CRtspUrlParser url;
    check_state(url, url.ParseUrl(text, length));
    CRtspUrlParser content;
    check_state(content, content.ParseContent(text, length));
    if (content.GetIdentifier() != nullptr) {
        check_live_channel(*content.GetIdentifier());
    }
    url.ParseContent(text, length);  // with what another text has left behind
    check_state(url, url.GetContent() != nullptr);
}
