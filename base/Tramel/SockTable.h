#ifndef VIDORA_TRAMEL_SOCKTABLE_H
#define VIDORA_TRAMEL_SOCKTABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Tramel/EpollPoller.h"
#include "Tramel/TimerQueue.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CHandlerCore;

// CSockTable: who watches which descriptor.
//
// A descriptor has one entry, and one place in the poller with the union of what its watches want. One that is wanted
// for reading alone is armed by level, and stays so: usually the thread that polls has handled an event before it polls
// again. One that its readers drain is armed by edge, and so again after each event that found one of them busy, or
// that tells of an error, of urgent data or of the connection's end, as that may have come with the last bytes and is
// to be told as long as it lasts. An event that comes while a callback is busy with the last one, or that nobody wants
// any more, disarms either. All others are armed for one event. What was disarmed is armed again for what isn't being
// handled: at once for the watches that the event didn't concern, after the callback for the others. Each watch has a
// serial that is never used again, so that a delivery that is under way for a watch that has gone finds nothing.
//
// THREADING  All operations: any thread. The table is cut into shards, each with its own lock. Cores are called with no
//            lock held. Lock order: a core's mutex, then a shard's, then the timer queue's.
class CSockTable {
public:
    // At most that many handlers for one descriptor.
    static constexpr size_t MAX_WATCHES = 8;

    // What a delivery is to call: sets of sock_event_mask_t.
    struct CDelivery {
        unsigned int events = 0;
        unsigned int timeouts = 0;
    };

    explicit CSockTable(CTimerQueue& timers) : m_timers(timers) {}

    // Puts every descriptor into `poller`; null takes the poller away.
    void SetPoller(const std::shared_ptr<CEpollPoller>& poller);

    // CNetHandler::RegisterSock, UnregisterSock and RemoveSock for `core`. 0 or -1.
    int Watch(const std::shared_ptr<CHandlerCore>& core, int fd, unsigned int mask, uint64_t timeout_us);
    int Unwatch(const CHandlerCore* core, int fd, unsigned int mask);
    int Remove(const CHandlerCore* core, int fd);
    // One handle_output when `fd` can be written; no time-out comes of it. 0 or -1.
    int WatchOutputOnce(const std::shared_ptr<CHandlerCore>& core, int fd);
    // See CReactor::Drain.
    int Drain(const CHandlerCore* core, int fd);
    // See CReactor::Rest and Resume.
    int Rest(const CHandlerCore* core, int fd, unsigned int mask);
    void Resume(const CHandlerCore* core, int fd);
    // Takes out all watches of a descriptor that is about to be closed.
    void Forget(int fd);

    // To be called before each Wait of the poller.
    void BeginPoll() { m_poll.fetch_add(1); }
    // Asks for the memory that OnEvent goes through for these events; with many sockets it has left the near caches.
    void Fetch(const CPollBatch& batch);
    // An event of the last Wait: queues it with the cores that watch for it. False if the descriptor isn't known: it
    // was removed just now, or closed by its owner while its file lives on elsewhere.
    bool OnEvent(const CPollEvent& event, uint64_t now);
    // The deadline of a watch has come: queues the time-outs that are really due and sets the next deadline.
    void OnDeadline(const std::shared_ptr<CHandlerCore>& core, int fd, uint64_t serial, uint64_t now);

    // A core delivers: Begin returns what to call, Still what of it is left after a callback, and End closes the
    // delivery of `events` and arms the poller again.
    CDelivery Begin(const CHandlerCore* core, int fd, uint64_t serial);
    CDelivery Still(const CHandlerCore* core, int fd, uint64_t serial);
    void End(const CHandlerCore* core, int fd, uint64_t serial, unsigned int events);

private:
    static constexpr int KINDS = 3;  // read, write, exception: bit n of a mask

