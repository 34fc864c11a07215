#include "Tramel/SockTable.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>

#include "Ostra/MemoryTrail.h"
#include "Tramel/HandlerCore.h"
#include "Tramel/Reactor.h"
#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

namespace {

constexpr unsigned int ALL_EVENTS = SOCK_EVENT_READ | SOCK_EVENT_WRITE | SOCK_EVENT_EXCEPTION;

// The callbacks of a watch with `mask` that an event of the poller calls for.
unsigned int wanted_of(unsigned int mask, unsigned int poll_events) {
    unsigned int wanted = 0;
    const bool error = (poll_events & POLL_ERROR) != 0;
    if ((poll_events & (POLL_READ | POLL_ERROR)) != 0) {
        wanted |= mask & SOCK_EVENT_READ;
    }
    if (error) {
        wanted |= mask & SOCK_EVENT_EXCEPTION;
    }
    // A failed connection attempt is writable as well; it is told once, as what it is.
    if ((wanted & SOCK_EVENT_EXCEPTION) == 0 && (poll_events & (POLL_WRITE | POLL_ERROR)) != 0) {
        wanted |= mask & SOCK_EVENT_WRITE;
    }
    return wanted;
}

// A time-out that was due while no thread could poll isn't one if bytes have come meanwhile.
bool has_input(int fd) {
    pollfd probe = {fd, POLLIN, 0};
    return ::poll(&probe, 1, 0) > 0 && (probe.revents & POLLIN) != 0;
}

}  // namespace

void CSockTable::SetPoller(const std::shared_ptr<CEpollPoller>& poller) {
    for (CShard& shard : m_shards) {
        Ostra::CGuard guard(shard.mutex);
        shard.poller = poller;
        for (const CSlot& slot : shard.slots) {
            CEntry* entry = slot.entry.get();
            if (entry != nullptr) {
                entry->polled = false;
                entry->arming = ARM_ONCE;
                entry->armed = 0;
                if (poller != nullptr) {
                    arm_locked(shard, *entry, nullptr);
                }
            }
        }
    }
}

int CSockTable::Watch(const std::shared_ptr<CHandlerCore>& core, int fd, unsigned int mask, uint64_t timeout_us) {
    mask &= ALL_EVENTS;
    if (mask == 0) {
        return -1;
    }
    const uint64_t now = CEpollPoller::Now();
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_or_add_watch_locked(shard, core, fd);
    if (watch == nullptr) {
        return -1;
    }
    watch->mask |= mask;
    watch->resting = 0;
    watch->drains = false;
    if (set_timeout(*watch, fd, timeout_us, now) < 0) {
        drop_watch_locked(shard, *find_locked(shard, fd), watch);
        return -1;
    }
    return arm_new_locked(shard, core.get(), fd);
}

int CSockTable::WatchOutputOnce(const std::shared_ptr<CHandlerCore>& core, int fd) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_or_add_watch_locked(shard, core, fd);
    if (watch == nullptr) {
        return -1;
    }
    watch->once = SOCK_EVENT_WRITE;
    return arm_new_locked(shard, core.get(), fd);
}

// What has come until now is told once more.
int CSockTable::Drain(const CHandlerCore* core, int fd) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_watch_locked(shard, core, fd, 0);
    if (watch == nullptr) {
        return -1;
    }
    watch->drains = true;
    CEntry* entry = find_locked(shard, fd);
    entry->armed = 0;
    return arm_locked(shard, *entry, nullptr);
}

int CSockTable::Rest(const CHandlerCore* core, int fd, unsigned int mask) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_watch_locked(shard, core, fd, 0);
    if (watch == nullptr) {
        return -1;
    }
    watch->resting |= mask;
    return 0;
}

void CSockTable::Resume(const CHandlerCore* core, int fd) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_watch_locked(shard, core, fd, 0);
    if (watch != nullptr) {
        CEntry* entry = find_locked(shard, fd);
        if (watch->resting != 0 && entry->arming == ARM_EDGE) {
            entry->armed = 0;  // what was told before it rested may still be there
        }
        watch->resting = 0;
        arm_locked(shard, *entry, nullptr);
    }
}

