#ifndef VIDORA_TRAMEL_MEDIABUFFER_H
#define VIDORA_TRAMEL_MEDIABUFFER_H

#include <memory>

#include "Vidora/Export.h"

namespace Kavio {
namespace Tramel {

class CLevel2Buffer_IF;
class CMediaPacket;
class CMediaStreamSender;

// CMediaBuffer: fans packets out from one source to many sinks without a copy per sink.
//
// Senders are spread over groups of 16, or more when there are 32 groups. If all are in one group of at most 16 the
// putting thread writes them itself, as to wake another one would cost about as much. Otherwise a put hands each group
// the packet, wakes one thread of the pool and returns; that thread writes the groups, and leaves those that it hasn't
// reached after 8 ms of its processor time to all threads. Packets that come meanwhile leave in one vectored write a
// sender. While there is no pool, or it doesn't keep up, the putting thread writes as well. The library's own senders
// over UDP, which are level-2 sinks, are in these groups too, once EnableAutoSend was called; all others are called
// inside Put, at its end.
//
// So a send procedure may run on the putting thread, which is the host's frame thread of the source, and does so with
// few senders. The senders of a group are written one after another: a procedure that is slow holds up all of its group
// (their packets wait, and above 512 units or 8 MiB are dropped up to the next key frame), but no other group, and the
// putting thread once: after a write of more than 5 ms the pool does it for a second.
//
// A packet and the header put in front of it (flag 0) are one unit: sent or dropped together by a sender. A sender or
// level-2 sink gets only what is put after it was added, beginning at any unit.
//
// THREADING  All operations: any thread; they lock for themselves. Sinks are called with no lock held: a host's level-2
//            sinks on the putting thread, senders and their send procedures on the thread that writes.
//            DelSender and DelLevel2Buffer wait for a call of that very sink that runs on another thread, and for no
//            other. They may be called from inside any such call, also of the sink itself, which they then don't wait
//            for. They may be called with locks held, as long as no level-2 sink and no send procedure takes those; and
//            two calls that run at once mustn't remove each other's sinks.
// OWNERSHIP  Put and PutFrameInfo take the packet over and release it, on any thread, when the last sink is done; on
//            failure it stays the caller's. Sinks are borrowed: after DelSender, DelLevel2Buffer or the destructor
//            returns the buffer doesn't touch that sink again.
class VIDORA_API CMediaBuffer {
public:
    CMediaBuffer();
    virtual ~CMediaBuffer();
    CMediaBuffer(const CMediaBuffer&) = delete;
    CMediaBuffer& operator=(const CMediaBuffer&) = delete;

    // Packets go out to the senders as they are put, without a polling step. Before it, only level-2 sinks get them.
    void EnableAutoSend();
    // Hands the first `length` bytes of `packet` to every sender and every level-2 sink. `flag`: 1, or 0 for a header
    // whose frame is the next put, whatever flag that has. `channel`: bits 0 to 7 are 1 for a key frame, 5 for a frame
    // that may be skipped, 0 otherwise; bits 24 to 31 are the track. 0, or -1 for a null packet, one without
    // data, a length below 1, or no memory.
    int Put(CMediaPacket* packet, int length, int flag, int channel);
    // Hands a side packet to the send procedures of all senders that don't drop the packet that is put next. 0, or -1
    // for a null packet, a length below 1, or four side packets that wait for their packet already.
    int PutFrameInfo(CMediaPacket* packet, int length);

    // A sink is stored at most once; null is ignored. Without memory it isn't stored, and the log says so; whoever has
    // to know adds it by CMediaBufferRef.
    void AddSender(CMediaStreamSender* sender);
    void DelSender(CMediaStreamSender* sender);
    void AddLevel2Buffer(CLevel2Buffer_IF* buffer);
    void DelLevel2Buffer(CLevel2Buffer_IF* buffer);
    // True if the senders have been given all that was put.
    bool IsIdle();

private:
    friend class CMediaBufferRef;

    class VIDORA_LOCAL CImpl;
    std::shared_ptr<CImpl> m_impl;  // null if memory was short
};

// CMediaBufferRef: what a source keeps of the buffer that it fills. The buffer may die before its source releases it:
// what is put from then on reaches nobody.
//
// THREADING  A value: an object is used by one thread at a time. Put and PutFrameInfo as those of the buffer.
class VIDORA_API CMediaBufferRef {
public:
    // Names no buffer.
    CMediaBufferRef() = default;
    // `buffer` may be null.
    explicit CMediaBufferRef(const CMediaBuffer* buffer);

    bool IsValid() const { return m_impl != nullptr; }
    // See CMediaBuffer. -1 also if it names no buffer.
    int Put(CMediaPacket* packet, int length, int flag, int channel) const;
    int PutFrameInfo(CMediaPacket* packet, int length) const;
    // AddSender and AddLevel2Buffer. False if the sink isn't stored: memory is short, it is null, or there is no
    // buffer.
    bool Add(CMediaStreamSender* sender) const;
    bool Add(CLevel2Buffer_IF* buffer) const;
    // Calls the End of the level-2 sinks that Put calls, on this thread.
    void End(int channel) const;

private:
    std::shared_ptr<CMediaBuffer::CImpl> m_impl;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIABUFFER_H
