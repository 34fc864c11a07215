#ifndef VIDORA_TRAMEL_POOLEDSINK_H
#define VIDORA_TRAMEL_POOLEDSINK_H

#include "Vidora/Tramel/Level2Buffer.h"

namespace Kavio {
namespace Tramel {

struct CSinkEntry;

// CPooledSink: a level-2 sink that need not be called inside the put: one of the library's own, which sends datagrams.
// A buffer that sends of itself (EnableAutoSend) calls it on the thread that writes for its senders.
//
// While all goes well the group can send without it: the sink leaves its sockets and its tracks in its entry, under the
// entry's turn, and takes them back in the same way before it closes a socket, or whenever it wants to be called. Units
// that they can't send to the end, and those of other channels, still come here; what finds no room in the socket is
// lost.
//
// THREADING  Put, PutRest, SentWhole, PutInfo: any thread, not twice at once; later than the packet was put, and in the
//            order of the puts. A packet may be skipped when the pool doesn't keep up, see CSinkGroup. EnterPlace,
//            LeavePlace: any thread, also while the sink is called.
// OWNERSHIP  Has left every buffer (CMediaBuffer::DelLevel2Buffer) before it dies.
class CPooledSink : public CLevel2Buffer_IF {
public:
    // A put whose first `offset` bytes have gone without a call. Only for a sink that leaves sockets in its entry.
    virtual int PutRest(CMediaPacket* /*packet*/, int /*offset*/, int /*length*/, int /*tag*/) { return -1; }
    // Whether all of the last Put or PutRest was sent: its frame counts (see CSinkEntry::told). Under the entry's turn,
    // as a sink may begin to count anew there.
    virtual bool SentWhole() const { return false; }
    // A side packet (CMediaBuffer::PutFrameInfo) of a packet that was sent whole, as the entry's `told` asks for; lent
    // for the call. `before`: the number of the track's frame that was sent before, 0 for none.
    virtual void PutInfo(CMediaPacket* /*packet*/, int /*length*/, int /*before*/) {}
    // The sink's entry in a group, until LeavePlace has returned. A sink of two buffers has two of them.
    virtual void EnterPlace(CSinkEntry& /*entry*/) {}
    virtual void LeavePlace(CSinkEntry& /*entry*/) {}
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_POOLEDSINK_H
