#ifndef VIDORA_RTSPCLIENT_RTSPCLIENT_H
#define VIDORA_RTSPCLIENT_RTSPCLIENT_H

#include <memory>
#include <string>

#include "RtspClient/ClientConversation.h"
#include "RtspClient/ClientHandler.h"
#include "RtspClient/HostResolver.h"
#include "RtspClient/TcpLink.h"

namespace Kavio {
namespace Vidora {

// CRtspClient: a client engine over TCP: the handler whose strand runs one conversation and its connection.
//
// Its owner is a handler: it gets the conversation's messages, and MSG_SOURCE_CLOSED last, after Close, when the
// engine, its receiver and its socket have gone. Everything that the owner gave it must live until then.
//
// THREADING  Create, Start, SetBuffer, Close and the "any thread" operations of Conversation(): any thread; they return
//            at once. What the conversation publishes may be read until Close; the engine itself, until the owner has
//            called Close. All else: its strand.
class CRtspClient final : public CClientHandler {
public:
    // Messages to itself besides those of the conversation.
    enum { MSG_CLOSE = 0x3010, MSG_RESOLVED = 0x3011 };

    // Null if memory is short.
    static CRtspClient* Create(long owner_id);

    // Checks a URL, and takes its host and the user and password that it names. False, with a log line, if it is none.
    static bool ReadUrl(const std::string& url, client_settings& settings, client_host& host);

    // Connects to the server of `url`. 0, or -1 with a log line: not an RTSP URL, or memory short. Once.
    int Start(const std::string& url, const client_settings& settings);
    // The same over a connected socket, which is the engine's if the result is 0.
    int Start(const std::string& url, const client_settings& settings, int sock);
    CClientConversation& Conversation() { return m_conversation; }
    // Begins the end. No message but MSG_SOURCE_CLOSED is posted by what begins later, nothing put into the buffer and
    // nothing written for the application. Once.
    void Close() override;

    int handle_input(int fd) override;
    int handle_output(int fd) override;
    int handle_exception(int fd) override;
    int handle_output_timeout(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

private:
    explicit CRtspClient(long owner_id);
    ~CRtspClient() override;

    int start(const std::string& url, const client_settings& settings, std::shared_ptr<CSockStream> sock);
    void begin(const std::string& url, const client_settings& settings, const client_host& host,
               const std::shared_ptr<CSockStream>& sock);
    void connect(const client_host& host);
    void on_resolved();

    const long m_owner_id;
    CTcpLink m_link;
    CClientConversation m_conversation;
    CHostResolver m_resolver;
    unsigned short m_port = 0;
    unsigned int m_resolve_ticks = 0;
    bool m_ending = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_RTSPCLIENT_H
