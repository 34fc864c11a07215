#ifndef VIDORA_RTSPOVERHTTPSESSION_H
#define VIDORA_RTSPOVERHTTPSESSION_H

#include <memory>

#include "RtspOverHttp/Base64Stream.h"
#include "RtspOverHttp/HttpTunnel.h"
#include "SvrSessionCore.h"

namespace Kavio {
namespace Vidora {

// CRtspOverHttpSession: an RTSP session on the two connections of an HTTP tunnel. Replies and media leave on that of
// the GET; the body of the POST carries the requests in base64. See CSvrSessionCore.
//
// A proxy may end a POST at any time. The session waits for the next one then, in PLAY without limit, otherwise for the
// keep-alive time, which runs from the last byte of a body. What comes on a later POST is judged by the gate anew: who
// knows the cookie alone can do nothing.
//
// A new POST goes on in the middle of a request only if the former one came to the length that its head spoke of.
//
// The host hears no connect event of it, and so no disconnect event. The client gets sender reports if the
// configuration asks for the standards' way.
//
// OWNERSHIP  Owns both connections; shares the tunnel with the manager, which it notifies of its end by a message.
class CRtspOverHttpSession : public CSvrSessionCore {
public:
    CRtspOverHttpSession(const std::shared_ptr<CHttpTunnel>& tunnel, long manager_id)
        : m_tunnel(tunnel), m_manager_id(manager_id) {}

    // Takes the GET's connection over, and begins on the session's strand, with the POST that lies in the tunnel; the
    // session may be gone when this returns. Called once, when all is set.
    void Start(CSockStream* get_sock);

    int handle_input(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    bool SendsReports() const override { return m_conversation.Config().GetConformance(); }

protected:
    int Init(int count) override;
    void close_session() override;

private:
    ~CRtspOverHttpSession() override;

    int set_post_stream(std::unique_ptr<HttpPost> post);
    bool is_post_over();
    int read_post();
    int drop_post();
    int read_get();
    int decode_post_data(std::string_view text);

    const std::shared_ptr<CHttpTunnel> m_tunnel;
    const long m_manager_id;
    std::unique_ptr<HttpPost> m_post;  // null while the session waits for one
    CBase64Stream m_base64;
    long m_silence_timer = 0;
    uint64_t m_last_byte_us = 0;  // of a POST
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPOVERHTTPSESSION_H
