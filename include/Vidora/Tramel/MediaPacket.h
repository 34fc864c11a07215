#ifndef VIDORA_TRAMEL_MEDIAPACKET_H
#define VIDORA_TRAMEL_MEDIAPACKET_H

#include "Vidora/Export.h"

namespace Kavio {
namespace Tramel {

// CMediaPacket: the unit that a CMediaBuffer carries, a heap object that the buffer takes over at Put.
class VIDORA_API CMediaPacket {
public:
    virtual ~CMediaPacket() = default;
    // Ends the object; the buffer calls it once, on any thread, when the last sink is done.
    virtual void Release() { delete this; }
    // The packet's bytes; they don't change and don't move until Release.
    virtual unsigned char* GetData() = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIAPACKET_H
