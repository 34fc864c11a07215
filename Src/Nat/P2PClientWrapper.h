#ifndef VIDORA_NAT_P2PCLIENTWRAPPER_H
#define VIDORA_NAT_P2PCLIENTWRAPPER_H

#include <memory>

#include "Nat/HostCalls.h"
#include "Vidora/Names.h"
#include "Vidora/P2PClientSession.h"
#include "Vidora/RtspClientBuffer.h"

namespace Kavio {
namespace Vidora {

// CP2PClientWrapper: plays a stream through NATs and passes its frames to two callbacks: a CP2PClientSession with the
// handler and the sink that it needs. Made by new, ended by Close, after which it deletes itself.
//
// THREADING  Start, Play, Pause, Close: any thread, also inside the callbacks; no callback runs with a lock held.
//            `on_frame` and damaged media come on the thread that receives, the end of the stream on the own strand.
class CP2PClientWrapper : public CNetHandler {
public:
    // What CRtspClientBuffer gets. `on_error` is also called with CHostCalls::STREAM_OVER, once, when the stream has
    // ended by itself. Each may be null.
    CP2PClientWrapper(CRtspClientBuffer::frame_callback_t on_frame, CRtspClientBuffer::error_callback_t on_error,
                      void* user);

    // See CP2PClientSession::Start. The stream is played as soon as its tracks are set up. Once.
    int Start(const char* url, int sock_handle);
    // See CP2PClientSession::Play. -1 also before Start.
    int Play(float begin, float end, float speed, bool scale);
    // 0, or -1 before Start.
    int Pause();
    // Ends the session, and stops Calls().
    void Close() override;
    // The callbacks, for who has to wait for them when Close was called before; null if memory was short.
    const std::shared_ptr<CHostCalls>& Calls() const { return m_calls; }

    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

private:
    class CFrameSink;

    ~CP2PClientWrapper() override;
    bool begin_frames_locked() VIDORA_REQUIRES(m_mutex);

    const std::shared_ptr<CHostCalls> m_calls;

    CMutex m_mutex;
    CP2PClientSession* m_client VIDORA_GUARDED_BY(m_mutex) = nullptr;  // from Start to Close
    std::shared_ptr<CFrameSink> m_frame_sink VIDORA_GUARDED_BY(m_mutex);
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_NAT_P2PCLIENTWRAPPER_H
