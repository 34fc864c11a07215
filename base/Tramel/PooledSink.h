#ifndef VIDORA_TRAMEL_POOLEDSINK_H
#define VIDORA_TRAMEL_POOLEDSINK_H

#include "Vidora/Tramel/Level2Buffer.h"

namespace Kavio {
namespace Tramel {

// CPooledSink: a level-2 sink that need not be called inside the put: one of the library's own, which sends datagrams.
// A buffer that sends of itself (EnableAutoSend) calls it on the thread that writes for its senders.
//
// THREADING  Put: any thread, not twice at once; later than the packet was put, and in the order of the puts. A packet
//            may be skipped when the pool doesn't keep up, see CSinkGroup.
class CPooledSink : public CLevel2Buffer_IF {
public:
    // A side packet (CMediaBuffer::PutFrameInfo) of the packet that was put just before; lent for the call.
    virtual void PutInfo(CMediaPacket* /*packet*/, int /*length*/) {}
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_POOLEDSINK_H
