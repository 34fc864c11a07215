#ifndef VIDORA_SVRSESSIONCORE_H
#define VIDORA_SVRSESSIONCORE_H

#include <memory>

#include "RequestBuffer.h"
#include "SvrHandler.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CSvrSessionCore: a conversation whose texts leave on a TCP connection: all that a plain and a tunnelled session have
// in common. A derived class reads the bytes of requests into m_requests.
//
// OWNERSHIP  Owns the socket, the sender on it and the conversation.
// MEMORY     A peer can make it keep one CMessageMemory for bytes of a request that never ends, and what the
// conversation
//            keeps.
class CSvrSessionCore : public CSvrHandler {
public:
    int handle_output(int fd) override;
    int handle_input_timeout(int fd) override;

    void SendText(const char* text, int length) override;
    void StopSending() override;
    void GetPeer(CSockAddrStorage& peer) override;
    std::unique_ptr<IMediaRoute> MakeRoute(const RouteWish& wish) override;

protected:
    CSvrSessionCore();
    ~CSvrSessionCore() override;

    // Takes `count` bytes that were read to m_requests. Negative: the session is ending.
    int take_requests(int count);
    // Sends texts on m_sock from now on.
    void open_sender();
    // Prepares m_sock, and puts the host's module of that type in front. Whether URLs of ONVIF are judged by it is what
    // the configuration says, on every kind of connection: none is a way round it.
    void open_connection(rtsp_auth_t auth_type);
    // Lets the system break a connection whose peer has gone.
    void watch_peer(CSockStream& sock) const;

private:
    CStreamSender* m_stream_sender = nullptr;

protected:
    CSockStream* m_sock = nullptr;  // texts and media leave here; owned
    CRequestBuffer m_requests{m_conversation};
    CSvrConversation m_conversation;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRSESSIONCORE_H
