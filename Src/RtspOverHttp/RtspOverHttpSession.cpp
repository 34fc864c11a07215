#include "RtspOverHttp/RtspOverHttpSession.h"

#include <utility>

namespace Kavio {
namespace Vidora {

namespace {

const size_t POST_READ_SIZE = 4096;
const size_t GET_READ_SIZE = 1024;
const int MAX_LAST_READS = 64;  // of a POST that another one is to replace
const int64_t US_PER_SECOND = 1000000;
const int LOOKS_PER_TIMEOUT = 4;  // at the time of the last byte

}  // namespace

CRtspOverHttpSession::~CRtspOverHttpSession() {
    drop_post();
}

void CRtspOverHttpSession::Start(CSockStream* get_sock) {
    m_sock = get_sock;
    Notify(GetID(), MSG_SESSION_INIT, 0);
}

int CRtspOverHttpSession::Init(int /*count*/) {
    const CRtspSvrConfig& config = m_conversation.Config();
    open_connection(config.GetRtspOverHttpAuthType());
    std::unique_ptr<HttpPost> post = m_tunnel->Take();
    if (post == nullptr || RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, 0) < 0) {
        m_conversation.End(MSG_SESSION_BROKEN);
        return -1;
    }
    m_last_byte_us = CTime::getCurrentMicroSecond();
    const int timeout = config.GetKeepAliveTimeout();
    if (timeout > 0) {
        m_silence_timer = SetTimer(timeout * US_PER_SECOND / LOOKS_PER_TIMEOUT);
    }
    return set_post_stream(std::move(post));
}

// What came with its head is taken in before any further byte is read.
int CRtspOverHttpSession::set_post_stream(std::unique_ptr<HttpPost> post) {
    m_post = std::move(post);
    watch_peer(*m_post->sock);
    if (decode_post_data(m_post->Rest()) < 0) {
        return -1;
    }
    m_post->rest.reset();
    m_post->rest_length = 0;
    if (RegisterSock(*m_post->sock, Tramel::SOCK_EVENT_READ, 0) < 0) {
        m_conversation.End(MSG_SESSION_BROKEN);
        return -1;
    }
    return 0;
}

int CRtspOverHttpSession::handle_message(long sender_id, unsigned int msg, long param) {
    if (msg != MSG_TUNNEL_POST) {
        return CSvrSessionCore::handle_message(sender_id, msg, param);
    }
    std::unique_ptr<HttpPost> post = m_tunnel->Take();
    if (post == nullptr) {
        return 0;
    }
    if (m_post != nullptr && !is_post_over()) {
        logWarn("%s:%d error, SetPostStream when m_post_stream is not NULL\n", __FILE__, __LINE__);
        return -1;
    }
    drop_post();
    m_conversation.RearmGate();
    return set_post_stream(std::move(post));
}

// The end of a POST may be seen only after the next one has come: what the old one still holds is read first.
bool CRtspOverHttpSession::is_post_over() {
    int count = 1;
    for (int i = 0; i < MAX_LAST_READS && count > 0; ++i) {
        count = read_post();
    }
    return m_post == nullptr || (count == 0 && m_post->IsUsedUp());
}

int CRtspOverHttpSession::handle_input(int fd) {
    if (m_post != nullptr && fd == m_post->sock->GetHandle()) {
        return read_post() < 0 ? -1 : 0;
    }
    return m_sock != nullptr && fd == m_sock->GetHandle() ? read_get() : 0;
}

// The count; negative: the POST or the session has ended.
int CRtspOverHttpSession::read_post() {
    char text[POST_READ_SIZE];
    const int count = m_post->sock->Recv(text, sizeof(text));
    if (count < 0) {
        logInfo("%s:%d m_post_stream Recv -1\n", __FILE__, __LINE__);
        return drop_post();
    }
    return decode_post_data(std::string_view(text, static_cast<size_t>(count))) < 0 ? -1 : count;
}

// A body that has come whole may end within a request, which goes on in the next one. Of one that broke off the client
// can't know how much has come: it says its request again.
int CRtspOverHttpSession::drop_post() {
    if (m_post == nullptr) {
        return -1;
    }
    RemoveSock(*m_post->sock);
    if (!m_post->IsUsedUp()) {
        m_base64 = CBase64Stream();
        m_requests.Clear();
    }
    m_post.reset();
    return -1;
}

// Nothing is sent here, but the read shows the connection's end.
int CRtspOverHttpSession::read_get() {
    char dropped[GET_READ_SIZE];
    if (m_sock->Recv(dropped, sizeof(dropped)) >= 0) {
        return 0;
    }
    RemoveSock(*m_sock);
    logInfo("%s:%d Get Stream Recv ret -1\n", __FILE__, __LINE__);
    m_conversation.End(MSG_SESSION_BROKEN);
    return -1;
}

// Negative: the session is ending.
int CRtspOverHttpSession::decode_post_data(std::string_view text) {
    m_post->received += static_cast<int64_t>(text.size());
    m_last_byte_us = text.empty() ? m_last_byte_us : CTime::getCurrentMicroSecond();
    const size_t length = text.size();
    while (!text.empty()) {
        const int room = m_requests.Room();
        const int count = m_base64.Decode(text, m_requests.Free(), room);
        if (count < 0 || room == 0) {
            const char* why = room == 0 ? "%s:%d m_buf_base64:%zu bytes too long, refused\n"
                                        : "%s:%d m_buf_base64:%zu bytes of no base64, refused\n";
            logError(why, __FILE__, __LINE__, length);
            m_conversation.End(MSG_SRC_FAIL);
            return -1;
        }
        logDebug("%s:%d m_recv_buffer:%d bytes\n", __FILE__, __LINE__, count);
        if (count > 0 && take_requests(count) < 0) {
            logError("%s:%d, parse_request failed.\n", __FILE__, __LINE__);
            return -1;
        }
    }
    m_conversation.ReleaseMemory();  // characters that made no byte have opened it in vain
    return 0;
}

int64_t CRtspOverHttpSession::handle_timeout(long timer_id) {
    if (timer_id != m_silence_timer) {
        return CSvrSessionCore::handle_timeout(timer_id);
    }
    const uint64_t limit_us =
        static_cast<uint64_t>(m_conversation.Config().GetKeepAliveTimeout()) * static_cast<uint64_t>(US_PER_SECOND);
    if (!m_conversation.IsStreaming() && CTime::getCurrentMicroSecond() - m_last_byte_us >= limit_us) {
        m_conversation.OnControlSilence();
    }
    return 0;
}

// The manager has no say in it: it only forgets the cookie.
void CRtspOverHttpSession::close_session() {
    m_tunnel->End();
    Notify(m_manager_id, MSG_TUNNEL_ENDED, 0);
    CNetHandler::Close();
}

}  // namespace Vidora
}  // namespace Kavio
