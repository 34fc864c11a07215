#include "Tramel/SinkGroup.h"

#include <algorithm>
#include <new>

#include "Tramel/MediaCounters.h"
#include "Tramel/MediaStreamSender.h"
#include "Tramel/PooledSink.h"
#include "Tramel/Reactor.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

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
    CUnitBatch batch;
    size_t sink_count = 0;
    if (!take_pending(batch, sink_count)) {
        return false;
    }
    uint64_t from_sequence = 0;
    size_t index = 0;
    for (CGroupSink sink = nullptr; (sink = next_sink(index, sink_count, from_sequence)) != nullptr; ++index) {
        if (sink.Sender() != nullptr) {
            write_sender(batch, index, *sink.Sender(), from_sequence);
        } else {
            write_level2(batch, index, *sink.Level2(), from_sequence);
        }
    }
    for (unsigned int i = 0; i < batch.Count(); ++i) {
        batch.Unit(i)->Release();
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
bool CSinkGroup::take_pending(CUnitBatch& batch, size_t& sink_count) {
    CGuard guard(m_mutex);
    if (m_running || m_pending.Empty()) {
        return false;
    }
    m_running = true;
    m_runner = std::this_thread::get_id();
    sink_count = m_sinks.size();
    while (!m_pending.Empty() && !batch.Full()) {
        COutputUnit* unit = m_pending.Pop();
        m_pending_bytes -= unit->Length();
        batch.Add(unit);
    }
    return true;
}

// Ends the call of the sink before and marks the one at or behind `index` as called; null at the end. Those that came
// during the turn are behind the end: they get none of its units.
CGroupSink CSinkGroup::next_sink(size_t& index, size_t sink_count, uint64_t& from_sequence) {
    CGuard guard(m_mutex);
    m_current = nullptr;
    m_wait.Wake();
    while (index < sink_count && m_sinks[index].sink == nullptr) {
        ++index;
    }
    if (index >= sink_count) {
        return nullptr;
    }
    m_current = m_sinks[index].sink;
    from_sequence = m_sinks[index].from_sequence;
    return m_sinks[index].sink;
}

void CSinkGroup::write_sender(const CUnitBatch& batch, size_t index, CMediaStreamSender& sender,
                              uint64_t from_sequence) {
    CMediaStreamSender::send_proc_t proc;
    const uint64_t taken = sender.send_batch(batch, from_sequence, proc);
    if (!batch.HasSides() || taken == 0) {
        return;
    }
    bool called = false;
    for (unsigned int i = 0; i < batch.Count() && !proc.empty(); ++i) {
        const COutputUnit* unit = batch.Unit(i);
        if ((taken & (static_cast<uint64_t>(1) << i)) == 0) {
            continue;
        }
        for (unsigned int side = 0; side < unit->SideCount(); ++side) {
            int length = 0;
            CMediaPacket* packet = unit->Side(side, &length);
            if (called && !stands_at(index, CGroupSink(&sender))) {
                return;  // the procedure took its own sender away
            }
            proc(packet, length, 0);
            called = true;
        }
    }
}

void CSinkGroup::write_level2(const CUnitBatch& batch, size_t index, CLevel2Buffer_IF& level2, uint64_t from_sequence) {
    CPooledSink* pooled = batch.HasSides() ? dynamic_cast<CPooledSink*>(&level2) : nullptr;
    bool called = false;
    for (unsigned int i = 0; i < batch.Count(); ++i) {
        const COutputUnit* unit = batch.Unit(i);
        const unsigned int parts = unit->Sequence() < from_sequence ? 0 : unit->PartCount();
        for (unsigned int part = 0; part < parts; ++part) {
            if (called && !stands_at(index, CGroupSink(&level2))) {
                return;  // it has been taken away
            }
            unit->PutPart(part, level2);
            called = true;
        }
        for (unsigned int side = 0; side < unit->SideCount() && pooled != nullptr && parts > 0; ++side) {
            if (!stands_at(index, CGroupSink(&level2))) {
                return;
            }
            int length = 0;
            CMediaPacket* packet = unit->Side(side, &length);
            pooled->PutInfo(packet, length);
        }
    }
}

bool CSinkGroup::stands_at(size_t index, CGroupSink sink) {
    CGuard guard(m_mutex);
    return m_sinks[index].sink == sink;
}

// True if units came meanwhile.
bool CSinkGroup::end_turn() {
    CGuard guard(m_mutex);
    m_running = false;
    m_sinks.erase(
        std::remove_if(m_sinks.begin(), m_sinks.end(), [](const CEntry& entry) { return entry.sink == nullptr; }),
        m_sinks.end());
    return !m_pending.Empty();
}

bool CSinkGroup::Add(CGroupSink sink, uint64_t from_sequence) {
    CGuard guard(m_mutex);
    try {
        m_sinks.push_back(CEntry{sink, from_sequence});
    } catch (const std::bad_alloc&) {
        return false;
    }
    ++m_count;
    return true;
}

bool CSinkGroup::Has(CGroupSink sink) {
    CGuard guard(m_mutex);
    return std::any_of(m_sinks.begin(), m_sinks.end(), [sink](const CEntry& entry) { return entry.sink == sink; });
}

void CSinkGroup::Remove(CGroupSink sink) {
    CGuard guard(m_mutex);
    for (size_t i = 0; i < m_sinks.size(); ++i) {
        if (m_sinks[i].sink == sink) {
            remove_at_locked(i);
            break;
        }
    }
    wait_locked(sink);
}

void CSinkGroup::RemoveAll() {
    CGuard guard(m_mutex);
    while (m_count > 0) {
        size_t index = 0;
        while (m_sinks[index].sink == nullptr) {
            ++index;
        }
        const CGroupSink sink = m_sinks[index].sink;
        remove_at_locked(index);
        wait_locked(sink);
    }
}

void CSinkGroup::remove_at_locked(size_t index) {
    --m_count;
    if (m_running) {
        m_sinks[index].sink = nullptr;
    } else {
        m_sinks.erase(m_sinks.begin() + static_cast<std::ptrdiff_t>(index));
    }
    if (m_count == 0) {
        m_pending.Clear();
        m_pending_bytes = 0;
        m_gate = CTrackGate();
    }
}

void CSinkGroup::wait_locked(CGroupSink sink) {
    while (m_current == sink && m_runner != std::this_thread::get_id()) {
        m_wait.Wait(m_mutex);
    }
}

bool CSinkGroup::IsIdle() {
    CGuard guard(m_mutex);
    return !m_running && m_pending.Empty();
}

size_t CSinkGroup::Count() {
    CGuard guard(m_mutex);
    return m_count;
}

}  // namespace Tramel
}  // namespace Kavio
