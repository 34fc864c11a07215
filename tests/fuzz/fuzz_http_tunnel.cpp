// The head of a tunnel's request, and the base64 body behind it, decoded whole and in pieces.

#include "FuzzSupport.h"
#include "RtspOverHttp/Base64Stream.h"
#include "RtspOverHttp/HttpParser.h"

using namespace Kavio::Vidora;

namespace {

const int MAX_ROOM = 7;

// Decodes pieces of `size` characters into `room` bytes at a time; a refusal ends it with "!".
std::string decode(std::string_view text, size_t size, int room) {
    CBase64Stream stream;
    std::string all;
    while (!text.empty()) {
        std::string_view piece = text.substr(0, size);
        text.remove_prefix(piece.size());
        while (!piece.empty()) {
            char out[MAX_ROOM];
            const int count = stream.Decode(piece, out, room);
            Fuzz::Require(count <= room);
            if (count < 0) {
                return all + "!";
            }
            all.append(out, static_cast<size_t>(count));
        }
    }
    return all;
}

}  // namespace

void Fuzz::Target(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    CHttpParser parser;
    std::string_view body = bytes;
    if (parser.parse(bytes) == CHttpParser::HTTP_OK) {
        Fuzz::Require(CHttpParser::IsHttp(bytes) && parser.content_length() >= -1);
        Fuzz::Require(!parser.cookie().empty() && parser.cookie().size() <= CHttpParser::MAX_COOKIE);
        Fuzz::Require(parser.rest().size() < size && bytes.substr(size - parser.rest().size()) == parser.rest());
        body = parser.rest();
    }
    // Bytes before a refusal may be lost with a larger room: they come out with the piece that is refused.
    const std::string whole = decode(body, 1, 1);
    Fuzz::Require(whole.size() <= body.size() / 4 * 3 + 4);
    for (int room = 1; room <= MAX_ROOM; ++room) {
        const std::string other = decode(body, static_cast<size_t>(room) * 2, room);
        Fuzz::Require((other == whole) || (other.back() == '!' && whole.back() == '!'));
    }
}
