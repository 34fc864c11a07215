#include "Tramel/TimerQueue.h"

#include <new>
#include <utility>

#include "Tramel/EpollPoller.h"

namespace Kavio {
namespace Tramel {

namespace {

// The alarm is set at whole milliseconds, so that deadlines that lie close together cost one wake-up.
constexpr uint64_t ALARM_GRAIN_US = 1000;

uint64_t pack_handle(uint32_t generation, uint32_t index) {
    return (static_cast<uint64_t>(generation) << 32) | index;
}

uint32_t index_of(uint64_t handle) {
    return static_cast<uint32_t>(handle);
}

}  // namespace

void CTimerQueue::SetPoller(std::shared_ptr<CEpollPoller> poller) {
    Ostra::CGuard guard(m_mutex);
    m_poller = std::move(poller);
    m_alarm = NO_DEADLINE;
    set_alarm_locked();
}

uint64_t CTimerQueue::Add(uint64_t deadline, CTimerTarget target) {
    Ostra::CGuard guard(m_mutex);
    uint32_t index = 0;
    try {
        // Room for every slot in the other two as well, so that nothing below can fail.
        if (m_free.empty()) {
            m_slots.emplace_back();
            m_free.reserve(m_slots.capacity());
            m_heap.reserve(m_slots.capacity());
            m_free.push_back(static_cast<uint32_t>(m_slots.size() - 1));
        }
    } catch (const std::bad_alloc&) {
        return 0;
    }
    index = m_free.back();
    m_free.pop_back();
    CSlot& slot = m_slots[index];
    slot.used = true;
    slot.target = std::move(target);
    push_locked(index, deadline);
    set_alarm_locked();
    return pack_handle(slot.generation, index);
}

bool CTimerQueue::Rearm(uint64_t handle, uint64_t deadline) {
    Ostra::CGuard guard(m_mutex);
    CSlot* slot = find_locked(handle);
    if (slot == nullptr) {
        return false;
    }
    if (slot->place == NO_PLACE) {
        push_locked(index_of(handle), deadline);
    } else {
        slot->deadline = deadline;
        sift_locked(slot->place);
    }
    set_alarm_locked();
    return true;
}

bool CTimerQueue::Cancel(uint64_t handle) {
    CTimerTarget target;  // released after the lock
    Ostra::CGuard guard(m_mutex);
    CSlot* slot = find_locked(handle);
    if (slot == nullptr) {
        return false;
    }
    if (slot->place != NO_PLACE) {
        take_out_locked(slot->place);
    }
    std::swap(target, slot->target);
    slot->used = false;
    slot->generation = slot->generation == UINT32_MAX ? 1 : slot->generation + 1;  // a handle is never 0
    m_free.push_back(index_of(handle));
    return true;
}

size_t CTimerQueue::TakeDue(uint64_t now, CTimerTarget* out, size_t max) {
    Ostra::CGuard guard(m_mutex);
    size_t count = 0;
    while (count < max && !m_heap.empty() && m_slots[m_heap[0]].deadline <= now) {
        out[count++] = m_slots[m_heap[0]].target;
        take_out_locked(0);
    }
    return count;
}

void CTimerQueue::ResetAlarm() {
    Ostra::CGuard guard(m_mutex);
    m_alarm = NO_DEADLINE;
    set_alarm_locked();
}

uint64_t CTimerQueue::FirstDeadline() {
    Ostra::CGuard guard(m_mutex);
    return m_heap.empty() ? NO_DEADLINE : m_slots[m_heap[0]].deadline;
}

CTimerQueue::CSlot* CTimerQueue::find_locked(uint64_t handle) {
    const uint32_t index = index_of(handle);
    if (index >= m_slots.size()) {
        return nullptr;
    }
    CSlot& slot = m_slots[index];
    return slot.used && pack_handle(slot.generation, index) == handle ? &slot : nullptr;
}

void CTimerQueue::push_locked(uint32_t index, uint64_t deadline) {
    m_slots[index].deadline = deadline;
    m_heap.push_back(index);
    m_slots[index].place = m_heap.size() - 1;
    sift_locked(m_heap.size() - 1);
}

void CTimerQueue::take_out_locked(size_t place) {
    m_slots[m_heap[place]].place = NO_PLACE;
    const uint32_t last = m_heap.back();
    m_heap.pop_back();
    if (place < m_heap.size()) {
        put_locked(place, last);
        sift_locked(place);
    }
}

// Moves the slot at `place` up or down until its parent isn't later and its children aren't earlier.
void CTimerQueue::sift_locked(size_t place) {
    const uint32_t index = m_heap[place];
    const uint64_t deadline = m_slots[index].deadline;
    while (place > 0 && deadline < m_slots[m_heap[(place - 1) / 2]].deadline) {
        put_locked(place, m_heap[(place - 1) / 2]);
        place = (place - 1) / 2;
    }
    for (;;) {
        size_t child = 2 * place + 1;
        if (child + 1 < m_heap.size() && m_slots[m_heap[child + 1]].deadline < m_slots[m_heap[child]].deadline) {
            ++child;
        }
        if (child >= m_heap.size() || deadline <= m_slots[m_heap[child]].deadline) {
            break;
        }
        put_locked(place, m_heap[child]);
        place = child;
    }
    put_locked(place, index);
}

void CTimerQueue::put_locked(size_t place, uint32_t index) {
    m_heap[place] = index;
    m_slots[index].place = place;
}

// An alarm that is too early does no harm, so it is set only when the first deadline comes before it.
void CTimerQueue::set_alarm_locked() {
    if (m_poller == nullptr || m_heap.empty()) {
        return;
    }
    const uint64_t alarm = (m_slots[m_heap[0]].deadline / ALARM_GRAIN_US + 1) * ALARM_GRAIN_US;
    if (alarm < m_alarm) {
        m_alarm = alarm;
        m_poller->SetAlarm(alarm);
    }
}

}  // namespace Tramel
}  // namespace Kavio