// What the poller is armed for stays as it is: an event that nobody wants any more costs one look and then silence.
int CSockTable::Unwatch(const CHandlerCore* core, int fd, unsigned int mask) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CEntry* entry = find_locked(shard, fd);
    CWatch* watch = find_watch_locked(shard, core, fd, 0);
    if (watch == nullptr) {
        return -1;
    }
    watch->mask &= ~mask;
    watch->timed_out &= ~mask;
    watch->pending &= ~mask | watch->once_due;
    watch->heard &= watch->pending;
    if (watch->mask == 0 && watch->once == 0 && watch->pending == 0) {
        drop_watch_locked(shard, *entry, watch);
    }
    return 0;
}

int CSockTable::Remove(const CHandlerCore* core, int fd) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CEntry* entry = find_locked(shard, fd);
    CWatch* watch = find_watch_locked(shard, core, fd, 0);
    if (watch == nullptr) {
        return -1;
    }
    drop_watch_locked(shard, *entry, watch);
    return 0;
}

void CSockTable::Forget(int fd) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CEntry* entry = find_locked(shard, fd);
    if (entry == nullptr) {
        return;
    }
    for (const CWatch& watch : entry->watches) {
        m_timers.Cancel(watch.timer);
    }
    entry->watches.clear();
    drop_if_unused_locked(shard, *entry);
}

// A lone event would wait for it here as it does in OnEvent.
void CSockTable::Fetch(const CPollBatch& batch) {
    if (batch.count < 2) {
        return;
    }
    for (int i = 0; i < batch.count; ++i) {
        const size_t place = place_of(batch.events[i].fd);
        CShard& shard = shard_of(batch.events[i].fd);
        Ostra::CGuard guard(shard.mutex);
        if (place < shard.slots.size() && shard.slots[place].entry != nullptr) {
            const CSlot& slot = shard.slots[place];
            Ostra::CMemoryTrail::Fetch(slot.entry.get(), sizeof(CEntry));
            Ostra::CMemoryTrail::Fetch(slot.watch, sizeof(CWatch));
            Ostra::CMemoryTrail::Fetch(slot.core, sizeof(CHandlerCore));
            Ostra::CMemoryTrail::Fetch(slot.handler, HANDLER_BYTES);
        }
    }
}

bool CSockTable::OnEvent(const CPollEvent& event, uint64_t now) {
    if (event.events == 0) {
        return true;  // urgent data, and nothing behind it yet
    }
    std::shared_ptr<CHandlerCore> cores[MAX_WATCHES];
    uint64_t serials[MAX_WATCHES];
    size_t core_count = 0;
    bool is_news = false;
    bool is_missed = (event.events & (POLL_LASTING | POLL_ERROR)) != 0;
    {
        CShard& shard = shard_of(event.fd);
        Ostra::CGuard guard(shard.mutex);
        CEntry* entry = find_locked(shard, event.fd);
        if (entry == nullptr || entry->generation != event.generation) {
            return false;
        }
        if (entry->arming == ARM_LEVEL && entry->ended_poll == m_poll.load(std::memory_order_relaxed)) {
            return true;  // perhaps what a callback has just read; the next Wait knows
        }
        entry->armed = entry->arming != ARM_ONCE ? entry->armed : 0;
        for (CWatch& watch : entry->watches) {
            const unsigned int wanted = wanted_of((watch.mask & ~watch.resting) | watch.once, event.events);
            const unsigned int fired = wanted & ~watch.pending;
            is_missed = is_missed || fired != wanted;
            if (fired == 0) {
                continue;
            }
            is_news = true;
            note_event(watch, fired, event.events, now);
            if (!watch.queued) {
                watch.queued = true;
                cores[core_count] = watch.core;
                serials[core_count++] = watch.serial;
            }
        }
        follow_event_locked(shard, *entry, is_news, is_missed);
    }
    for (size_t i = 0; i < core_count; ++i) {
        if (!cores[i]->PostSock(event.fd, serials[i])) {
            unqueue(cores[i].get(), event.fd, serials[i]);
        }
    }
    return true;
}

