#ifndef VIDORA_STREAMSOURCE_SRCINFOTABLE_H
#define VIDORA_STREAMSOURCE_SRCINFOTABLE_H

#include <cstdint>

#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// CSrcInfoTable: what clients ask about the running tracks of a source.
//
// THREADING  Any thread. A lock of its own, held over nothing else: a PLAY that asks waits neither for a frame that is
//            converted nor for the host.
class CSrcInfoTable {
public:
    static const int MAX_TRACK = 8;
    static const unsigned int COUNTED_PACKET_SIZE = 1440;  // SrcInfo counts packets by their bytes

    // The table of tracks was built anew: the first `count` are in use.
    void SetCount(int count);
    // The track begins to count at this sequence number.
    void Begin(int index, uint16_t seq);
    void SetSsrc(int index, unsigned int ssrc);
    // Where the track is now.
    void SetTimestamp(int index, uint32_t timestamp);
    void SetPlace(int index, uint32_t timestamp, uint16_t seq);
    // What a frame has sent, and its own time in milliseconds of the source's clock.
    struct Sent {
        unsigned int bytes = 0;
        unsigned int packets = 0;        // by their bytes
        unsigned int packet_header = 0;  // bytes in front of each packet's payload
        uint64_t pts_ms = 0;
        bool is_dated = false;  // whether its wall time is wanted
    };
    // The same behind a frame: a viewer that joins sees both or neither.
    void AddFrame(int index, uint32_t timestamp, uint16_t seq, const Sent& sent);

    // -1, with a log line, for a track that isn't in use.
    int Get(int index, SrcInfo& info);
    unsigned int GetSsrc(int index);

private:
    CMutex m_mutex;
    uint64_t wall_time_locked(uint64_t pts_ms) VIDORA_REQUIRES(m_mutex);

    // The wall time of one instant of the source's clock, from which all tracks count, so that they stay together.
    struct Anchor {
        uint64_t wall_us = 0;  // 0: none since the time lines began
        uint64_t pts_ms = 0;
    };

    Anchor m_anchor VIDORA_GUARDED_BY(m_mutex);
    int m_count VIDORA_GUARDED_BY(m_mutex) = 0;
    SrcInfo m_info[MAX_TRACK] VIDORA_GUARDED_BY(m_mutex);
    unsigned int m_ssrc[MAX_TRACK] VIDORA_GUARDED_BY(m_mutex) = {};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_SRCINFOTABLE_H
