#ifndef VIDORA_TRAMEL_MEDIASTREAMSENDER_H
#define VIDORA_TRAMEL_MEDIASTREAMSENDER_H

#include <cstdint>

#include "Tramel/SockSender.h"
#include "Vidora/Ostra/Function.h"

namespace Kavio {
namespace Tramel {

class CMediaPacket;

// CMediaStreamSender: the media face of a stream socket's output queue; a sink of CMediaBuffer.
//
// The queue is bounded in bytes and age. When it is full whole media units are dropped, never control text, and the
// track goes on being dropped until its next key frame; see CStreamOutput.
//
// While it is in a buffer its part in a put is an entry in an array (CSinkEntry), and this object is looked at only to
// call the send procedure. It is in one buffer at a time.
//
// THREADING  See CSockSender. The send procedure runs on the thread that writes for the buffer: one of the pool's, or
//            the putting one while the pool is busy; not twice at once for one sender, and with no lock held.
// OWNERSHIP  See CSockSender. Must have left every buffer (CMediaBuffer::DelSender) before Close.
class CMediaStreamSender : public CSockSender {
public:
    // A sender on the heap, or null.
    static CMediaStreamSender* Create();

    // Sends on `sock`, a CSockStream, which stays its owner's, and releases a former one. 0, or -1: a null or invalid
    // socket, or one that has a media sender already.
    int Attach(CSock* sock);
    // Seconds after which a socket that was full counts as failed if the peer's system has acknowledged nothing
    // meanwhile; 0, the default, for never. A peer that takes something now and then, however little, goes on. It is
    // noticed at most two seconds late.
    void SetSendTimeout(unsigned int seconds);
    // Bounds of the queue: bytes of media that wait (default 4 MiB) and milliseconds that the oldest may wait (default
    // 10000); 0 leaves a bound as it is.
    void SetQueueLimit(unsigned int bytes, unsigned int age_ms);
    // The callback that receives the packets of CMediaBuffer::PutFrameInfo: the packet, its length, and for a numbered
    // one (CNumberedPacket) the number of the track's frame that this sender took before, 0 for none. It is called when
    // the packet that follows the information is sent or queued, and not at all if this sender drops it: a gap in the
    // frame numbers shows what its client lost. One that is dropped later, as it has grown old in the queue, makes a
    // gap too. With TOLD_GAPS only such gaps are told. False for an empty one.
    bool AttachSendProc(Ostra::TFunction3<void, CMediaPacket*, int, int> proc, told_t told = TOLD_ALL);
    // True: who hears of gaps alone hears of every frame, for the whole process. Any thread.
    static void TellAll(bool on);
    // Switches one of the tracks 0 to 7 on or off; all are on at first, others are ignored. Frame numbers of a track
    // that is switched on count anew. A packet of a disabled track (the top byte of its channel word) is dropped for
    // this sender. Tracks above 7 can't be switched.
    void SetSendChannel(int channel);
    void DisableSendChannel(int channel);
    // Switches a track off as well; once it is on again it goes on with its next key frame, if it has such frames.
    void PauseSendChannel(int channel);
    // Slips control text between media packets, never inside one; it is never dropped.
    void SendOtherData(const char* data, int length);
    // About how many bytes the peer's system hasn't taken yet; 0 if it never will. A connection that is closed while
    // there are some loses them as soon as the peer sends anything (RFC 1122 4.2.2.13).
    uint64_t Unsent();

private:
    friend class CSinkGroup;
    static const unsigned int SWITCHED_TRACKS = 8;

    CMediaStreamSender() = default;
    ~CMediaStreamSender() override = default;

    typedef Ostra::TFunction3<void, CMediaPacket*, int, int> send_proc_t;

    void switch_tracks(unsigned int on, unsigned int off);

    // For a group. From join to leave `entry` is this sender's; false if it has one already.
    bool join(CSinkEntry& entry);
    void leave();
    send_proc_t proc();

    CSinkEntry* m_entry VIDORA_GUARDED_BY(m_mutex) = nullptr;
    unsigned int m_slots VIDORA_GUARDED_BY(m_mutex) = ~0U;  // tracks that are on, by COutputUnit::Slot
    send_proc_t m_proc VIDORA_GUARDED_BY(m_mutex);
    told_t m_told VIDORA_GUARDED_BY(m_mutex) = TOLD_NOTHING;
    unsigned int m_timeout_s VIDORA_GUARDED_BY(m_mutex) = 0;
    unsigned int m_limit_bytes VIDORA_GUARDED_BY(m_mutex) = CStreamOutput::DEFAULT_LIMIT_BYTES;
    unsigned int m_limit_age_ms VIDORA_GUARDED_BY(m_mutex) = CStreamOutput::DEFAULT_LIMIT_AGE_MS;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIASTREAMSENDER_H
