#ifndef VIDORA_TRAMEL_SINKGROUP_H
#define VIDORA_TRAMEL_SINKGROUP_H

#include <cstddef>
#include <cstdint>
#include <thread>
#include <vector>

#include "Tramel/CallWait.h"
#include "Tramel/Strand.h"
#include "Tramel/TrackGate.h"
#include "Tramel/UnitBatch.h"
#include "Tramel/UnitRing.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CMediaStreamSender;

// CSinkGroup: some of a media buffer's senders, which one thread of the pool writes one after another.
//
// Each turn takes the units that have come since, and hands every sender all of them in one call, so that units that
// pile up while the pool is busy join into one vectored write.
//
// LIMITS     At most MAX_PENDING units or MAX_PENDING_BYTES wait for a turn. Then units are dropped for the whole
//            group, by the rule of CStreamOutput: a track goes on at its next key frame. The putting thread helps out
//            (RunHere) long before.
// THREADING  All operations: any thread. Senders are called with no lock held, by one thread at a time. Remove waits
//            for a call of that sender on another thread, not for one that it is made from.
class CSinkGroup final : public CStrand {
public:
    static const size_t MAX_PENDING = 512;
    static const size_t MAX_PENDING_BYTES = 8u << 20;
    static const size_t HELP_PENDING = 64;

    CSinkGroup() = default;

    // Keeps a unit for the senders that are here until the group's next turn. True if turns don't keep up: the caller
    // is to RunHere when it holds no locks.
    bool Put(COutputUnit* unit);
    // Makes a turn due if units wait for one.
    void Kick();
    // One turn on the calling thread, unless another thread runs one or nothing waits. What comes meanwhile is left to
    // a turn on the pool; without a pool it is done here as well.
    void RunHere();

    // `from_sequence`: the first unit that the sender gets. False if memory is short.
    bool Add(CMediaStreamSender* sender, uint64_t from_sequence);
    bool Has(const CMediaStreamSender* sender);
    void Remove(const CMediaStreamSender* sender);
    void RemoveAll();
    size_t Count();
    // True if nothing waits for a turn and none runs.
    bool IsIdle();

protected:
    bool RunTurn() override;

private:
    struct CSink {
        CMediaStreamSender* sender;  // null where one left during a turn
        uint64_t from_sequence;
    };

    bool take_pending(CUnitBatch& batch, size_t& sink_count);
    CMediaStreamSender* next_sink(size_t& index, size_t sink_count, uint64_t& from_sequence);
    void write_sink(const CUnitBatch& batch, size_t index, CMediaStreamSender* sender, uint64_t from_sequence);
    bool stands_at(size_t index, const CMediaStreamSender* sender);
    bool end_turn();
    void remove_at_locked(size_t index) VIDORA_REQUIRES(m_mutex);
    void wait_locked(const CMediaStreamSender* sender) VIDORA_REQUIRES(m_mutex);

    Ostra::CMutex m_mutex;
    CCallWait m_wait;  // used with m_mutex
    std::vector<CSink> m_sinks VIDORA_GUARDED_BY(m_mutex);
    size_t m_count VIDORA_GUARDED_BY(m_mutex) = 0;  // sinks without the gaps
    CUnitRing m_pending VIDORA_GUARDED_BY(m_mutex);
    size_t m_pending_bytes VIDORA_GUARDED_BY(m_mutex) = 0;
    CTrackGate m_gate VIDORA_GUARDED_BY(m_mutex);  // tracks that lost units behind the last pending one

    // The turn that runs.
    bool m_running VIDORA_GUARDED_BY(m_mutex) = false;
    std::thread::id m_runner VIDORA_GUARDED_BY(m_mutex);
    const CMediaStreamSender* m_current VIDORA_GUARDED_BY(m_mutex) = nullptr;  // being called
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SINKGROUP_H
