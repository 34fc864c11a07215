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

class CLevel2Buffer_IF;
class CMediaStreamSender;

// A sink of a group: one of both, or null for a place whose sink has left during a turn. A value.
class CGroupSink {
public:
    explicit CGroupSink(CMediaStreamSender* sender) : m_sender(sender) {}
    // A level-2 sink that may be called late, see CPooledSink.
    explicit CGroupSink(CLevel2Buffer_IF* level2) : m_level2(level2) {}
    CGroupSink(std::nullptr_t) {}  // NOLINT: implicit on purpose

    CMediaStreamSender* Sender() const { return m_sender; }
    CLevel2Buffer_IF* Level2() const { return m_level2; }
    bool operator==(const CGroupSink& other) const { return m_sender == other.m_sender && m_level2 == other.m_level2; }
    bool operator!=(const CGroupSink& other) const { return !(*this == other); }

private:
    CMediaStreamSender* m_sender = nullptr;
    CLevel2Buffer_IF* m_level2 = nullptr;
};

// CSinkGroup: some of a media buffer's sinks, senders and level-2 sinks, which one thread of the pool writes one after
// another.
//
// Each turn takes the units that have come since, and hands every sender all of them in one call, so that units that
// pile up while the pool is busy join into one vectored write. A level-2 sink is called with one packet after the
// other.
//
// LIMITS     At most MAX_PENDING units or MAX_PENDING_BYTES wait for a turn. Then units are dropped for the whole
//            group, by the rule of CStreamOutput: a track goes on at its next key frame. The putting thread helps out
//            (RunHere) long before.
// THREADING  All operations: any thread. Sinks are called with no lock held, by one thread at a time. Remove waits
//            for a call of that sink on another thread, not for one that it is made from.
class CSinkGroup final : public CStrand {
public:
    static const size_t MAX_PENDING = 512;
    static const size_t MAX_PENDING_BYTES = 8u << 20;
    static const size_t HELP_PENDING = 64;

    CSinkGroup() = default;

    // Keeps a unit for the sinks that are here until the group's next turn. True if turns don't keep up: the caller
    // is to RunHere when it holds no locks.
    bool Put(COutputUnit* unit);
    // Makes a turn due if units wait for one.
    void Kick();
    // One turn on the calling thread, unless another thread runs one or nothing waits. What comes meanwhile is left to
    // a turn on the pool; without a pool it is done here as well.
    void RunHere();

    // `from_sequence`: the first unit that the sink gets. False if memory is short.
    bool Add(CGroupSink sink, uint64_t from_sequence);
    bool Has(CGroupSink sink);
    void Remove(CGroupSink sink);
    void RemoveAll();
    size_t Count();
    // True if nothing waits for a turn and none runs.
    bool IsIdle();

protected:
    bool RunTurn() override;

private:
    struct CEntry {
        CGroupSink sink;
        uint64_t from_sequence;
    };

    bool take_pending(CUnitBatch& batch, size_t& sink_count);
    CGroupSink next_sink(size_t& index, size_t sink_count, uint64_t& from_sequence);
    void write_sender(const CUnitBatch& batch, size_t index, CMediaStreamSender& sender, uint64_t from_sequence);
    void write_level2(const CUnitBatch& batch, size_t index, CLevel2Buffer_IF& level2, uint64_t from_sequence);
    bool stands_at(size_t index, CGroupSink sink);
    bool end_turn();
    void remove_at_locked(size_t index) VIDORA_REQUIRES(m_mutex);
    void wait_locked(CGroupSink sink) VIDORA_REQUIRES(m_mutex);

    Ostra::CMutex m_mutex;
    CCallWait m_wait;  // used with m_mutex
    std::vector<CEntry> m_sinks VIDORA_GUARDED_BY(m_mutex);
    size_t m_count VIDORA_GUARDED_BY(m_mutex) = 0;  // sinks without the gaps
    CUnitRing m_pending VIDORA_GUARDED_BY(m_mutex);
    size_t m_pending_bytes VIDORA_GUARDED_BY(m_mutex) = 0;
    CTrackGate m_gate VIDORA_GUARDED_BY(m_mutex);  // tracks that lost units behind the last pending one

    // The turn that runs.
    bool m_running VIDORA_GUARDED_BY(m_mutex) = false;
    std::thread::id m_runner VIDORA_GUARDED_BY(m_mutex);
    CGroupSink m_current VIDORA_GUARDED_BY(m_mutex) = nullptr;  // being called
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SINKGROUP_H
