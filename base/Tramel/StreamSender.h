#ifndef VIDORA_TRAMEL_STREAMSENDER_H
#define VIDORA_TRAMEL_STREAMSENDER_H

#include <memory>

#include "Vidora/Export.h"
#include "Vidora/Ostra/Mutex.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

class CSock;
class CStreamOutput;

// CStreamSender: the control-text face of a stream socket's output queue.
//
// Text is never dropped and never lands inside a media packet (see CStreamOutput). Ended with Close().
//
// THREADING  All operations: any thread; they lock for themselves.
class VIDORA_API CStreamSender : public CNetHandler {
public:
    // A sender on the heap, or null.
    static CStreamSender* Create();

    // Queues for `sock`, a CSockStream, from now on. Write interest is registered on behalf of `owner`, whose
    // handle_output calls this sender's. 0, or -1 for a null or invalid argument.
    int Attach(CNetHandler* owner, CSock* sock);
    // On a send failure message 2 goes to that handler.
    void WaitException(long handler_id);
    // Queues `len` bytes whole and in order, sending at once what the socket takes. 0, or -1: nothing attached, a
    // broken socket, or memory short.
    int Put(const char* buf, unsigned int len);
    // Lets go of the socket, and gives it back, or null.
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

    Ostra::CMutex m_mutex;
    CSock* m_sock VIDORA_GUARDED_BY(m_mutex) = nullptr;
    std::shared_ptr<CStreamOutput> m_output VIDORA_GUARDED_BY(m_mutex);
    long m_exception_id VIDORA_GUARDED_BY(m_mutex) = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_STREAMSENDER_H
