#ifndef VIDORA_HTTPTUNNEL_H
#define VIDORA_HTTPTUNNEL_H

#include <cstdint>
#include <memory>
#include <string_view>

#include "Tramel/SockStream.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// A connection whose POST carries a tunnel's requests, with the bytes of the body that came along with its head.
struct HttpPost {
    std::unique_ptr<CSockStream> sock;
    std::unique_ptr<char[]> rest;
    size_t rest_length = 0;
    int64_t content_length = -1;  // -1: unknown
    int64_t received = 0;         // bytes of the body

    std::string_view Rest() const { return std::string_view(rest.get(), rest_length); }
    // Whether the body has come that the head spoke of.
    bool IsUsedUp() const { return content_length >= 0 && received >= content_length; }
};

// CHttpTunnel: what the manager of tunnels and one tunnelled session have in common: the POST that the one offers and
// the other takes on its own strand. One lies here at a time.
//
// THREADING  All operations: any thread. Nothing is called under the lock.
// OWNERSHIP  Shared by both; a POST that nobody took is closed with it, or by End.
class CHttpTunnel {
public:
    // False if the session has gone, or has not yet taken the last one; `post` stays the caller's then.
    bool Offer(std::unique_ptr<HttpPost>& post) {
        CGuard guard(m_mutex);
        if (m_ended || m_post != nullptr) {
            return false;
        }
        m_post = std::move(post);
        return true;
    }
    // Null if there is none.
    std::unique_ptr<HttpPost> Take() {
        CGuard guard(m_mutex);
        return std::move(m_post);
    }
    // The session takes no more.
    void End() {
        std::unique_ptr<HttpPost> last;  // closed behind the lock
        CGuard guard(m_mutex);
        m_ended = true;
        last = std::move(m_post);
    }

private:
    CMutex m_mutex;
    bool m_ended VIDORA_GUARDED_BY(m_mutex) = false;
    std::unique_ptr<HttpPost> m_post VIDORA_GUARDED_BY(m_mutex);
};

// Messages between the manager and a session.
enum tunnel_message_t {
    MSG_TUNNEL_ARRIVAL = 0x1f11,  // to the manager itself: a connection has come
    MSG_TUNNEL_POST = 0x1f12,     // to the session: a POST is offered
    MSG_TUNNEL_STOP = 0x1f13,     // to the manager itself: who waits is dropped
    MSG_TUNNEL_ENDED = 0x1000     // to the manager: the sender has gone
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_HTTPTUNNEL_H
