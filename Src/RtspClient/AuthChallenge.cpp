#include "RtspClient/AuthChallenge.h"

#include <algorithm>

#include "Protocol/HeaderText.h"

namespace Kavio {
namespace Vidora {

namespace {

const char BLANKS[] = " \t\r\n";
const char BETWEEN[] = " \t\r\n,";
const char BEHIND_NAME[] = " \t\r\n,=";

void skip(std::string_view& text, const char* characters) {
    text.remove_prefix(std::min(text.find_first_not_of(characters), text.size()));
}

std::string_view take_until(std::string_view& text, const char* ends) {
    const std::string_view taken = text.substr(0, text.find_first_of(ends));
    text.remove_prefix(taken.size());
    return taken;
}

// The text between quotes, as it is: what a backslash precedes is no end.
std::string_view take_quoted(std::string_view& text) {
    text.remove_prefix(1);
    size_t end = 0;
    while (end < text.size() && text[end] != '"') {
        end += text[end] == '\\' ? 2 : 1;
    }
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(taken.size() + 1, text.size()));
    return taken;
}

}  // namespace

// A name with "=" behind it is a parameter of the challenge before; any other begins a challenge.
std::vector<CAuthChallenge> CAuthChallenge::ReadAll(std::string_view text) {
    std::vector<CAuthChallenge> all;
    for (skip(text, BETWEEN); !text.empty(); skip(text, BETWEEN)) {
        const std::string_view name = take_until(text, BEHIND_NAME);
        skip(text, BLANKS);
        if (text.empty() || text.front() != '=') {
            all.emplace_back();
            all.back().m_scheme = name;
            continue;
        }
        text.remove_prefix(1);
        skip(text, BLANKS);
        const bool is_quoted = !text.empty() && text.front() == '"';
        const std::string_view value = is_quoted ? take_quoted(text) : take_until(text, BETWEEN);
        if (!all.empty()) {
            all.back().m_params.emplace_back(name, value);
        }
    }
    return all;
}

bool CAuthChallenge::IsScheme(std::string_view name) const {
    return EqualsAnyCase(m_scheme, name);
}

std::optional<std::string> CAuthChallenge::Find(std::string_view name) const {
    const auto found = std::find_if(m_params.begin(), m_params.end(),
                                    [name](const auto& param) { return EqualsAnyCase(param.first, name); });
    return found != m_params.end() ? std::optional<std::string>(found->second) : std::nullopt;
}

bool CAuthChallenge::IsDigestKnown() const {
    const std::string algorithm = Find("algorithm").value_or("MD5");
    return IsScheme("Digest") && Find("realm") && Find("nonce") && (!Find("qop") || ChooseQop()) &&
           (EqualsAnyCase(algorithm, "MD5") || EqualsAnyCase(algorithm, "MD5-sess"));
}

std::optional<std::string> CAuthChallenge::ChooseQop() const {
    const std::string list = Find("qop").value_or("");
    std::optional<std::string> chosen;
    std::string_view rest(list);
    for (skip(rest, BETWEEN); !rest.empty(); skip(rest, BETWEEN)) {
        const std::string_view option = take_until(rest, BETWEEN);
        if (EqualsAnyCase(option, "auth")) {
            return "auth";
        }
        if (EqualsAnyCase(option, "auth-int")) {
            chosen = "auth-int";
        }
    }
    return chosen;
}

}  // namespace Vidora
}  // namespace Kavio
