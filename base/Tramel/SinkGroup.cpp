#include "Tramel/SinkGroup.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>

#include "Tramel/MediaStreamSender.h"
#include "Tramel/PooledSink.h"
#include "Tramel/Reactor.h"
#include "Tramel/SockDetail.h"
#include "Tramel/StreamOutput.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

std::atomic<bool> CSinkGroup::s_tells_all{false};

bool CSinkGroup::Put(COutputUnit* unit) {
    CGuard guard(m_mutex);
    if (m_count == 0) {
        return false;
    }
    const bool room = m_pending.Count() < MAX_PENDING && m_pending_bytes < MAX_PENDING_BYTES;
    if (room && m_gate.Open(*unit) && m_pending.Push(unit)) {
        unit->AddRef();
        m_gate.Passed(*unit);
        m_pending_bytes += unit->Length();
    } else {
        m_gate.Dropped(*unit);
        CMediaCounters::Instance().AddDropped(m_count);
    }
    return !m_running && (m_pending.Count() >= HELP_PENDING || !CReactor::Instance().IsRunning());
}

void CSinkGroup::Kick() {
    m_mutex.enter();
    const bool due = !m_pending.Empty();
    m_mutex.leave();
    if (due) {
        Schedule();
    }
}

bool CSinkGroup::RunTurn() {
    CLoad load;
    size_t place_count = 0;
    if (!take_pending(load.batch, place_count)) {
        return false;
    }
    CBlock* block = &m_first;
    for (size_t index = 0; index < place_count; ++index) {
        if (index > 0 && index % BLOCK_ENTRIES == 0) {
            block = block->next.get();
        }
        write_entry(load, index, block->entries[index % BLOCK_ENTRIES]);
    }
    load.tally.Tell();
    for (unsigned int i = 0; i < load.batch.Count(); ++i) {
        load.batch.Unit(i)->Release();
    }
    return end_turn();
}

void CSinkGroup::RunHere() {
    while (RunTurn()) {
        if (CReactor::Instance().IsRunning()) {
            Schedule();
            return;
        }
    }
}

// Begins a turn. False if there is nothing to do, or another thread is at it; that one sees to what comes meanwhile.
// Sinks that come during the turn get none of its units, as those were put before.
bool CSinkGroup::take_pending(CUnitBatch& batch, size_t& place_count) {
    CGuard guard(m_mutex);
    if (m_running || m_pending.Empty()) {
        return false;
    }
    m_running = true;
    m_runner = std::this_thread::get_id();
    place_count = m_places.size();
    while (!m_pending.Empty() && !batch.Full()) {
        COutputUnit* unit = m_pending.Pop();
        m_pending_bytes -= unit->Length();
        batch.Add(unit);
    }
    return true;
}

// A call of the sink begins before the turn is given, so that the sink can't leave in between.
void CSinkGroup::write_entry(CLoad& load, size_t index, CSinkEntry& entry) {
    entry.turn.Take();
    if (entry.level2 != nullptr) {
        write_level2(load, index, entry);
        return;
    }
    CNews news;
    const uint64_t taken = send(load.batch, entry, load.tally);
    count_frames(load.batch, taken, entry, news);
    const CGroupSink sink = news.units != 0 ? begin_call(index) : CGroupSink(nullptr);
    entry.turn.Give();
    if (sink != nullptr) {
        tell(load.batch, index, sink, news);
        end_call();
    }
}

// Gives the turn.
void CSinkGroup::write_level2(CLoad& load, size_t index, CSinkEntry& entry) {
    CDgramLayout::CRest rest = {0, 0, 0};
    if (entry.TakesDatagrams()) {
        rest = load.layout.Send(entry, load.tally);
    }
    CNews news;
    count_frames(load.batch, rest.sent, entry, news);
    const bool calls = news.units != 0 || rest.unit < load.batch.Count();
    const CGroupSink sink = calls ? begin_call(index) : CGroupSink(nullptr);
    entry.turn.Give();
    if (sink != nullptr) {
        if (tell(load.batch, index, sink, news)) {
            put_level2(load.batch, index, entry, static_cast<CPooledSink&>(*sink.Level2()), rest);
        }
        end_call();
    }
}

