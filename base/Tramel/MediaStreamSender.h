#ifndef VIDORA_TRAMEL_MEDIASTREAMSENDER_H
#define VIDORA_TRAMEL_MEDIASTREAMSENDER_H

#include <memory>

#include "Vidora/Export.h"
#include "Vidora/Ostra/Function.h"
#include "Vidora/Ostra/Mutex.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

class CMediaBuffer;
class CMediaPacket;
class CSock;
class CStreamOutput;

// CMediaStreamSender: the media face of a stream socket's output queue; a sink of CMediaBuffer.
//
// The queue is bounded in bytes and age. When it is full whole media units are dropped, never control text, and the
// track goes on being dropped until its next key frame; see CStreamOutput. Ended with Close().
//
// THREADING  All operations: any thread; they lock for themselves. The send procedure runs on the thread that puts.
class VIDORA_API CMediaStreamSender : public CNetHandler {
public:
    // A sender on the heap, or null.
    static CMediaStreamSender* Create();

    // Sends on `sock`, a CSockStream, which stays its owner's. 0 or -1.
    int Attach(CSock* sock);
    // On a send failure, or no progress for the send time-out, message 2 goes to that handler.
    void WaitException(long handler_id);
    // Seconds without progress after which the socket counts as failed; 0, the default, for never.
    void SetSendTimeout(unsigned int seconds);
    // Bounds of the queue: bytes of media that wait (default 4 MiB) and milliseconds that the oldest may wait (default
    // 10000); 0 leaves a bound as it is.
    void SetQueueLimit(unsigned int bytes, unsigned int age_ms);
    // The callback that receives the packets of CMediaBuffer::PutFrameInfo, with the packet, its length and 0. False
    // for an empty one.
    bool AttachSendProc(Ostra::TFunction3<void, CMediaPacket*, int, int> proc);
    // Switches one of the tracks 0 to 7 on or off; all are on at first. A packet of a disabled track (the top byte of
    // its channel word) is dropped for this sender.
    void SetSendChannel(int channel);
    void DisableSendChannel(int channel);
    // Slips control text between media packets, never inside one; it is never dropped.
    void SendOtherData(const char* data, int length);
    // Lets go of the socket, and gives it back, or null.
    CSock* Detach();

    int handle_output(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    friend class CMediaBuffer;
    CMediaStreamSender();
    ~CMediaStreamSender() override;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIASTREAMSENDER_H
