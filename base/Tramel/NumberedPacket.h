#ifndef VIDORA_TRAMEL_NUMBEREDPACKET_H
#define VIDORA_TRAMEL_NUMBEREDPACKET_H

#include <cstdint>

#include "Vidora/Tramel/MediaPacket.h"

namespace Kavio {
namespace Tramel {

// CNumberedPacket: a side packet (CMediaBuffer::PutFrameInfo) that says which frame of which track comes, so that a
// sink's gaps are seen where it is written.
class CNumberedPacket : public CMediaPacket {
public:
    virtual uint32_t FrameTrack() const = 0;
    // Runs on by one from frame to frame of the track.
    virtual uint32_t FrameNumber() const = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_NUMBEREDPACKET_H
