#ifndef VIDORA_TRAMEL_DGRAMLAYOUT_H
#define VIDORA_TRAMEL_DGRAMLAYOUT_H

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "Tramel/DgramMessage.h"
#include "Tramel/UnitBatch.h"

namespace Kavio {
namespace Tramel {

class CMediaTally;
struct CSinkEntry;

// CDgramLayout: the units of a batch as messages that any connected UDP socket takes, laid out once for all sinks of a
// turn. A unit is a run of packets, each behind its interleave header (RFC 2326 10.12), and leaves as one datagram a
// packet without the headers, as by CSockDgram::SendMerged. Borrows the batch. A value of one thread.
class CDgramLayout {
public:
    // What is left of a batch for a sink's own Put: the unit of that index from the byte `offset` on, and those behind.
    struct CRest {
        unsigned int unit;
        size_t offset;
        uint64_t sent;  // the set of the units that have gone whole, bit by index
    };

    explicit CDgramLayout(const CUnitBatch& batch) : m_batch(batch) {}

    // Sends by the sockets of `entry` what is for it, up to the first unit that they can't send to its end, or to the
    // end of the batch. What a full socket has no room for is lost. For the holder of the entry's turn.
    CRest Send(CSinkEntry& entry, CMediaTally& tally);

private:
    static const unsigned int MAX_PARTS = 512;
    static const unsigned int MAX_MESSAGES = 64;

    // A unit. Without a message: malformed, or there was no room for it.
    struct CRun {
        unsigned int first_message;
        unsigned int message_count;
        unsigned int packets;
        size_t bytes;    // without the headers
        size_t max_cut;  // the largest size that the kernel is to cut
        uint8_t channel;
    };

    void lay_out();
    bool take_packets(const COutputUnit& unit, CRun& run);
    bool make_messages(unsigned int first_part, CRun& run);
    bool send_unit(CRest& rest, const CSinkEntry& entry, CMediaTally& tally);
    bool stop(const CRun& run, unsigned int sent, int error, CRest& rest, CMediaTally& tally) const;
    static int socket_for(const CRun& run, const CSinkEntry& entry);

    const CUnitBatch& m_batch;
    bool m_is_laid_out = false;
    unsigned int m_part_count = 0;
    unsigned int m_message_count = 0;
    CRun m_runs[CUnitBatch::MAX_UNITS];
    struct iovec m_parts[MAX_PARTS];
    struct mmsghdr m_messages[MAX_MESSAGES];
    alignas(struct cmsghdr) unsigned char m_controls[MAX_MESSAGES][SEGMENT_CONTROL_SIZE];
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_DGRAMLAYOUT_H
