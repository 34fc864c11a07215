#ifndef VIDORA_PROTOCOL_LOGQUOTE_H
#define VIDORA_PROTOCOL_LOGQUOTE_H

#include <cstddef>
#include <string_view>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CLogQuote: a message, a URL or a content as a log line may quote it: each secret in it is shown as "***".
//
// Secrets are what follows "Authorization" on its line and the folded lines behind it, in any case, wherever the word
// is; the values of parameters such as "password=" or "authbasic="; and passwords of "scheme://user:password@" and
// "proxy=user:password@". In doubt more is hidden than needed: a password may hold any character but a line end.
// Control characters are the log's matter. Lies on the stack (2 kB, the length of a log line; longer text is cut).
class CLogQuote {
public:
    // Reads nothing when the log doesn't show `level`. The bytes end at a NUL; a null `text` is an empty one.
    CLogQuote(Ostra::log_level_t level, const char* text, size_t length);
    CLogQuote(Ostra::log_level_t level, const char* text);

    const char* Text() const { return m_text; }

private:
    static const size_t SIZE = 2048;

    void quote(std::string_view text);
    void add(std::string_view text);

    size_t m_length = 0;
    char m_text[SIZE];
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_LOGQUOTE_H