// The set of the units that the sender took.
uint64_t CSinkGroup::send(const CUnitBatch& batch, CSinkEntry& entry, CMediaTally& tally) {
    if (entry.output == nullptr || (entry.fd >= 0 && (batch.Slots() & entry.slots) == 0)) {
        return 0;
    }
    const bool all = batch.Unit(0)->Sequence() >= entry.from_sequence && (batch.Slots() & ~entry.slots) == 0;
    if (!all || entry.fd < 0) {
        return entry.output->SendMediaInTurn(batch);
    }
    const int64_t written = WriteParts(entry.fd, batch.Parts(), batch.PartCount());
    if (written != static_cast<int64_t>(batch.Bytes())) {
        return entry.output->TakeRestInTurn(batch, written, errno);
    }
    entry.written += batch.Bytes();
    tally.Sent(batch.Packets(), batch.Bytes());
    return batch.All();
}

// Notes the numbers of the frames that were taken, and which of them the sink is to hear of.
void CSinkGroup::count_frames(const CUnitBatch& batch, uint64_t taken, CSinkEntry& entry, CNews& news) {
    if (taken == 0 || !batch.HasSides() || entry.told == TOLD_NOTHING) {
        return;
    }
    const bool tells_all = entry.told == TOLD_ALL || s_tells_all.load(std::memory_order_relaxed);
    for (unsigned int i = 0; i < batch.Count(); ++i) {
        const COutputUnit& unit = *batch.Unit(i);
        const uint64_t bit = static_cast<uint64_t>(1) << i;
        if ((taken & bit) == 0 || unit.SideCount() == 0) {
            continue;
        }
        news.last[i] = 0;
        bool told = true;
        if (unit.IsNumbered()) {
            uint32_t& number = entry.numbers[unit.NumberTrack()];
            news.last[i] = number;
            told = tells_all || (number != 0 && unit.Number() - number != 1);
            number = unit.Number();
        }
        news.units |= told ? bit : 0;
    }
}

// False if the sink was taken away meanwhile, also by its own procedure.
bool CSinkGroup::tell(const CUnitBatch& batch, size_t index, CGroupSink sink, const CNews& news) {
    typedef CMediaStreamSender::send_proc_t proc_t;
    const proc_t proc = news.units == 0 ? proc_t()
                        : sink.Sender() != nullptr
                            ? sink.Sender()->proc()
                            : proc_t(static_cast<CPooledSink*>(sink.Level2()), &CPooledSink::PutInfo);
    bool called = false;
    for (unsigned int i = 0; i < batch.Count() && !proc.empty(); ++i) {
        const COutputUnit* unit = batch.Unit(i);
        const bool told = (news.units & (static_cast<uint64_t>(1) << i)) != 0;
        for (unsigned int side = 0; told && side < unit->SideCount(); ++side) {
            int length = 0;
            CMediaPacket* packet = unit->Side(side, &length);
            if (called && !stands_at(index, sink)) {
                return false;
            }
            proc(packet, length, static_cast<int>(news.last[i]));
            called = true;
        }
    }
    return !called || stands_at(index, sink);
}

void CSinkGroup::put_level2(const CUnitBatch& batch, size_t index, CSinkEntry& entry, CPooledSink& level2,
                            CDgramLayout::CRest rest) {
    for (unsigned int i = rest.unit; i < batch.Count(); ++i, rest.offset = 0) {
        const COutputUnit& unit = *batch.Unit(i);
        if (unit.Sequence() < entry.from_sequence) {
            continue;
        }
        if (!put_unit(unit, index, level2, rest.offset)) {
            return;
        }
        CNews news;
        {
            const CTurnGuard turn(entry.turn);
            const uint64_t sent = level2.SentWhole() ? static_cast<uint64_t>(1) << i : 0;
            count_frames(batch, sent, entry, news);
        }
        if (!tell(batch, index, CGroupSink(&level2), news)) {
            return;
        }
    }
}

