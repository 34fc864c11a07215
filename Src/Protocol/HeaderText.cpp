#include "Protocol/HeaderText.h"

#include <algorithm>

#include "Tramel/TextSearch.h"

namespace Kavio {
namespace Vidora {

namespace {

const std::string_view BLANKS = " \t\r\n";
const size_t NONE = std::string_view::npos;

bool is_blank(char c) {
    return BLANKS.find(c) != NONE;
}

// The end of the header that begins at `text`, its line end included, and those of the lines that go on with it.
size_t header_end(std::string_view text) {
    size_t end = text.find('\n');
    while (end != NONE && end + 1 < text.size() && (text[end + 1] == ' ' || text[end + 1] == '\t')) {
        end = text.find('\n', end + 1);
    }
    return end == NONE ? text.size() : end + 1;
}

bool has_name(std::string_view header, std::string_view name) {
    return header.size() > name.size() && header[name.size()] == ':' &&
           EqualsAnyCase(header.substr(0, name.size()), name);
}

}  // namespace

bool EqualsAnyCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && Tramel::EqualCase(a.data(), b.data(), a.size());
}

std::string_view TrimBlanks(std::string_view text) {
    const size_t begin = text.find_first_not_of(BLANKS);
    return begin == NONE ? std::string_view() : text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

bool NextHeaderValue(std::string_view& message, std::string_view name, std::string_view& value) {
    while (!message.empty()) {
        const std::string_view header = message.substr(0, header_end(message));
        if (TrimBlanks(header).empty()) {
            return false;  // the end of the headers
        }
        message.remove_prefix(header.size());
        if (has_name(header, name)) {
            value = TrimBlanks(header.substr(name.size() + 1));
            return true;
        }
    }
    return false;
}

std::string_view HeaderValue(std::string_view message, std::string_view name) {
    message.remove_prefix(std::min(message.find_first_not_of(BLANKS), message.size()));
    std::string_view value;
    return NextHeaderValue(message, name, value) ? value : std::string_view();
}

unsigned int AppendUnfolded(std::string_view value, char* out, unsigned int length, unsigned int size) {
    bool folds = false;
    for (const char c : value) {
        folds = c == '\r' || c == '\n' || (folds && is_blank(c));
        const bool is_first = folds && length > 0 && out[length - 1] == ' ';
        if (is_first || length + 1 >= size) {
            continue;
        }
        out[length++] = folds ? ' ' : c;
    }
    out[length] = '\0';
    return length;
}

std::string_view TakePart(std::string_view& text, char separator) {
    bool is_quoted = false;
    size_t end = 0;
    for (; end < text.size() && (is_quoted || text[end] != separator); ++end) {
        is_quoted = is_quoted != (text[end] == '"');
    }
    const std::string_view part = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return TrimBlanks(part);
}

}  // namespace Vidora
}  // namespace Kavio
