#include "Tramel/HostText.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "Tramel/TextSearch.h"

namespace Kavio {
namespace Tramel {

namespace {

const size_t MAX_HOST_SIZE = 253;  // RFC 1123 2.1 and RFC 1035 2.3.4, as text
const size_t MAX_LABEL_SIZE = 63;

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool is_letter(char c) {
    const unsigned char lower = FoldCase(c);
    return lower >= 'a' && lower <= 'z';
}

bool is_name_char(char c) {
    return is_digit(c) || is_letter(c) || c == '-' || c == '.';
}

bool is_ipv6_char(char c) {
    const unsigned char lower = FoldCase(c);
    return is_digit(c) || (lower >= 'a' && lower <= 'f') || c == ':' || c == '.';
}

// The system's parser wants a NUL, which the text needn't have.
bool is_address(int family, const char* text, size_t size) {
    char copy[INET6_ADDRSTRLEN + 1];
    unsigned char address[sizeof(struct in6_addr)];
    if (size >= sizeof(copy)) {
        return false;
    }
    std::memcpy(copy, text, size);
    copy[size] = '\0';
    return std::strlen(copy) == size && inet_pton(family, copy, address) == 1;
}

bool is_label(const char* text, size_t size) {
    return size >= 1 && size <= MAX_LABEL_SIZE && text[0] != '-' && text[size - 1] != '-';
}

// `text` holds name characters only. One dot at the end marks an absolute name.
bool is_host_name(const char* text, size_t size) {
    size -= size > 1 && text[size - 1] == '.' ? 1 : 0;
    const char* end = text + size;
    if (size > MAX_HOST_SIZE || std::none_of(text, end, is_letter)) {
        return false;
    }
    while (true) {
        const char* dot = std::find(text, end, '.');
        if (!is_label(text, static_cast<size_t>(dot - text))) {
            return false;
        }
        if (dot == end) {
            return true;
        }
        text = dot + 1;
    }
}

HostText read_bracketed(const char* text, size_t size) {
    const char* end = std::find_if_not(text + 1, text + size, is_ipv6_char);
    const size_t length = static_cast<size_t>(end - text) - 1;
    if (end == text + size || *end != ']' || !is_address(AF_INET6, text + 1, length)) {
        return HostText();
    }
    return {6, 1, static_cast<unsigned int>(length)};
}

}  // namespace

HostText ReadHostText(const char* text, size_t size) {
    if (size > 0 && text[0] == '[') {
        return read_bracketed(text, size);
    }
    const char* end = text + size;
    const char* address_end = std::find_if_not(text, end, is_ipv6_char);
    const size_t address_size = static_cast<size_t>(address_end - text);
    const bool cut_name = address_end != end && is_name_char(*address_end);
    if (!cut_name && is_address(AF_INET6, text, address_size)) {
        return {6, 0, static_cast<unsigned int>(address_size)};
    }
    const size_t name_size = static_cast<size_t>(std::find_if_not(text, end, is_name_char) - text);
    if (is_address(AF_INET, text, name_size)) {
        return {4, 0, static_cast<unsigned int>(name_size)};
    }
    return is_host_name(text, name_size) ? HostText{1, 0, static_cast<unsigned int>(name_size)} : HostText();
}

}  // namespace Tramel
}  // namespace Kavio
