#include "Nat/LastReply.h"

#include <cstring>
#include <new>
#include <string>

namespace Kavio {
namespace Vidora {

namespace {

const char CSEQ_HEADER[] = "\r\nCSeq: ";

// The CSeq of a reply of ours; -1 if it has none.
int cseq_of(std::string_view reply) {
    const size_t at = reply.find(CSEQ_HEADER);
    if (at == std::string_view::npos) {
        return -1;
    }
    int cseq = 0;
    for (const char letter : reply.substr(at + sizeof(CSEQ_HEADER) - 1)) {
        if (letter < '0' || letter > '9') {
            break;
        }
        cseq = cseq * 10 + (letter - '0');
    }
    return cseq;
}

}  // namespace

bool CLastReply::IsRepeated(const rtsp_msg_info& request) {
    if (m_has_request && request.cseq == m_request.cseq && request.method == m_request.method) {
        return true;
    }
    m_request = request;
    m_has_request = true;
    m_text.reset();
    m_length = 0;
    return false;
}

// One for which there is no memory isn't kept: the client asks in vain until it gives up.
void CLastReply::Keep(std::string_view reply) {
    if (!m_has_request || cseq_of(reply) != m_request.cseq) {
        return;
    }
    m_text.reset(new (std::nothrow) char[reply.size()]);
    m_length = 0;
    if (m_text != nullptr) {
        memcpy(m_text.get(), reply.data(), reply.size());
        m_length = reply.size();
    }
}

}  // namespace Vidora
}  // namespace Kavio
