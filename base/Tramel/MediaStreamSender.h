#ifndef VIDORA_TRAMEL_MEDIASTREAMSENDER_H
#define VIDORA_TRAMEL_MEDIASTREAMSENDER_H

#include <cstdint>
#include <memory>

#include "Tramel/StreamOutput.h"
#include "Vidora/Export.h"
#include "Vidora/Ostra/Function.h"
#include "Vidora/Ostra/Mutex.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

class CMediaPacket;
class CSock;
class CUnitBatch;

// CMediaStreamSender: the media face of a stream socket's output queue; a sink of CMediaBuffer.
//
// The queue is bounded in bytes and age. When it is full whole media units are dropped, never control text, and the
// track goes on being dropped until its next key frame; see CStreamOutput. Ended with Close().
//
// THREADING  All operations: any thread; they lock for themselves. Attach, Detach and Close of one sender come from one
//            thread at a time. The send procedure runs on the thread that writes for the buffer: one of the pool's, or
//            the putting one while the pool is busy; not twice at once for one sender, and with no lock held.
// OWNERSHIP  Borrows the socket from Attach to Detach or Close, after which it doesn't touch it again. Must have left
//            every buffer (CMediaBuffer::DelSender) before Close.
class VIDORA_API CMediaStreamSender : public CNetHandler, private COutputFace {
public:
    // A sender on the heap, or null.
    static CMediaStreamSender* Create();

    // Sends on `sock`, a CSockStream, which stays its owner's, and lets go of a former one. 0, or -1: a null or invalid
    // socket, or one that has a media sender already.
    int Attach(CSock* sock);
    // On a send failure, or no progress for the send time-out, message 2 goes to that handler, once; at once if the
    // socket has failed already.
    void WaitException(long handler_id);
    // Seconds without progress after which a full socket counts as failed; 0, the default, for never. It is noticed at
    // most one second late.
    void SetSendTimeout(unsigned int seconds);
    // Bounds of the queue: bytes of media that wait (default 4 MiB) and milliseconds that the oldest may wait (default
    // 10000); 0 leaves a bound as it is.
    void SetQueueLimit(unsigned int bytes, unsigned int age_ms);
    // The callback that receives the packets of CMediaBuffer::PutFrameInfo, with the packet, its length and 0. It is
    // called when the packet that follows the information is sent or queued, and not at all if this sender drops it: a
    // gap in the frame numbers shows what its client lost. False for an empty one.
    bool AttachSendProc(Ostra::TFunction3<void, CMediaPacket*, int, int> proc);
    // Switches one of the tracks 0 to 7 on or off; all are on at first, others are ignored. A packet of a disabled
    // track (the top byte of its channel word) is dropped for this sender. Tracks above 7 can't be switched.
    void SetSendChannel(int channel);
    void DisableSendChannel(int channel);
    // Slips control text between media packets, never inside one; it is never dropped.
    void SendOtherData(const char* data, int length);
    // Lets go of the socket, and gives it back, or null. Media that is queued is dropped, except the rest of a packet
    // that is half sent; control text stays with the socket for another sender.
    CSock* Detach();

    int handle_output(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    friend class CSinkGroup;
    static const unsigned int SWITCHED_TRACKS = 8;

    CMediaStreamSender() = default;
    ~CMediaStreamSender() override = default;

    typedef Ostra::TFunction3<void, CMediaPacket*, int, int> send_proc_t;

    // For CMediaBuffer. Sends what of the batch is for this sink; the set of the units (bit by index) that it took, and
    // the procedure that gets their side packets.
    uint64_t send_batch(const CUnitBatch& batch, uint64_t from_sequence, send_proc_t& proc);

    std::shared_ptr<CStreamOutput> output();
    int WatchWrite(int fd) override;
    void PostFailure(long target) override;
    long StartTimer(int64_t period_us) override;
    void StopTimer(long timer_id) override;

    Ostra::CMutex m_mutex;
    std::shared_ptr<CStreamOutput> m_output VIDORA_GUARDED_BY(m_mutex);
    CSock* m_sock VIDORA_GUARDED_BY(m_mutex) = nullptr;
    unsigned int m_slots VIDORA_GUARDED_BY(m_mutex) = ~0U;  // tracks that are on, by COutputUnit::Slot
    Ostra::TFunction3<void, CMediaPacket*, int, int> m_proc VIDORA_GUARDED_BY(m_mutex);
    long m_exception_id VIDORA_GUARDED_BY(m_mutex) = 0;
    unsigned int m_timeout_s VIDORA_GUARDED_BY(m_mutex) = 0;
    unsigned int m_limit_bytes VIDORA_GUARDED_BY(m_mutex) = CStreamOutput::DEFAULT_LIMIT_BYTES;
    unsigned int m_limit_age_ms VIDORA_GUARDED_BY(m_mutex) = CStreamOutput::DEFAULT_LIMIT_AGE_MS;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIASTREAMSENDER_H
