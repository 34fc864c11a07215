#include "RtspOverHttp/HttpParser.h"

#include <algorithm>
#include <charconv>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

namespace {

const std::string_view LINE_END = "\r\n";
const std::string_view HEAD_END = "\r\n\r\n";
const std::string_view GET_LINE = "GET /";
const std::string_view POST_LINE = "POST /";
const std::string_view COOKIE_NAME = "x-sessioncookie";
const std::string_view LENGTH_NAME = "content-length";
const std::string_view BLANKS = " \t";

bool starts_with(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool is_name(std::string_view text, std::string_view name) {
    return std::equal(text.begin(), text.end(), name.begin(), name.end(), [](char a, char b) { return lower(a) == b; });
}

std::string_view trim(std::string_view text) {
    const size_t begin = text.find_first_not_of(BLANKS);
    return begin == std::string_view::npos ? std::string_view()
                                           : text.substr(begin, text.find_last_not_of(BLANKS) - begin + 1);
}

int64_t read_length(std::string_view value) {
    int64_t length = -1;
    const char* end = value.data() + value.size();
    const std::from_chars_result result = std::from_chars(value.data(), end, length);
    return result.ec == std::errc() && result.ptr == end && length >= 0 ? length : -1;
}

}  // namespace

bool CHttpParser::IsHttp(std::string_view bytes) {
    return starts_with(bytes, GET_LINE) || starts_with(bytes, POST_LINE);
}

CHttpParser::result_t CHttpParser::parse(std::string_view bytes) {
    *this = CHttpParser();
    const size_t end = bytes.substr(0, MAX_HEAD).find(HEAD_END);
    if (end == std::string_view::npos) {
        return HTTP_INCOMPLETE;
    }
    if (!IsHttp(bytes)) {
        return HTTP_BAD_METHOD;
    }
    m_post = starts_with(bytes, POST_LINE);
    m_rest = bytes.substr(end + HEAD_END.size());
    std::string_view head = bytes.substr(0, end + LINE_END.size());
    while (!head.empty()) {
        const size_t line_end = head.find(LINE_END);
        take_line(head.substr(0, line_end));
        head.remove_prefix(line_end + LINE_END.size());
    }
    if (m_cookie.empty() || m_cookie.size() > MAX_COOKIE) {
        logError("%s:%d no %s error\n", __FILE__, __LINE__, "x-sessioncookie: ");
        return HTTP_NO_COOKIE;
    }
    if (!m_rest.empty()) {
        logInfo("%s:%d Rtsp Request recved in first GET:%s, m_recvLen:%d \n", __FILE__, __LINE__, "***",
                static_cast<int>(m_rest.size()));
    }
    return HTTP_OK;
}

// The first of several cookies counts.
void CHttpParser::take_line(std::string_view line) {
    const size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return;
    }
    const std::string_view name = line.substr(0, colon);
    const std::string_view value = trim(line.substr(colon + 1));
    if (is_name(name, COOKIE_NAME) && m_cookie.empty()) {
        m_cookie = value;
    } else if (is_name(name, LENGTH_NAME)) {
        m_content_length = read_length(value);
    }
}

}  // namespace Vidora
}  // namespace Kavio
