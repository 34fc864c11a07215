#ifndef VIDORA_FLUMEN_MEDIAFRAME_H
#define VIDORA_FLUMEN_MEDIAFRAME_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Ostra/Packet.h"

namespace Kavio {
namespace Flumen {

// Which of a frame's time stamps. The library uses PTS_TYPE_MS only: milliseconds on the source's own clock.
enum PtsType : int { PTS_TYPE_MS = 0, PTS_TYPE_1 = 1, PTS_TYPE_2 = 2, PTS_TYPE_3 = 3, PTS_TYPE_4 = 4, PTS_TYPE_5 = 5 };

// CMediaFrame: a reference-counted frame, packet or run of packets with its facts.
//
// Copies share bytes and facts (a handle, as CPacket). The facts have no lock: they are set before the frame is shared.
class VIDORA_API CMediaFrame : public Ostra::Memory::CPacket {
public:
    // No contents: invalid.
    CMediaFrame() = default;
    // A frame of `size` bytes, uninitialised and counted as in use: size() is `size`; resize(0) before appending.
    // Invalid if `size` is 0 or memory is short.
    explicit CMediaFrame(unsigned int size);

    // All getters return 0, and all setters do nothing, on an invalid frame.

    // Frame type letter: 'I', 'P', 'B' video, 'J' JPEG, 'A' audio, 'W' assist frame.
    int getType() const;
    void setType(int type);
    // Running number of the frame.
    int getSequence() const;
    void setSequence(int sequence);
    int getChannel() const;
    void setChannel(int channel);
    // 1 if the format changes with this frame; kept in one signed byte.
    int getNewFormat() const;
    void setNewFormat(int new_format);
    // Wall time in seconds since the epoch, to the millisecond.
    double getUtc() const;
    void setUtc(double seconds);
    // Time stamps; for PTS_TYPE_MS in milliseconds. A type above 5 reads as 0 and is ignored on writing.
    uint64_t getPts(PtsType type) const;
    void setPts(uint64_t pts, PtsType type);
};

}  // namespace Flumen
}  // namespace Kavio

#endif  // VIDORA_FLUMEN_MEDIAFRAME_H