// Arms for what is left behind an event: `is_news` if it was for anybody, `is_missed` if it is to be told again, to one
// who is busy or behind the last bytes.
void CSockTable::follow_event_locked(CShard& shard, CEntry& entry, bool is_news, bool is_missed) {
    if (entry.arming != ARM_ONCE && !is_news) {
        disarm_locked(shard, entry);
    } else if (entry.arming == ARM_EDGE && is_missed) {
        entry.armed = 0;
    }
    arm_locked(shard, entry, nullptr);
}

// By level the poller would tell an event again and again that nobody takes, and by edge not again when somebody does.
// Of a disarmed descriptor it tells a hang-up at most, once.
void CSockTable::disarm_locked(CShard& shard, CEntry& entry) {
    shard.poller->Disarm(entry.fd, entry.generation);
    entry.arming = ARM_ONCE;
    entry.armed = 0;
}

// An error is told to the reader, whose next call takes it away, but is no input: an ICMP answer to what was sent to a
// peer that has gone must not pass for the peer's sign of life.
void CSockTable::note_event(CWatch& watch, unsigned int fired, unsigned int poll_events, uint64_t now) {
    const unsigned int heard = (poll_events & POLL_READ) != 0 ? fired : fired & ~static_cast<unsigned>(SOCK_EVENT_READ);
    watch.pending |= fired;
    watch.heard |= heard;
    watch.timed_out &= ~heard;
    watch.once_due |= watch.once & fired;
    watch.once &= ~fired;
    if ((fired & SOCK_EVENT_EXCEPTION) != 0) {
        watch.resting |= SOCK_EVENT_EXCEPTION | SOCK_EVENT_WRITE;
    }
    for (int kind = 0; kind < KINDS; ++kind) {
        if ((heard & (1U << kind)) != 0) {
            watch.last[kind] = now;
        }
    }
}

void CSockTable::OnDeadline(const std::shared_ptr<CHandlerCore>& core, int fd, uint64_t serial, uint64_t now) {
    {
        CShard& shard = shard_of(fd);
        Ostra::CGuard guard(shard.mutex);
        CWatch* watch = find_watch_locked(shard, core.get(), fd, serial);
        if (watch == nullptr || watch->timeout == 0) {
            return;
        }
        uint64_t next = now + watch->timeout;
        for (int kind = 0; kind < KINDS; ++kind) {
            const unsigned int bit = 1U << kind;
            if ((watch->mask & bit) == 0) {
                continue;
            }
            if ((watch->heard & bit) != 0) {
                watch->last[kind] = now;
            } else if (watch->last[kind] + watch->timeout <= now) {
                watch->last[kind] = now;
                watch->timed_out |= bit == SOCK_EVENT_READ && has_input(fd) ? 0 : bit;
            }
            next = std::min(next, watch->last[kind] + watch->timeout);
        }
        watch->deadline = next;
        m_timers.Rearm(watch->timer, next);
        if (watch->timed_out == 0 || watch->queued) {
            return;
        }
        watch->queued = true;
    }
    if (!core->PostSock(fd, serial)) {
        unqueue(core.get(), fd, serial);
    }
}

// What `look` returns for the watch; nothing to call without one.
template <typename Look>
CSockTable::CDelivery CSockTable::with_watch(const CHandlerCore* core, int fd, uint64_t serial, Look look) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_watch_locked(shard, core, fd, serial);
    return watch != nullptr ? look(*watch) : CDelivery{};
}

CSockTable::CDelivery CSockTable::Begin(const CHandlerCore* core, int fd, uint64_t serial) {
    return with_watch(core, fd, serial, [](CWatch& watch) {
        const CDelivery delivery = {watch.pending, watch.timed_out};
        watch.timed_out = 0;
        watch.queued = false;
        return delivery;
    });
}

CSockTable::CDelivery CSockTable::Still(const CHandlerCore* core, int fd, uint64_t serial) {
    return with_watch(core, fd, serial, [](const CWatch& watch) { return CDelivery{watch.pending, watch.mask}; });
}

