#include "RtspClient/RtspClient.h"

#include <new>

#include "Protocol/LogQuote.h"
#include "Tramel/IpText.h"
#include "Tramel/SockStream.h"
#include "Vidora/RtspUrlParser.h"

namespace Kavio {
namespace Vidora {

CRtspClient::CRtspClient(long owner_id)
    : m_owner_id(owner_id), m_link(*this, m_conversation), m_conversation(*this, m_link, owner_id) {}

CRtspClient::~CRtspClient() = default;

CRtspClient* CRtspClient::Create(long owner_id) {
    CRtspClient* client = new (std::nothrow) CRtspClient(owner_id);
    if (client != nullptr && !client->m_conversation.IsValid()) {
        delete client;
        return nullptr;
    }
    return client;
}

bool CRtspClient::ReadUrl(const std::string& url, client_settings& settings, client_host& host) {
    CRtspUrlParser parser;
    char user[AUTH_TEXT_SIZE] = "";
    char password[AUTH_TEXT_SIZE] = "";
    auth_info_tc auth = {user, password};
    const unsigned int length = static_cast<unsigned int>(url.size());
    if (url.size() > RTSP_MAX_TEXT || !parser.ParseUrl(url.c_str(), length) || !host.Reads(url)) {
        const CLogQuote quote(Ostra::LOG_LEVEL_WARN, url.c_str());
        logWarn("%s:%d invalid rtsp url: %s\n", __FILE__, __LINE__, quote.Text());
        return false;
    }
    if (parser.GetAuthInfo(auth, 0) == 0) {
        settings.user = user;
        settings.password = password;
        settings.has_auth = true;
    }
    return true;
}

int CRtspClient::Start(const std::string& url, const client_settings& settings) {
    return start(url, settings, nullptr);
}

int CRtspClient::Start(const std::string& url, const client_settings& settings, int sock) {
    try {
        const std::shared_ptr<CSockStream> stream = std::make_shared<CSockStream>();
        if (stream->Attach(sock) < 0) {
            return -1;
        }
        if (start(url, settings, stream) < 0) {
            stream->Detach();  // it stays the caller's
            return -1;
        }
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

int CRtspClient::start(const std::string& url, const client_settings& settings, std::shared_ptr<CSockStream> sock) {
    try {
        client_settings own(settings);
        client_host host;
        if (!ReadUrl(url, own, host)) {
            return -1;
        }
        return m_conversation.PutWork([this, url, own, host, sock] { begin(url, own, host, sock); });
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

void CRtspClient::begin(const std::string& url, const client_settings& settings, const client_host& host,
                        const std::shared_ptr<CSockStream>& sock) {
    int result = -1;
    try {
        result = m_conversation.Begin(url, settings);
    } catch (const std::bad_alloc&) {
        result = -1;
    }
    if (result < 0) {
        m_conversation.Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
    } else if (sock != nullptr) {
        m_link.Adopt(sock);
    } else {
        connect(host);
    }
}

void CRtspClient::connect(const client_host& host) {
    sockaddr_storage native = {};
    m_port = host.port;
    if (Tramel::ParseIpText(host.name.c_str(), native)) {
        CSockAddrStorage addr;
        addr.SetSockAddr(reinterpret_cast<const sockaddr*>(&native), sizeof(native));
        addr.SetPort(m_port);
        m_link.Connect(addr);
    } else if (m_resolver.Begin(*this, MSG_RESOLVED, host.name) < 0) {
        m_conversation.OnLinkFailed(RTSP_CLIENT_FAILURE_NAME);
    }
}

void CRtspClient::on_resolved() {
    if (!m_resolver.IsRunning() || m_conversation.IsEnded()) {
        return;
    }
    CSockAddrStorage addr = m_resolver.Result();
    if (addr.IsValid()) {
        addr.SetPort(m_port);
        m_link.Connect(addr);
    } else {
        m_conversation.OnLinkFailed(RTSP_CLIENT_FAILURE_NAME);
    }
}

void CRtspClient::Close() {
    CountAsEnding();
    m_conversation.Cut();
    Notify(GetID(), MSG_CLOSE, 0);
}

int CRtspClient::handle_input(int fd) {
    return m_link.OnInput(fd);
}

int CRtspClient::handle_output(int fd) {
    return m_link.OnOutput(fd);
}

int CRtspClient::handle_exception(int fd) {
    return m_link.OnException(fd);
}

int CRtspClient::handle_output_timeout(int fd) {
    return m_link.OnConnectTimeout(fd);
}

int64_t CRtspClient::handle_timeout(long timer_id) {
    if (m_resolver.IsRunning() && ++m_resolve_ticks > ClientTiming().resolve_ticks) {
        m_resolver.Cancel();
        m_conversation.OnLinkFailed(RTSP_CLIENT_FAILURE_NAME);
    }
    return m_conversation.OnTimer(timer_id);
}

int CRtspClient::handle_message(long sender_id, unsigned int msg, long) {
    switch (msg) {
        case MSG_CLOSE:
            m_ending = true;
            m_resolver.Cancel();
            m_conversation.End();
            break;
        case MSG_RESOLVED:
            on_resolved();
            break;
        default:
            m_conversation.OnMessage(sender_id, msg);
            break;
    }
    if (m_ending && m_conversation.IsOver()) {
        EndHandler();
    }
    return 0;
}

int CRtspClient::handle_close(CNetHandler*) {
    logDebug("%s:%s client:%p \n", __FILE__, __func__, static_cast<void*>(this));
    Notify(m_owner_id, MSG_SOURCE_CLOSED, 0);
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
