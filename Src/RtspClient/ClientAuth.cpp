#include "RtspClient/ClientAuth.h"

#include <cstring>
#include <new>
#include <string_view>

#include "Protocol/LogQuote.h"

namespace Kavio {
namespace Vidora {

namespace {
const std::string_view HEAD_END = "\r\n\r\n";
}  // namespace

// Whether it may help to answer the challenge that was set for a request with that CSeq.
bool CClientAuth::may_go_on(int cseq) const {
    const bool had_answer = m_count > 0 && cseq > m_answered_cseq;
    return m_count < MAX_CHALLENGES && !(m_conformance && had_answer && !m_auth.is_stale());
}

bool CClientAuth::TakeChallenge(rtsp_method_t method, int cseq, const char* url) {
    try {
        m_auth.set_challenge(m_parser.get_auth());
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (!may_go_on(cseq)) {
        const CLogQuote quote(Ostra::LOG_LEVEL_ERROR, url);
        logError("%s:%d Authenticate failed, this:%p, url: %s\n", __FILE__, __LINE__, static_cast<void*>(this),
                 quote.Text());
        return false;
    }
    if (method == RTSP_METHOD_TEARDOWN) {
        logWarn("%s:%d, now is teardown, no need to get auth..\n", __FILE__, __LINE__);
        return false;
    }
    ++m_count;
    m_answered_cseq = m_parser.get_cseq();
    std::string value;
    m_auth.set_method_id(method);
    m_auth.set_entity({});
    if (!m_auth.get_authorization(value)) {
        logWarn("%s:%d return -1\n", __FILE__, __LINE__);
        return false;
    }
    for (int i = 0; i < RTSP_METHOD_COUNT; ++i) {
        // What a former scheme has left must not go along with another one's.
        const int result = IsDigest() ? m_parser.remove_ext_key(i, "Authorization")
                                      : m_parser.set_ext_key(i, "Authorization", value.c_str());
        if (result < 0) {
            return false;
        }
    }
    return true;
}

bool CClientAuth::Sign(const char* request, std::string& text) {
    const std::string_view whole(request);
    const size_t method_end = whole.find(' ');
    const size_t url_end = method_end == std::string_view::npos ? method_end : whole.find(' ', method_end + 1);
    const size_t head_end = whole.find(HEAD_END);
    if (url_end == std::string_view::npos || head_end == std::string_view::npos) {
        return false;
    }
    try {
        m_auth.set_method(std::string(whole.substr(0, method_end)));
        m_auth.set_uri(std::string(whole.substr(method_end + 1, url_end - method_end - 1)));
        m_auth.set_entity(whole.substr(head_end + HEAD_END.size()));
        m_auth.count_request();
        std::string value;
        if (!m_auth.get_authorization(value)) {
            return false;
        }
        text.assign(whole.substr(0, head_end));
        text.append("\r\nAuthorization: ").append(value).append(whole.substr(head_end));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
