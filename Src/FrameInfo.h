#ifndef VIDORA_FRAMEINFO_H
#define VIDORA_FRAMEINFO_H

#include <cstdint>

#include "Tramel/NumberedPacket.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CFrameInfo: a packet without media: which frame it was and when the source took it, so that each session can see a
// lost frame and measure its delay.
//
// THREADING  Its maker fills the fields; after that it doesn't change, and any thread reads them.
class CFrameInfo : public Tramel::CNumberedPacket {
public:
    // The object's own fields, from m_track on.
    unsigned char* GetData() override { return reinterpret_cast<unsigned char*>(&m_track); }
    uint32_t FrameTrack() const override { return m_track; }
    uint32_t FrameNumber() const override { return m_frame_index; }

    uint32_t m_track = 0;        // track number
    uint32_t m_frame_index = 0;  // running number of the frame
    int32_t m_frame_type = 0;    // frame type letter
    uint64_t m_time_ms = 0;      // CTime::getCurrentMilliSecond when the source took the frame
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_FRAMEINFO_H
