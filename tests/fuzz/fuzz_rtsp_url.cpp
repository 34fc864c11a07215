// CRtspUrlParser: any URL and any content; what was found of a live channel or an address is written and read again.
#include <cstring>
#include <string>

#include "FuzzSupport.h"
#include "Vidora/RtspUrlParser.h"

using namespace Kavio::Vidora;

namespace {

void check_text(const char* text, size_t size) {
    Fuzz::Require(text == nullptr || ::strnlen(text, size) < size);
}

void check_state(CRtspUrlParser& parser, bool parsed) {
    check_text(parser.GetContent(), 512);
    check_text(parser.GetProxyUrl(), 512);
    check_text(parser.GetFileName(), 128);
    check_text(parser.GetParam("proto"), 64);
    check_text(parser.GetParam("ServiceType"), 64);
    Fuzz::Require(parser.GetSrcType() >= SRC_TYPE_PROXY && parser.GetSrcType() <= SRC_TYPE_NONE);
    Fuzz::Require(parser.GetLocalStreamProto() >= 0 && parser.GetLocalStreamProto() <= 2);
    Fuzz::Require((parser.GetContent() != nullptr) == parsed);
    const playback_info* playback = parser.GetPlayback_info();
    check_text(playback != nullptr ? playback->token : nullptr, sizeof(playback->token));
    for (int index = -1; index <= 2; ++index) {
        char user[AUTH_TEXT_SIZE];
        char password[AUTH_TEXT_SIZE];
        auth_info_tc auth = {user, password};
        if (parser.GetAuthInfo(auth, index) == 0) {
            check_text(user, sizeof(user));
            check_text(password, sizeof(password));
            Fuzz::Require(user[0] != '\0');
        }
    }
    check_text(parser.GenerateContent("x.kav"), 512);
    check_text(parser.GenerateUrl("x.kav"), 512);
}

void check_live_channel(const identifier_t& identifier) {
    CRtspUrlParser writer;
    Fuzz::Require(writer.AddConnection(0, "127.0.0.1", 554) == 0);
    const std::string url = writer.GenerateUrl(&identifier);
    CRtspUrlParser reader;
    Fuzz::Require(reader.ParseUrl(url.data(), static_cast<unsigned>(url.size())));
    Fuzz::Require(reader.GetIdentifier() != nullptr && reader.GetIdentifier()->channel == identifier.channel &&
                  reader.GetIdentifier()->subtype == identifier.subtype);
    Fuzz::Require((reader.GetSrcType() == SRC_TYPE_LIVE) == (identifier.subtype >= 0 && identifier.subtype <= 9));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Fuzz::Quiet();
    const char* text = reinterpret_cast<const char*>(data);
    unsigned length = static_cast<unsigned>(size);
    CRtspUrlParser url;
    check_state(url, url.ParseUrl(text, length));
    CRtspUrlParser content;
    check_state(content, content.ParseContent(text, length));
    if (content.GetIdentifier() != nullptr) {
        check_live_channel(*content.GetIdentifier());
    }
    // State that several texts have left behind.
    url.ParseContent(text, length);
    url.ParseUrl(text, length);
    check_state(url, url.GetContent() != nullptr);
    return 0;
}
