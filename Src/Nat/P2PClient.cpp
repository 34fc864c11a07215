#include "Nat/P2PClient.h"

#include <sys/socket.h>

#include <memory>
#include <new>

#include "Protocol/LogQuote.h"

namespace Kavio {
namespace Vidora {

namespace {

bool is_datagram_socket(int fd) {
    int type = 0;
    socklen_t length = sizeof(type);
    return ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_DGRAM;
}

}  // namespace

CP2PClient::~CP2PClient() {
    logDebug("%s:%s this:%p \n", __FILE__, __func__, static_cast<void*>(this));
}

CP2PClient* CP2PClient::Create(long owner_id) {
    return checked(new (std::nothrow) CP2PClient(owner_id));
}

int CP2PClient::Start(const std::string& url, const client_settings& settings, int sock_handle) {
    return GuardedCall([&] { return start(url, settings, sock_handle); });
}

int CP2PClient::start(const std::string& url, client_settings settings, int sock_handle) {
    client_host host;
    if (!ReadClientUrl(url, settings, host)) {
        return -1;
    }
    const CSockAddrStorage server = host.Address();
    if (!server.IsValid()) {
        const CLogQuote quote(Ostra::LOG_LEVEL_WARN, url.c_str());
        logWarn("%s:%d invalid rtsp url: %s\n", __FILE__, __LINE__, quote.Text());
        return -1;
    }
    settings.transport = RTP_OVER_RTSP;
    settings.packet_type = PACKET_TYPE_RTP;
    const std::shared_ptr<CSockDgram> sock = std::make_shared<CSockDgram>();
    if (!is_datagram_socket(sock_handle) || sock->Attach(sock_handle) < 0) {
        logError("%s %d client attach failed!\n", __FILE__, __LINE__);
        return -1;
    }
    const bool takes_rtcp = settings.conformance;
    const int result =
        put_start(url, settings, [this, server, sock, takes_rtcp] { m_link.Open(server, sock, takes_rtcp); });
    if (result < 0) {
        sock->Detach();  // it stays the caller's
    }
    return result;
}

int64_t CP2PClient::handle_timeout(long timer_id) {
    const Ostra::CLogLimit::CScope log(m_log);
    if (!m_conversation.IsEnded()) {
        m_link.OnTick();
    }
    return m_conversation.OnTimer(timer_id);
}

}  // namespace Vidora
}  // namespace Kavio
