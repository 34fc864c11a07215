#ifndef VIDORA_STREAMSOURCE_BUFFERTABLE_H
#define VIDORA_STREAMSOURCE_BUFFERTABLE_H

#include <cstddef>
#include <vector>

#include "Vidora/Names.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// CBufferTable: the media buffers that a source fills, by packet form, with the number of clients behind each. Channels
// that share a source have a buffer each, and every one of them gets every packet.
//
// THREADING  None of its own: its owner guards it. An entry may go while the table is walked, as a sink may leave while
//            it is given a packet: walk by index, and put into a copy of the reference.
// OWNERSHIP  Keeps references of the buffers, not the buffers.
class CBufferTable {
public:
    // Counts a client of `buffer` in. False, with a log line, if memory is short.
    bool Add(packet_type_t packet_type, const CMediaBuffer* buffer);
    // Counts a client of `buffer` out, or with null one of the buffer that was added last. Without a client of it
    // nothing changes.
    void Remove(packet_type_t packet_type, const CMediaBuffer* buffer);

    // Puts nothing into `buffer` any more until it is added again. Its clients stay counted.
    void Cut(const CMediaBuffer* buffer);

    int Clients(packet_type_t packet_type) const;
    int Clients() const;
    size_t Size(packet_type_t packet_type) const { return m_entries[packet_type].size(); }
    const CMediaBufferRef& At(packet_type_t packet_type, size_t index) const {
        return m_entries[packet_type][index].ref;
    }

private:
    struct Entry {
        const CMediaBuffer* buffer;  // names the entry; the buffer itself may have gone
        CMediaBufferRef ref;
        int clients;
    };

    Entry* find(packet_type_t packet_type, const CMediaBuffer* buffer);

    std::vector<Entry> m_entries[PACKET_TYPE_NONE];  // in the order in which they were added
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_BUFFERTABLE_H