void CSockTable::End(const CHandlerCore* core, int fd, uint64_t serial, unsigned int events) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_watch_locked(shard, core, fd, serial);
    if (watch == nullptr) {
        return;
    }
    watch->pending &= ~events;
    watch->once_due &= ~events;
    if (watch->timeout != 0) {
        // The time that the callback took isn't quiet time.
        const uint64_t now = CEpollPoller::Now();
        for (int kind = 0; kind < KINDS; ++kind) {
            watch->last[kind] = (events & watch->heard & (1U << kind)) != 0 ? now : watch->last[kind];
        }
    }
    watch->heard &= ~events;
    CEntry* entry = find_locked(shard, fd);
    entry->ended_poll = m_poll.load(std::memory_order_relaxed);
    if (watch->mask == 0 && watch->once == 0 && watch->pending == 0) {
        drop_watch_locked(shard, *entry, watch);
    } else {
        arm_locked(shard, *entry, nullptr);
    }
}

// The core had no memory for the event: the poller will report it again.
void CSockTable::unqueue(const CHandlerCore* core, int fd, uint64_t serial) {
    CShard& shard = shard_of(fd);
    Ostra::CGuard guard(shard.mutex);
    CWatch* watch = find_watch_locked(shard, core, fd, serial);
    if (watch != nullptr) {
        watch->queued = false;
        watch->once |= watch->once_due;
        watch->once_due = 0;
        watch->pending = 0;
        watch->heard = 0;
        watch->resting = 0;
        CEntry* entry = find_locked(shard, fd);
        entry->armed = entry->arming == ARM_EDGE ? 0 : entry->armed;
        arm_locked(shard, *entry, nullptr);
    }
}

// Never 0, which is the poller's own.
uint32_t CSockTable::new_generation() {
    const uint32_t generation = m_next_generation.fetch_add(1);
    return generation != 0 ? generation : m_next_generation.fetch_add(1);
}

CSockTable::CEntry* CSockTable::find_locked(CShard& shard, int fd) {
    const size_t place = place_of(fd);
    return place < shard.slots.size() ? shard.slots[place].entry.get() : nullptr;
}

