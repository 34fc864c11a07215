#ifndef VIDORA_TRAMEL_SOCKSENDER_H
#define VIDORA_TRAMEL_SOCKSENDER_H

#include <cstdint>
#include <memory>

#include "Tramel/StreamOutput.h"
#include "Vidora/Ostra/Mutex.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

class CSock;

// CSockSender: what the senders of a stream socket have in common: their hold on the socket and on its output queue.
// Ended with Close().
//
// THREADING  All operations: any thread; they lock for themselves. Attach (of the derived classes), Detach and Close of
//            one sender come from one thread at a time. Lock order: m_mutex, then the queue's, then the reactor's.
// OWNERSHIP  Borrows the socket, and the handler that waits for room in it, until Detach or Close returns.
class CSockSender : public CNetHandler, private COutputFace {
public:
    // On a send failure, or no progress for the queue's send time-out, message 2 goes to that handler, once; at once if
    // the socket has failed already.
    void WaitException(long handler_id);
    // Releases the socket and returns it, or null. Media that is queued is dropped, except the rest of a packet
    // that is half sent; control text stays with the socket for another sender.
    CSock* Detach();

    int handle_output(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

protected:
    CSockSender() = default;
    ~CSockSender() override = default;

    // `sender`, or null if it is that, or memory was short for its handler.
    template <typename Sender>
    static Sender* whole(Sender* sender) {
        const bool is_whole = sender != nullptr && sender->GetID() != 0;
        if (!is_whole) {
            delete static_cast<CSockSender*>(sender);
        }
        return is_whole ? sender : nullptr;
    }
    // Joins the queue of `sock`, a CSockStream, and leaves a former one. `waiter`'s handle_output is to call this
    // sender's when there is room again. 0, or -1: a null or invalid socket (the former one stays), or one that has a
    // media sender already.
    int attach_locked(CSock* sock, bool is_media, CNetHandler& waiter) VIDORA_REQUIRES(m_mutex);
    // The queue; null while nothing is attached.
    std::shared_ptr<CStreamOutput> output();

    Ostra::CMutex m_mutex;
    std::shared_ptr<CStreamOutput> m_output VIDORA_GUARDED_BY(m_mutex);

private:
    int WatchWrite(int fd) override;
    void PostFailure(long target) override;
    long StartTimer(int64_t period_us) override;
    void StopTimer(long timer_id) override;

    CNetHandler* m_waiter = nullptr;  // set while not attached, read under the queue's lock
    CSock* m_sock VIDORA_GUARDED_BY(m_mutex) = nullptr;
    long m_exception_id VIDORA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCKSENDER_H
