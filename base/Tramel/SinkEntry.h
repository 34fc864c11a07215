#ifndef VIDORA_TRAMEL_SINKENTRY_H
#define VIDORA_TRAMEL_SINKENTRY_H

#include <cstdint>

#include "Tramel/OutputUnit.h"
#include "Tramel/Turn.h"

namespace Kavio {
namespace Tramel {

class CLevel2Buffer_IF;
class CStreamOutput;

// Which side packets a send procedure gets.
enum told_t : uint8_t {
    TOLD_NOTHING,
    TOLD_GAPS,  // the numbered ones that don't follow the one before (see CNumberedPacket), and those without a number
    TOLD_ALL
};

// A connected UDP socket that takes the packets of one channel.
struct CDgramOutlet {
    int fd;
    uint16_t max_segment;  // the kernel cuts messages into datagrams of up to that size
    uint8_t channel;       // of the interleave headers
};

// CSinkEntry: what writing touches for a sink that keeps up. The entries of a group lie side by side, so that a turn
// reads them one after another and nothing else of its sinks.
//
// THREADING  Who has the turn owns the entry, and the state of the output that it names. A group's turn takes nothing
//            else; whoever wants the output on its own behalf takes the turn below the output's lock (CStreamOutput), a
//            level-2 sink below its own (CPooledSink).
struct CSinkEntry {
    static const unsigned int MAX_OUTLETS = 4;

    CTurn turn;
    int fd = -1;               // 0 or above: the socket takes all there is: a sender's a whole batch by a bare write,
                               // a level-2 sink's, which is connected, the datagrams of all channels
    uint16_t slots = 0;        // of the tracks that are on, while there is an output or a socket
    uint16_t max_segment = 0;  // of a level-2 sink's `fd`, see CDgramOutlet
    told_t told = TOLD_NOTHING;
    uint8_t outlet_count = 0;         // of a level-2 sink that has a socket for each channel
    uint8_t key_slots = 0;            // tracks of which a key frame has left without a call of the sink
    uint64_t from_sequence = 0;       // the first unit for this sink
    uint64_t written = 0;             // bytes that have left by bare writes, and that the output hasn't counted yet
    CStreamOutput* output = nullptr;  // null: it has no socket, or is a level-2 sink
    CLevel2Buffer_IF* level2 = nullptr;
    union {
        uint32_t numbers[COutputUnit::OTHER_SLOT] = {};  // of its last frame, by track; 0: none yet
        CDgramOutlet outlets[MAX_OUTLETS];               // while there are any; such a sink is told nothing
    };

    // Datagrams can leave without a call of the level-2 sink.
    bool TakesDatagrams() const { return fd >= 0 || outlet_count > 0; }
    void CloseOutlets() {
        fd = -1;
        outlet_count = 0;
    }
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SINKENTRY_H