// Null without a poller, or if memory is short.
CSockTable::CEntry* CSockTable::find_or_make_locked(CShard& shard, int fd) {
    if (shard.poller == nullptr) {
        return nullptr;
    }
    CEntry* found = find_locked(shard, fd);
    if (found != nullptr) {
        return found;
    }
    const size_t place = place_of(fd);
    try {
        if (place >= shard.slots.size()) {
            shard.slots.resize(place + 1);
        }
        shard.slots[place].entry = std::make_unique<CEntry>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
    CEntry* entry = shard.slots[place].entry.get();
    entry->fd = fd;
    entry->generation = new_generation();
    return entry;
}

// The watch of `core`; a `serial` other than 0 must match.
CSockTable::CWatch* CSockTable::find_watch_locked(CShard& shard, const CHandlerCore* core, int fd, uint64_t serial) {
    CEntry* entry = find_locked(shard, fd);
    if (entry == nullptr) {
        return nullptr;
    }
    for (CWatch& watch : entry->watches) {
        if (watch.core.get() == core) {
            return serial == 0 || watch.serial == serial ? &watch : nullptr;
        }
    }
    return nullptr;
}

// The watch of `core`, which may be new; null without a poller, if memory is short, or if the descriptor has all its
// watches.
CSockTable::CWatch* CSockTable::find_or_add_watch_locked(CShard& shard, const std::shared_ptr<CHandlerCore>& core,
                                                         int fd) {
    CEntry* entry = find_or_make_locked(shard, fd);
    if (entry == nullptr) {
        return nullptr;
    }
    CWatch* found = find_watch_locked(shard, core.get(), fd, 0);
    if (found != nullptr || entry->watches.size() >= MAX_WATCHES) {
        return found;
    }
    try {
        entry->watches.emplace_back();
    } catch (const std::bad_alloc&) {
        drop_if_unused_locked(shard, *entry);
        return nullptr;
    }
    entry->watches.back().core = core;
    entry->watches.back().serial = m_next_serial.fetch_add(1);
    CSlot& slot = shard.slots[place_of(fd)];
    slot.watch = entry->watches.data();
    slot.core = entry->watches.front().core.get();
    slot.handler = entry->watches.front().core->Place();
    return &entry->watches.back();
}

// A later deadline needs no word to the queue: OnDeadline looks at the stamps and sets the next one.
int CSockTable::set_timeout(CWatch& watch, int fd, uint64_t timeout, uint64_t now) {
    std::fill(watch.last, watch.last + KINDS, now);
    watch.timeout = timeout;
    watch.timed_out = 0;  // one that was due by the former time-out isn't told any more
    if (timeout == 0) {
        m_timers.Cancel(watch.timer);
        watch.timer = 0;
        return 0;
    }
    const uint64_t deadline = now + timeout;
    if (watch.timer == 0) {
        watch.timer = m_timers.Add(deadline, CTimerTarget{watch.core, fd, watch.serial});
        watch.deadline = deadline;
    } else if (deadline < watch.deadline) {
        m_timers.Rearm(watch.timer, deadline);
        watch.deadline = deadline;
    }
    return watch.timer == 0 ? -1 : 0;
}

void CSockTable::drop_watch_locked(CShard& shard, CEntry& entry, const CWatch* watch) {
    m_timers.Cancel(watch->timer);
    CWatch& dropped = entry.watches[static_cast<size_t>(watch - entry.watches.data())];
    std::swap(dropped, entry.watches.back());
    entry.watches.pop_back();
    drop_if_unused_locked(shard, entry);
}

void CSockTable::drop_others(CEntry& entry, const CHandlerCore* kept) {
    const auto is_stale = [this, kept](const CWatch& watch) {
        return watch.core.get() != kept && (m_timers.Cancel(watch.timer), true);
    };
    entry.watches.erase(std::remove_if(entry.watches.begin(), entry.watches.end(), is_stale), entry.watches.end());
    entry.generation = new_generation();
}

void CSockTable::drop_if_unused_locked(CShard& shard, CEntry& entry) {
    if (!entry.watches.empty()) {
        return;
    }
    if (entry.polled && shard.poller != nullptr) {
        shard.poller->Remove(entry.fd);
    }
    shard.slots[place_of(entry.fd)].entry.reset();
}

// Arms the poller for what `core` has registered just now; without success its watch goes. 0 or -1.
int CSockTable::arm_new_locked(CShard& shard, const CHandlerCore* core, int fd) {
    CEntry* entry = find_locked(shard, fd);
    if (arm_locked(shard, *entry, core) == 0) {
        return 0;
    }
    drop_watch_locked(shard, *entry, find_watch_locked(shard, core, fd, 0));
    return -1;
}

poll_arming_t CSockTable::arming_for(const CEntry& entry, unsigned int needed) {
    const auto drains = [](const CWatch& watch) { return watch.drains || (watch.mask & SOCK_EVENT_READ) == 0; };
    if ((needed & POLL_WRITE) != 0) {
        return ARM_ONCE;
    }
    if ((needed & POLL_READ) == 0) {
        return ARM_LEVEL;  // for an error alone, which an end isn't
    }
    return std::all_of(entry.watches.begin(), entry.watches.end(), drains) ? ARM_EDGE : ARM_LEVEL;
}

// Arms the poller for what is wanted and not being handled. `registering` is the core that registers just now, or null;
// the poller is then asked in any case, because it knows whether the file is still the one that the entry was made for.
int CSockTable::arm_locked(CShard& shard, CEntry& entry, const CHandlerCore* registering) {
    unsigned int needed = 0;
    for (const CWatch& watch : entry.watches) {
        needed |= ((watch.mask & ~watch.resting) | watch.once) & ~watch.pending;
    }
    if (shard.poller == nullptr || needed == 0 || (registering == nullptr && (needed & ~entry.armed) == 0)) {
        return 0;
    }
    const poll_arming_t arming = arming_for(entry, needed);
    int result = entry.polled ? shard.poller->Modify(entry.fd, entry.generation, needed, arming) : -ENOENT;
    if (result == -ENOENT) {
        if (entry.polled && registering == nullptr) {
            // The descriptor was closed under its watches and its number given out again: they don't mean this file,
            // and go when somebody registers for it.
            entry.armed = 0;
            return result;
        }
        if (entry.polled) {
            drop_others(entry, registering);
        }
        result = shard.poller->Add(entry.fd, entry.generation, needed, arming);
    }
    entry.polled = result == 0;
    entry.arming = arming;
    entry.armed = result == 0 ? needed : 0;
    return result;
}

}  // namespace Tramel
}  // namespace Kavio
