#ifndef VIDORA_HTTPPARSER_H
#define VIDORA_HTTPPARSER_H

#include <cstdint>
#include <string_view>

namespace Kavio {
namespace Vidora {

// CHttpParser: reads of an HTTP request's head what an RTSP tunnel needs of it: the method, the header x-sessioncookie,
// and Content-Length. Everything else is passed over.
//
// OWNERSHIP  Borrows the bytes: what it returns is good as long as they are.
class CHttpParser {
public:
    enum result_t { HTTP_OK = 0, HTTP_INCOMPLETE = 1, HTTP_NO_COOKIE = 2, HTTP_BAD_METHOD = 3 };

    static const size_t MAX_HEAD = 4096;
    static const size_t MAX_COOKIE = 255;

    // Whether the bytes begin with the line of such a request: "GET /" or "POST /", in this case.
    static bool IsHttp(std::string_view bytes);

    // Reads the head that `bytes` begin with. The name of a header counts in any case, and blanks around its value
    // don't; a cookie is 1 to MAX_COOKIE characters.
    result_t parse(std::string_view bytes);

    bool is_post() const { return m_post; }
    std::string_view cookie() const { return m_cookie; }
    // -1: none, or none that can be read.
    int64_t content_length() const { return m_content_length; }
    // What follows the head.
    std::string_view rest() const { return m_rest; }

private:
    void take_line(std::string_view line);

    bool m_post = false;
    std::string_view m_cookie;
    int64_t m_content_length = -1;
    std::string_view m_rest;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_HTTPPARSER_H
