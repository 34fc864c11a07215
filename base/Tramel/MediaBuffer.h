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
// THREADING  All operations: any thread; they lock for themselves. Level-2 sinks are called on the putting thread,
// never
//            with the buffer's locks held that Add/Del need. Senders are written on pool threads.
// OWNERSHIP  Put and PutFrameInfo take the packet over, also on failure, and release it when the last sink is done.
//            Sinks are borrowed: after DelSender or DelLevel2Buffer returns, the buffer doesn't touch that sink again.
class VIDORA_API CMediaBuffer {
public:
    CMediaBuffer();
    virtual ~CMediaBuffer();
    CMediaBuffer(const CMediaBuffer&) = delete;
    CMediaBuffer& operator=(const CMediaBuffer&) = delete;

    // Packets go out to the sinks as they are put, without a polling step. Before it, Put drops them.
    void EnableAutoSend();
    // Gives the first `length` bytes of `packet` to every sender and every level-2 sink. `flag`: 1, or 0 for a header
    // whose frame is the next put of the same source; the two are sent or dropped together. `channel`: bits 0 to 7 are
    // 1 for a key frame, 5 for a frame that may be skipped, 0 otherwise; bits 24 to 31 are the track. 0, or -1 for a
    // null packet or a length below 1.
    int Put(CMediaPacket* packet, int length, int flag, int channel);
    // Gives a side packet to each sender's send procedure. 0 or -1.
    int PutFrameInfo(CMediaPacket* packet, int length);

    // A sink stands at most once; null is ignored.
    void AddSender(CMediaStreamSender* sender);
    void DelSender(CMediaStreamSender* sender);
    void AddLevel2Buffer(CLevel2Buffer_IF* buffer);
    void DelLevel2Buffer(CLevel2Buffer_IF* buffer);

private:
    class CImpl;
    std::shared_ptr<CImpl> m_impl;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIABUFFER_H
