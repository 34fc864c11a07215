#ifndef VIDORA_NAT_HOSTCALLS_H
#define VIDORA_NAT_HOSTCALLS_H

#include <memory>
#include <thread>

#include "Tramel/CallWait.h"
#include "Vidora/Names.h"
#include "Vidora/RtspClientBuffer.h"

namespace Kavio {
namespace Vidora {

// CHostCalls: the two functions by which a host hears of its stream, and how it stops them: whoever stops waits, also
// when another thread has stopped before, or a function that runs has done so itself and goes on.
//
// THREADING  Frames and damage: one thread at a time. TellOver: beside them. Stop: any thread, also inside a function.
// OWNERSHIP  Shared by all who call and who stop. `user` is passed through.
class CHostCalls {
public:
    typedef CRtspClientBuffer::frame_callback_t frame_callback_t;
    typedef CRtspClientBuffer::error_callback_t error_callback_t;

    enum { STREAM_OVER = 1 };  // the code of TellOver

    // Both functions may be null. Null if memory is short.
    static std::shared_ptr<CHostCalls> Create(frame_callback_t on_frame, error_callback_t on_error, void* user);

    // What CRtspClientBuffer is to call, with the object as its `user`.
    static void OnFrame(const unsigned char* data, unsigned int size, void* calls);
    static void OnError(int code, void* calls);
    // Once; later ones do nothing.
    void TellOver();
    // When it returns no call runs or will begin, but for one that it is called from, and one on another thread that is
    // inside Stop as well, which would wait for this one.
    void Stop();

private:
    enum kind_t { MEDIA, OVER, KINDS };
    struct call_t {
        bool runs = false;
        bool stops = false;  // it has called Stop
        std::thread::id thread;
    };

    CHostCalls(frame_callback_t on_frame, error_callback_t on_error, void* user)
        : m_on_frame(on_frame), m_on_error(on_error), m_user(user) {}

    bool begin(kind_t kind);
    void end(kind_t kind);
    void tell_error(kind_t kind, int code);
    bool must_wait_locked(bool inside) const VIDORA_REQUIRES(m_mutex);

    const frame_callback_t m_on_frame;
    const error_callback_t m_on_error;
    void* const m_user;

    CMutex m_mutex;
    Tramel::CCallWait m_wait;  // used with m_mutex
    call_t m_calls[KINDS] VIDORA_GUARDED_BY(m_mutex);
    bool m_stopped VIDORA_GUARDED_BY(m_mutex) = false;
    bool m_told VIDORA_GUARDED_BY(m_mutex) = false;  // that the stream is over
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NAT_HOSTCALLS_H
