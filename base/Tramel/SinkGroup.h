#ifndef VIDORA_TRAMEL_SINKGROUP_H
#define VIDORA_TRAMEL_SINKGROUP_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "Tramel/CallWait.h"
#include "Tramel/DgramLayout.h"
#include "Tramel/MediaCounters.h"
#include "Tramel/SinkEntry.h"
#include "Tramel/Strand.h"
#include "Tramel/TrackGate.h"
#include "Tramel/UnitBatch.h"
#include "Tramel/UnitRing.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CLevel2Buffer_IF;
class CMediaStreamSender;
class CPooledSink;

// A sink of a group: one of both, or null for a place without a sink. A value.
class CGroupSink {
public:
    explicit CGroupSink(CMediaStreamSender* sender) : m_sender(sender) {}
    // A CPooledSink, by its base: who removes it need not know what it is.
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
// Each turn takes the units that have come since, and hands every sender all of them in one write, so that units that
// pile up while the pool is busy join into one vector. A level-2 sink is called with one packet after the other. Of a
// sender that keeps up a turn touches its entry alone (see CSinkEntry); its queue is asked where something waits, and
// the sender itself only for its send procedure. Nor is a level-2 sink called that has left its sockets in its entry
// (see CPooledSink), as long as they take what it is given, but for frames that it is to be told of.
//
// LIMITS     At most MAX_PENDING units or MAX_PENDING_BYTES wait for a turn. Then units are dropped for the whole
//            group, by the rule of CStreamOutput: a track goes on at its next key frame. The putting thread helps out
//            (RunHere) long before. Places of sinks that have left are used again, and given back with the last sink.
// THREADING  All operations: any thread. Sinks are called with no lock and no turn held, by one thread at a time.
//            Remove waits for a call of that sink on another thread, not for one that it is made from. Lock order: a
//            sender's lock, its output's, an entry's turn, the group's own.
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

    // `from_sequence`: the first unit that the sink gets. False if memory is short, or the sender is in a group
    // already.
    bool Add(CGroupSink sink, uint64_t from_sequence);
    bool Has(CGroupSink sink);
    void Remove(CGroupSink sink);
    void RemoveAll();
    size_t Count();
    // True if a sender is among the sinks, whose units leave by a stream as a rule.
    bool HasStreams();
    // True if nothing waits for a turn and none runs.
    bool IsIdle();

    // See CMediaStreamSender. For all groups.
    static void TellAll(bool on) { s_tells_all.store(on); }

protected:
    bool RunTurn() override;

private:
    static const size_t BLOCK_ENTRIES = 16;

    // Entries don't move: outputs point to them.
    struct CBlock {
        CSinkEntry entries[BLOCK_ENTRIES];
        std::unique_ptr<CBlock> next;
    };
    enum place_t {
        PLACE_USED,
        PLACE_CHANGING,  // an Add or a Remove is at it
        PLACE_LEFT,      // free when the turn has ended that runs
        PLACE_FREE
    };
    struct CPlace {
        CGroupSink sink;
        place_t state;
        CSinkEntry* entry;
    };
    // Side packets that a send procedure is to get.
    struct CNews {
        uint64_t units = 0;  // bit by index in the batch
        uint32_t last[CUnitBatch::MAX_UNITS];
    };

    // What a turn writes.
    struct CLoad {
        CUnitBatch batch;
        CDgramLayout layout{batch};
        CMediaTally tally;
    };

    bool take_pending(CUnitBatch& batch, size_t& place_count);
    void write_entry(CLoad& load, size_t index, CSinkEntry& entry);
    void write_level2(CLoad& load, size_t index, CSinkEntry& entry);
    static uint64_t send(const CUnitBatch& batch, CSinkEntry& entry, CMediaTally& tally);
    static void count_frames(const CUnitBatch& batch, uint64_t taken, CSinkEntry& entry, CNews& news);
    bool tell(const CUnitBatch& batch, size_t index, CGroupSink sink, const CNews& news);
    void put_level2(const CUnitBatch& batch, size_t index, CSinkEntry& entry, CPooledSink& level2,
                    CDgramLayout::CRest rest);
    bool put_unit(const COutputUnit& unit, size_t index, CPooledSink& level2, size_t offset);
    CGroupSink begin_call(size_t index);
    void end_call();
    bool stands_at(size_t index, CGroupSink sink);
    bool end_turn();
    bool reserve(size_t& index, CSinkEntry*& entry);
    CSinkEntry* entry_behind_locked() VIDORA_REQUIRES(m_mutex);
    static bool enter(CGroupSink sink, uint64_t from_sequence, CSinkEntry& entry);
    size_t find_locked(CGroupSink sink) VIDORA_REQUIRES(m_mutex);
    void begin_removal_locked(size_t index) VIDORA_REQUIRES(m_mutex);
    void end_removal(size_t index, CGroupSink sink);
    bool changes_locked(CGroupSink sink) VIDORA_REQUIRES(m_mutex);
    void trim_locked() VIDORA_REQUIRES(m_mutex);
    void wait_locked(CGroupSink sink) VIDORA_REQUIRES(m_mutex);

    static std::atomic<bool> s_tells_all;

    CBlock m_first;
    Ostra::CMutex m_mutex;
    CCallWait m_wait;  // used with m_mutex
    std::vector<CPlace> m_places VIDORA_GUARDED_BY(m_mutex);
    size_t m_count VIDORA_GUARDED_BY(m_mutex) = 0;    // of the used ones
    size_t m_senders VIDORA_GUARDED_BY(m_mutex) = 0;  // among them
    bool m_any_left VIDORA_GUARDED_BY(m_mutex) = false;
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
