#ifndef VIDORA_PROTOCOL_HEADERTEXT_H
#define VIDORA_PROTOCOL_HEADERTEXT_H

#include <string_view>

namespace Kavio {
namespace Vidora {

// The headers of a message as RFC 2326 4 and RFC 2616 4.2 have them, for readers that go by the standards. A header
// begins its line, and goes on in the lines behind that begin with white space. Time is linear in the text's length.

// The value of the first header of that name, in any case, in the header part of `message`, without white space round
// it; line ends may be inside. Empty if there is none.
std::string_view HeaderValue(std::string_view message, std::string_view name);
// The same for one header after the other: `message` is moved behind the one that is returned. False if there is none.
bool NextHeaderValue(std::string_view& message, std::string_view name, std::string_view& value);
// Appends `value` to the text of `length` bytes in `out`, of `size` bytes, with a blank for each line end inside and
// the white space behind it. The length then. A value that doesn't fit is cut.
unsigned int AppendUnfolded(std::string_view value, char* out, unsigned int length, unsigned int size);

// Whether two texts are equal but for the case of ASCII letters.
bool EqualsAnyCase(std::string_view a, std::string_view b);

// Takes white space off both ends.
std::string_view TrimBlanks(std::string_view text);
// Takes what is in front of the next `separator` that is in no quoted string off `text`, and the separator, and returns
// it without white space round it.
std::string_view TakePart(std::string_view& text, char separator);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_HEADERTEXT_H
