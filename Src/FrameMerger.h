#ifndef VIDORA_FRAMEMERGER_H
#define VIDORA_FRAMEMERGER_H

#include <cstdint>

#include "StreamParser/RtpHeader.h"
#include "Vidora/Flumen/MediaFrame.h"

namespace Kavio {
namespace Vidora {

// CFrameMerger: collects the RTP packets of one track into a run, each packet behind its interleave header ("$",
// channel, 16-bit length, RFC 2326 10.12). A run is one frame: the packets of one time stamp up to the marker.
//
//     if (merger.EndsBefore(packet)) put(merger.Take());      // then read the packet again, or go on
//     merger.Append(channel, data, length, header);
//     if (header.marker) put(merger.Take());
//
// MEMORY     A run of at most MAX_RUN bytes, in a block of at most twice that; a longer frame leaves in several runs.
// THREADING  No lock: one thread at a time.
class CFrameMerger {
public:
    static constexpr uint32_t MAX_RUN = 2 * 1024 * 1024;

    // True if the packet of `length` bytes belongs to another frame than the run, or the run is full: take it first.
    bool EndsBefore(const RtpHeader& header, uint32_t length) const;
    // Appends a packet of at most 65535 bytes. 0, or -1 without memory: the run is dropped.
    int Append(uint8_t channel, const unsigned char* data, uint32_t length, const RtpHeader& header);
    bool IsEmpty() const { return !m_run.valid(); }
    // The run, which is then empty; invalid if it was.
    Flumen::CMediaFrame Take();
    void Clear() { m_run = Flumen::CMediaFrame(); }

private:
    static constexpr uint32_t FIRST_ROOM = 4096;

    bool make_room(uint32_t length);

    Flumen::CMediaFrame m_run;
    uint32_t m_timestamp = 0;
    uint32_t m_room = FIRST_ROOM;  // for the next run: follows the sizes of the runs, downwards slowly
    bool m_told_size = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_FRAMEMERGER_H