    struct CWatch {
        std::shared_ptr<CHandlerCore> core;
        uint64_t serial = 0;
        unsigned int mask = 0;       // as registered
        unsigned int once = 0;       // SOCK_EVENT_WRITE while one handle_output is asked for
        unsigned int once_due = 0;   // the same while that is pending
        unsigned int resting = 0;    // of `mask`, silent for now: after an error was told, or by Rest
        unsigned int pending = 0;    // queued or being handled, hence not armed
        unsigned int heard = 0;      // of `pending`, told for more than an error: no quiet time
        unsigned int timed_out = 0;  // time-outs that are queued
        bool queued = false;         // a delivery is queued with the core
        bool drains = false;         // see CReactor::Drain
        uint64_t timeout = 0;
        uint64_t timer = 0;
        uint64_t deadline = 0;  // for which `timer` is set
        uint64_t last[KINDS] = {};
    };

    // Never without a watch while it is in the table.
    struct CEntry {
        int fd = -1;
        uint32_t generation = 0;
        bool polled = false;              // the poller has it
        poll_arming_t arming = ARM_ONCE;  // how it is armed
        unsigned int armed = 0;           // what the poller is armed for at least
        uint64_t ended_poll = 0;          // the Wait during which the last delivery ended
        std::vector<CWatch> watches;
    };

    // An entry, and where lies what it leads to, from one to the next: hints, as those of a CMemoryTrail.
    struct CSlot {
        std::unique_ptr<CEntry> entry;
        const void* watch = nullptr;  // the first
        const void* core = nullptr;
        const void* handler = nullptr;
    };

    struct CShard {
        Ostra::CMutex mutex;
        std::shared_ptr<CEpollPoller> poller VIDORA_GUARDED_BY(mutex);
        std::vector<CSlot> slots VIDORA_GUARDED_BY(mutex);  // by fd / SHARDS
    };
    static constexpr int SHARDS = 16;

    static constexpr size_t HANDLER_BYTES = 256;  // of a handler, that are fetched: its class, and its own trail

    CShard& shard_of(int fd) { return m_shards[fd % SHARDS]; }
    static size_t place_of(int fd) { return static_cast<size_t>(fd) / SHARDS; }  // among its shard's slots
    uint32_t new_generation();
    CEntry* find_locked(CShard& shard, int fd) VIDORA_REQUIRES(shard.mutex);
    CEntry* find_or_make_locked(CShard& shard, int fd) VIDORA_REQUIRES(shard.mutex);
    CWatch* find_watch_locked(CShard& shard, const CHandlerCore* core, int fd, uint64_t serial)
        VIDORA_REQUIRES(shard.mutex);
    template <typename Look>
    CDelivery with_watch(const CHandlerCore* core, int fd, uint64_t serial, Look look);
    CWatch* find_or_add_watch_locked(CShard& shard, const std::shared_ptr<CHandlerCore>& core, int fd)
        VIDORA_REQUIRES(shard.mutex);
    int set_timeout(CWatch& watch, int fd, uint64_t timeout, uint64_t now);
    void drop_watch_locked(CShard& shard, CEntry& entry, const CWatch* watch) VIDORA_REQUIRES(shard.mutex);
    void drop_if_unused_locked(CShard& shard, CEntry& entry) VIDORA_REQUIRES(shard.mutex);
    void drop_others(CEntry& entry, const CHandlerCore* kept);
    int arm_new_locked(CShard& shard, const CHandlerCore* core, int fd) VIDORA_REQUIRES(shard.mutex);
    int arm_locked(CShard& shard, CEntry& entry, const CHandlerCore* registering) VIDORA_REQUIRES(shard.mutex);
    void unqueue(const CHandlerCore* core, int fd, uint64_t serial);
    void follow_event_locked(CShard& shard, CEntry& entry, bool is_news, bool is_missed) VIDORA_REQUIRES(shard.mutex);
    void disarm_locked(CShard& shard, CEntry& entry) VIDORA_REQUIRES(shard.mutex);
    static poll_arming_t arming_for(const CEntry& entry, unsigned int needed);
    static void note_event(CWatch& watch, unsigned int fired, unsigned int poll_events, uint64_t now);

    CTimerQueue& m_timers;
    std::atomic<uint64_t> m_next_serial{1};
    std::atomic<uint32_t> m_next_generation{1};
    std::atomic<uint64_t> m_poll{1};  // counts the poller's Waits
    CShard m_shards[SHARDS];
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCKTABLE_H
