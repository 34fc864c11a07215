#include "Protocol/LogQuote.h"

#include <strings.h>

#include <algorithm>
#include <cstring>

namespace Kavio {
namespace Vidora {

namespace {

const char LINE_END[] = "\r\n";
const char BLANKS[] = " \t";
const size_t NONE = std::string_view::npos;

// The bytes that a secret takes: from `begin` on, `size` of them.
struct Span {
    size_t begin = 0;
    size_t size = 0;
};

Span between(size_t begin, size_t end, std::string_view text) {
    return {begin, std::min(end, text.size()) - begin};
}

// Each of these gets the text behind a keyword and finds the secret in it.

// The rest of the header. A line that begins with white space goes on with the one before (RFC 2326 4.2).
Span find_header_value(std::string_view text) {
    const size_t begin = std::min(text.find_first_not_of(": \t"), text.size());
    size_t end = text.find_first_of(LINE_END);
    while (end != NONE) {
        const size_t next = text.find_first_not_of(LINE_END, end);
        if (next == NONE || std::strchr(BLANKS, text[next]) == nullptr) {
            break;
        }
        end = text.find_first_of(LINE_END, next);
    }
    return between(std::min(begin, std::min(end, text.size())), end, text);
}

// `=value`, `: value`, `":"value"`. Empty if that isn't what follows.
Span find_parameter(std::string_view text) {
    const size_t sign = text.find_first_not_of("\"' \t");
    if (sign == NONE || (text[sign] != '=' && text[sign] != ':')) {
        return {};
    }
    const size_t begin = text.find_first_not_of("\"' \t", sign + 1);
    return begin == NONE ? Span() : between(begin, text.find_first_of("&;,\"'< \t\r\n", begin), text);
}

// `user:password@` up to the last "@" of the line: a password that isn't escaped may hold one.
Span find_password(std::string_view text) {
    text = text.substr(0, text.find_first_of(LINE_END));
    const size_t end = text.rfind('@');
    const size_t colon = text.find(':');
    return end == NONE || colon == NONE || colon > end ? Span() : between(colon + 1, end, text);
}

struct secret_row {
    std::string_view key;
    Span (*find)(std::string_view behind_key);
};

const secret_row SECRETS[] = {
    {"authorization", find_header_value},
    {"authbasic", find_parameter},
    {"password", find_parameter},
    {"passwd", find_parameter},
    {"pass", find_parameter},
    {"pwd", find_parameter},
    {"proxy=", find_password},
    {"://", find_password},
};

// The secret whose keyword `text` begins with, from the beginning of `text`; empty if there is none.
Span find_secret(std::string_view text) {
    for (const secret_row& row : SECRETS) {
        if (text.size() <= row.key.size() || strncasecmp(text.data(), row.key.data(), row.key.size()) != 0) {
            continue;
        }
        Span secret = row.find(text.substr(row.key.size()));
        secret.begin += row.key.size();
        if (secret.size > 0) {
            return secret;
        }
    }
    return {};
}

}  // namespace

CLogQuote::CLogQuote(Ostra::log_level_t level, const char* text, size_t length) {
    m_text[0] = '\0';
    if (text != nullptr && Ostra::GetLogLevel() >= level) {
        quote(std::string_view(text, length == NONE ? std::strlen(text) : strnlen(text, length)));
    }
}

CLogQuote::CLogQuote(Ostra::log_level_t level, const char* text) : CLogQuote(level, text, NONE) {}

void CLogQuote::quote(std::string_view text) {
    while (!text.empty() && m_length + 1 < SIZE) {
        const Span secret = find_secret(text);
        if (secret.size == 0) {
            add(text.substr(0, 1));
            text.remove_prefix(1);
            continue;
        }
        add(text.substr(0, secret.begin));
        add("***");
        text.remove_prefix(secret.begin + secret.size);
    }
    m_text[m_length] = '\0';
}

void CLogQuote::add(std::string_view text) {
    const size_t size = std::min(text.size(), SIZE - 1 - m_length);
    std::memcpy(m_text + m_length, text.data(), size);
    m_length += size;
}

}  // namespace Vidora
}  // namespace Kavio