// False if the sink was taken away meanwhile.
bool CSinkGroup::put_unit(const COutputUnit& unit, size_t index, CPooledSink& level2, size_t offset) {
    for (unsigned int part = 0; part < unit.PartCount(); ++part) {
        if (offset > 0) {
            unit.PutRest(offset, level2);
        } else {
            unit.PutPart(part, level2);
        }
        if (!stands_at(index, CGroupSink(&level2))) {
            return false;
        }
    }
    return true;
}

// Marks the sink of a place as called; null if it leaves.
CGroupSink CSinkGroup::begin_call(size_t index) {
    CGuard guard(m_mutex);
    const CPlace& place = m_places[index];
    m_current = place.state == PLACE_USED ? place.sink : CGroupSink(nullptr);
    return m_current;
}

void CSinkGroup::end_call() {
    CGuard guard(m_mutex);
    m_current = nullptr;
    m_wait.Wake();
}

bool CSinkGroup::stands_at(size_t index, CGroupSink sink) {
    CGuard guard(m_mutex);
    return m_places[index].state == PLACE_USED && m_places[index].sink == sink;
}

// True if units came meanwhile.
bool CSinkGroup::end_turn() {
    CGuard guard(m_mutex);
    m_running = false;
    for (size_t i = 0; m_any_left && i < m_places.size(); ++i) {
        m_places[i].state = m_places[i].state == PLACE_LEFT ? PLACE_FREE : m_places[i].state;
    }
    m_any_left = false;
    trim_locked();
    return !m_pending.Empty();
}

bool CSinkGroup::Add(CGroupSink sink, uint64_t from_sequence) {
    size_t index = 0;
    CSinkEntry* entry = nullptr;
    if (!reserve(index, entry)) {
        return false;
    }
    const bool entered = enter(sink, from_sequence, *entry);
    CGuard guard(m_mutex);
    CPlace& place = m_places[index];
    place.sink = entered ? sink : CGroupSink(nullptr);
    place.state = entered ? PLACE_USED : PLACE_FREE;
    m_count += entered ? 1 : 0;
    m_senders += entered && sink.Sender() != nullptr ? 1 : 0;
    return entered;
}

// Takes a free place, or a new one behind the others. False if memory is short.
bool CSinkGroup::reserve(size_t& index, CSinkEntry*& entry) {
    CGuard guard(m_mutex);
    index = 0;
    while (index < m_places.size() && m_places[index].state != PLACE_FREE) {
        ++index;
    }
    if (index == m_places.size()) {
        CSinkEntry* behind = entry_behind_locked();
        if (behind == nullptr) {
            return false;
        }
        try {
            m_places.push_back(CPlace{nullptr, PLACE_FREE, behind});
        } catch (const std::bad_alloc&) {
            return false;
        }
    }
    m_places[index].state = PLACE_CHANGING;
    entry = m_places[index].entry;
    return true;
}

CSinkEntry* CSinkGroup::entry_behind_locked() {
    const size_t index = m_places.size();
    CBlock* block = &m_first;
    for (size_t first = BLOCK_ENTRIES; first <= index; first += BLOCK_ENTRIES) {
        if (block->next == nullptr) {
            block->next.reset(new (std::nothrow) CBlock);
        }
        if (block->next == nullptr) {
            return nullptr;
        }
        block = block->next.get();
    }
    return &block->entries[index % BLOCK_ENTRIES];
}

bool CSinkGroup::enter(CGroupSink sink, uint64_t from_sequence, CSinkEntry& entry) {
    {
        const CTurnGuard turn(entry.turn);
        entry.from_sequence = from_sequence;
        entry.level2 = sink.Level2();
        std::fill(std::begin(entry.numbers), std::end(entry.numbers), 0);
    }
    if (sink.Sender() != nullptr) {
        return sink.Sender()->join(entry);
    }
    static_cast<CPooledSink*>(sink.Level2())->EnterPlace(entry);
    return true;
}

