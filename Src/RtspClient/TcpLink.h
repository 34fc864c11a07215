#ifndef VIDORA_RTSPCLIENT_TCPLINK_H
#define VIDORA_RTSPCLIENT_TCPLINK_H

#include <memory>

#include "RtspClient/ClientLink.h"

namespace Kavio {
namespace Vidora {

// CTcpLink: a client's TCP connection to its server.
//
// THREADING  The strand of `handler`, but for the construction.
// MEMORY     4 kB of input, while a part of a message waits for the rest.
class CTcpLink final : public CHandlerLink {
public:
    using CHandlerLink::CHandlerLink;
    ~CTcpLink() override;

    // Begins to connect; OnLinkUp or OnLinkFailed follows, the latter also inside the call.
    void Connect(const CSockAddrStorage& addr);
    // Takes over a socket that is connected, or about to be.
    void Adopt(std::shared_ptr<CSockStream> sock);

    bool IsUp() const override { return m_sender != nullptr; }
    int Send(const char* bytes, unsigned int length) override;
    CSockAddrStorage Peer() const override;
    CSockAddrStorage Local() const override;
    CStreamReceiver* MakeReceiver(packet_type_t packet_type, long owner_id) override;
    void StopReading() override;
    void CloseLink() override;

    // The handler's callbacks.
    int OnInput(int fd);
    int OnOutput(int fd);
    int OnException(int fd);
    int OnConnectTimeout(int fd);

private:
    void watch_connect();
    int finish_connect();
    int cut_messages();

    std::shared_ptr<CSockStream> m_sock;
    CStreamSender* m_sender = nullptr;  // once connected; ended by its Close
    int m_received = 0;                 // bytes of m_buffer
    std::unique_ptr<char[]> m_buffer;   // a whole message and a NUL; null without bytes
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_TCPLINK_H
