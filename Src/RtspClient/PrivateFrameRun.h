#ifndef VIDORA_RTSPCLIENT_PRIVATEFRAMERUN_H
#define VIDORA_RTSPCLIENT_PRIVATEFRAMERUN_H

#include <cstdint>

#include "RtpRun.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

// CPrivateFrameRun: joins private frames that were cut into RTP packets without a payload header, each packet behind
// its interleave header. A frame begins with its magic and ends with the marker; one that lacks a packet is dropped.
// Packets that come late or again are passed over.
//
// MEMORY     A run, and for each of MAX_CHANNELS channels a frame in work of at most MAX_FRAME bytes in a block of at
//            most twice that.
// THREADING  No lock: one thread at a time.
class CPrivateFrameRun {
public:
    static constexpr uint32_t MAX_FRAME = 16 * 1024 * 1024;
    static constexpr int MAX_CHANNELS = 4;  // packets of further ones are passed over

    // Takes a run. 1: a frame is ready; 0: it goes on; -1: no run of RTP packets, nothing changed. Frames of the run
    // before that were not taken are dropped.
    int Put(const Flumen::CMediaFrame& run);
    // The next frame of the run, or an empty one.
    Flumen::CMediaFrame Take();
    // A frame was dropped since the last call.
    bool TakeDamage();
    void Clear() { *this = CPrivateFrameRun(); }

private:
    // The packets of one channel.
    struct Assembly {
        int channel = -1;
        uint16_t last_seq = 0;
        Flumen::CMediaFrame frame;  // in work
    };

    bool advance();
    void take_packet(const interleaved_unit_t& unit);
    bool follows(Assembly& assembly, const interleaved_unit_t& unit, uint16_t seq);
    bool append(Flumen::CMediaFrame& frame, const RtpHeader& header);
    bool make_room(Flumen::CMediaFrame& frame, uint32_t length);
    void drop(Assembly& assembly);
    void drop_ready();
    Assembly* find(int channel);

    Flumen::CMediaFrame m_run;
    size_t m_offset = 0;  // in the run
    Flumen::CMediaFrame m_ready;
    bool m_damaged = false;
    Assembly m_assemblies[MAX_CHANNELS];
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_PRIVATEFRAMERUN_H