bool CSinkGroup::Has(CGroupSink sink) {
    CGuard guard(m_mutex);
    return find_locked(sink) < m_places.size();
}

size_t CSinkGroup::find_locked(CGroupSink sink) {
    size_t index = 0;
    while (index < m_places.size() && (m_places[index].state != PLACE_USED || m_places[index].sink != sink)) {
        ++index;
    }
    return index;
}

void CSinkGroup::Remove(CGroupSink sink) {
    size_t index = 0;
    {
        CGuard guard(m_mutex);
        index = find_locked(sink);
        if (index < m_places.size()) {
            begin_removal_locked(index);
        } else {
            index = SIZE_MAX;
        }
    }
    if (index != SIZE_MAX) {
        end_removal(index, sink);
    }
    CGuard guard(m_mutex);
    wait_locked(sink);
}

void CSinkGroup::RemoveAll() {
    while (true) {
        CGroupSink sink = nullptr;
        {
            CGuard guard(m_mutex);
            for (const CPlace& place : m_places) {
                sink = place.state == PLACE_USED ? place.sink : sink;
            }
        }
        if (sink == nullptr) {
            return;
        }
        Remove(sink);
    }
}

void CSinkGroup::begin_removal_locked(size_t index) {
    m_places[index].state = PLACE_CHANGING;
    --m_count;
    m_senders -= m_places[index].sink.Sender() != nullptr ? 1 : 0;
    if (m_count == 0) {
        m_pending.Clear();
        m_pending_bytes = 0;
        m_gate = CTrackGate();
    }
}

// Waits for a write to the sink that runs; none begins behind it.
void CSinkGroup::end_removal(size_t index, CGroupSink sink) {
    m_mutex.enter();
    CSinkEntry& entry = *m_places[index].entry;
    m_mutex.leave();
    if (sink.Sender() != nullptr) {
        sink.Sender()->leave();
    } else {
        static_cast<CPooledSink*>(sink.Level2())->LeavePlace(entry);
    }
    {
        const CTurnGuard turn(entry.turn);
        entry.level2 = nullptr;
        entry.CloseOutlets();
        entry.told = TOLD_NOTHING;
    }
    CGuard guard(m_mutex);
    m_places[index].sink = nullptr;
    m_places[index].state = m_running ? PLACE_LEFT : PLACE_FREE;
    m_any_left = m_any_left || m_running;
    trim_locked();
    m_wait.Wake();
}

// Without a sink the memory goes.
void CSinkGroup::trim_locked() {
    bool all_free = m_count == 0 && !m_running;
    for (size_t i = 0; all_free && i < m_places.size(); ++i) {
        all_free = m_places[i].state == PLACE_FREE;
    }
    if (all_free) {
        m_places.clear();
        m_first.next.reset();
    }
}

// Waits for another thread that removes the sink, and for one that calls it.
void CSinkGroup::wait_locked(CGroupSink sink) {
    while (changes_locked(sink) || (m_current == sink && m_runner != std::this_thread::get_id())) {
        m_wait.Wait(m_mutex);
    }
}

bool CSinkGroup::changes_locked(CGroupSink sink) {
    return std::any_of(m_places.begin(), m_places.end(),
                       [sink](const CPlace& place) { return place.state == PLACE_CHANGING && place.sink == sink; });
}

bool CSinkGroup::IsIdle() {
    CGuard guard(m_mutex);
    return !m_running && m_pending.Empty();
}

bool CSinkGroup::HasStreams() {
    CGuard guard(m_mutex);
    return m_senders > 0;
}

size_t CSinkGroup::Count() {
    CGuard guard(m_mutex);
    return m_count;
}

}  // namespace Tramel
}  // namespace Kavio
