#ifndef VIDORA_TRAMEL_STREAMSENDER_H
#define VIDORA_TRAMEL_STREAMSENDER_H

#include "Tramel/SockSender.h"

namespace Kavio {
namespace Tramel {

// CStreamSender: the control-text face of a stream socket's output queue.
//
// Text is never dropped and never lands inside a media packet (see CStreamOutput).
//
// THREADING and OWNERSHIP  See CSockSender.
class CStreamSender : public CSockSender {
public:
    // A sender on the heap, or null.
    static CStreamSender* Create();

    // Queues for `sock`, a CSockStream, from now on, and releases a former one. Write interest is registered on
    // behalf of `owner`, whose handle_output calls this sender's. 0, or -1 for a null or invalid argument.
    int Attach(CNetHandler* owner, CSock* sock);
    // Queues `len` bytes whole and in order, sending at once what the socket takes. 0, or -1: nothing attached, a
    // broken socket, or memory short.
    int Put(const char* buf, unsigned int len);
    // Drops the text that is queued, except the rest of a unit that is half sent. 0.
    int Clear();

private:
    CStreamSender() = default;
    ~CStreamSender() override = default;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_STREAMSENDER_H
