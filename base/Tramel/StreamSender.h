#ifndef VIDORA_TRAMEL_STREAMSENDER_H
#define VIDORA_TRAMEL_STREAMSENDER_H

#include <memory>

#include "Tramel/StreamOutput.h"
#include "Vidora/Export.h"
#include "Vidora/Ostra/Mutex.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

class CSock;

// CStreamSender: the control-text face of a stream socket's output queue.
//
// Text is never dropped and never lands inside a media packet (see CStreamOutput). Ended with Close().
//
// THREADING  All operations: any thread; they lock for themselves. Attach, Detach and Close of one sender come from one
//            thread at a time. After Detach or Close the sender doesn't touch the socket or the owner again.
class VIDORA_API CStreamSender : public CNetHandler, private COutputFace {
public:
    // A sender on the heap, or null.
    static CStreamSender* Create();

    // Queues for `sock`, a CSockStream, from now on, and lets go of a former one. Write interest is registered on
    // behalf of `owner`, whose handle_output calls this sender's. 0, or -1 for a null or invalid argument.
    int Attach(CNetHandler* owner, CSock* sock);
    // On a send failure message 2 goes to that handler, once; at once if the socket has failed already.
    void WaitException(long handler_id);
    // Queues `len` bytes whole and in order, sending at once what the socket takes. 0, or -1: nothing attached, a
    // broken socket, or memory short.
    int Put(const char* buf, unsigned int len);
    // Lets go of the socket, and gives it back, or null. What is queued goes on through another sender of the socket.
    CSock* Detach();
    // Drops the text that is queued, except the rest of a unit that is half sent. 0.
    int Clear();

    // Called by the owner's handle_output: sends on.
    int handle_output(int fd) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    CStreamSender() = default;
    ~CStreamSender() override = default;

    std::shared_ptr<CStreamOutput> output();
    int WatchWrite(int fd) override;
    void PostFailure(long target) override;
    long StartTimer(int64_t period_us) override;
    void StopTimer(long timer_id) override;

    CNetHandler* m_owner = nullptr;  // set while not attached, read under the queue's lock

    Ostra::CMutex m_mutex;
    CSock* m_sock VIDORA_GUARDED_BY(m_mutex) = nullptr;
    std::shared_ptr<CStreamOutput> m_output VIDORA_GUARDED_BY(m_mutex);
    long m_exception_id VIDORA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_STREAMSENDER_H
