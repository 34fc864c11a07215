#ifndef VIDORA_TRAMEL_LEVEL2BUFFER_H
#define VIDORA_TRAMEL_LEVEL2BUFFER_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Tramel {

class CMediaPacket;

// CLevel2Buffer_IF: a sink that a CMediaBuffer feeds directly, on the thread that puts.
class VIDORA_API CLevel2Buffer_IF {
public:
    virtual ~CLevel2Buffer_IF() = default;
    // `packet` is lent for the call; its first `length` bytes are the data. `flag` and `channel` as given to
    // CMediaBuffer::Put. Negative on failure, which the buffer doesn't act on.
    virtual int Put(CMediaPacket* packet, int length, int flag, int channel) = 0;
    // Nothing follows what was put of the track that `channel` names in bits 24 to 31: it has ended, by a BYE (RFC 3550
    // 6.6) or with its connection. A sink that still waits for the end of a frame need wait no longer. May come more
    // than once, on the thread that puts and not during a put; the base does nothing.
    virtual void End(int /*channel*/) {}
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_LEVEL2BUFFER_H
