#ifndef VIDORA_RTSPCLIENT_RTSPCLIENT_H
#define VIDORA_RTSPCLIENT_RTSPCLIENT_H

#include <memory>
#include <string>

#include "RtspClient/ClientEngine.h"
#include "RtspClient/HostResolver.h"
#include "RtspClient/TcpLink.h"

namespace Kavio {
namespace Vidora {

// CRtspClient: a client engine over TCP, see TClientEngine.
//
// THREADING  Create, Start: any thread; they return at once. All else as in TClientEngine.
class CRtspClient final : public TClientEngine<CTcpLink> {
public:
    // A message to itself besides those of the conversation.
    enum { MSG_RESOLVED = MSG_CLOSE + 1 };

    // Null if memory is short.
    static CRtspClient* Create(long owner_id);

    // Connects to the server of `url`. 0, or -1 with a log line: not an RTSP URL, or memory short. Once.
    int Start(const std::string& url, const client_settings& settings);
    // The same over a connected socket, which is the engine's if the result is 0.
    int Start(const std::string& url, const client_settings& settings, int sock);

    int handle_output(int fd) override;
    int handle_exception(int fd) override;
    int handle_output_timeout(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;

private:
    friend class TClientEngine<CTcpLink>;
    explicit CRtspClient(long owner_id) : TClientEngine(owner_id) {}
    ~CRtspClient() override = default;

    int start(const std::string& url, const client_settings& settings, std::shared_ptr<CSockStream> sock);
    void connect(const client_host& host);
    void on_resolved();

    CHostResolver m_resolver;
    unsigned short m_port = 0;
    unsigned int m_resolve_ticks = 0;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_RTSPCLIENT_H
