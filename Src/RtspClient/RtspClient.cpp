#include "RtspClient/RtspClient.h"

#include <new>

#include "Tramel/SockStream.h"

namespace Kavio {
namespace Vidora {

CRtspClient* CRtspClient::Create(long owner_id) {
    return checked(new (std::nothrow) CRtspClient(owner_id));
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
        if (!ReadClientUrl(url, own, host)) {
            return -1;
        }
        return put_start(url, own, [this, host, sock] {
            if (sock != nullptr) {
                m_link.Adopt(sock);
            } else {
                connect(host);
            }
        });
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

void CRtspClient::connect(const client_host& host) {
    const CSockAddrStorage addr = host.Address();
    m_port = host.port;
    if (addr.IsValid()) {
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

int CRtspClient::handle_output(int fd) {
    const Ostra::CLogLimit::CScope log(m_log);
    return m_link.OnOutput(fd);
}

int CRtspClient::handle_exception(int fd) {
    const Ostra::CLogLimit::CScope log(m_log);
    return m_link.OnException(fd);
}

int CRtspClient::handle_output_timeout(int fd) {
    const Ostra::CLogLimit::CScope log(m_log);
    return m_link.OnConnectTimeout(fd);
}

int64_t CRtspClient::handle_timeout(long timer_id) {
    const Ostra::CLogLimit::CScope log(m_log);
    if (m_resolver.IsRunning() && ++m_resolve_ticks > ClientTiming().resolve_ticks) {
        m_resolver.Cancel();
        m_conversation.OnLinkFailed(RTSP_CLIENT_FAILURE_NAME);
    }
    return m_conversation.OnTimer(timer_id);
}

int CRtspClient::handle_message(long sender_id, unsigned int msg, long param) {
    const Ostra::CLogLimit::CScope log(m_log);
    if (msg == MSG_CLOSE) {
        m_resolver.Cancel();
    } else if (msg == MSG_RESOLVED) {
        on_resolved();
    }
    return TClientEngine::handle_message(sender_id, msg, param);
}

}  // namespace Vidora
}  // namespace Kavio
