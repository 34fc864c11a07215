#ifndef VIDORA_TRAMEL_TIMERQUEUE_H
#define VIDORA_TRAMEL_TIMERQUEUE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CEpollPoller;
class CHandlerCore;

// Whom a deadline concerns: a timer of `core` (`fd` is -1, `serial` its identifier), or the quiet time of a socket
// that it watches (`serial` that of the watch).
struct CTimerTarget {
    std::shared_ptr<CHandlerCore> core;
    int fd = -1;
    uint64_t serial = 0;
};

// CTimerQueue: deadlines in the order of time: a binary heap with places known, so that all operations are O(log n).
//
// A deadline that has come stays known by its handle, out of the heap, until Rearm or Cancel. Users whose deadline
// moves with every packet don't call the queue: they let it come, look at their own stamp and rearm.
//
// THREADING  All operations: any thread. Times are microseconds of CEpollPoller::Now(), or any other for a queue
//            without a poller.
class CTimerQueue {
public:
    static constexpr uint64_t NO_DEADLINE = UINT64_MAX;

    // The poller whose alarm follows the first deadline; null for none.
    void SetPoller(std::shared_ptr<CEpollPoller> poller);

    // A new deadline: its handle, never 0; 0 if memory is short.
    uint64_t Add(uint64_t deadline, CTimerTarget target);
    // Sets the deadline anew. False if the handle is gone.
    bool Rearm(uint64_t handle, uint64_t deadline);
    // Ends the handle. False if it is gone.
    bool Cancel(uint64_t handle);
    // Takes up to `max` targets whose deadline isn't after `now`, the earliest first: their count.
    size_t TakeDue(uint64_t now, CTimerTarget* out, size_t max);
    // Sets the alarm for the first deadline that is left; to be called after the taken ones were rearmed.
    void ResetAlarm();
    // The first deadline, or NO_DEADLINE.
    uint64_t FirstDeadline();

private:
    struct CSlot {
        uint64_t deadline = 0;
        size_t place = NO_PLACE;  // in m_heap
        uint32_t generation = 1;
        bool used = false;
        CTimerTarget target;
    };
    static constexpr size_t NO_PLACE = SIZE_MAX;

    CSlot* find_locked(uint64_t handle) VIDORA_REQUIRES(m_mutex);
    void push_locked(uint32_t index, uint64_t deadline) VIDORA_REQUIRES(m_mutex);
    void take_out_locked(size_t place) VIDORA_REQUIRES(m_mutex);
    void sift_locked(size_t place) VIDORA_REQUIRES(m_mutex);
    void put_locked(size_t place, uint32_t index) VIDORA_REQUIRES(m_mutex);
    void set_alarm_locked() VIDORA_REQUIRES(m_mutex);

    Ostra::CMutex m_mutex;
    std::shared_ptr<CEpollPoller> m_poller VIDORA_GUARDED_BY(m_mutex);
    uint64_t m_alarm VIDORA_GUARDED_BY(m_mutex) = NO_DEADLINE;  // for which the poller's alarm is set
    std::vector<CSlot> m_slots VIDORA_GUARDED_BY(m_mutex);
    std::vector<uint32_t> m_free VIDORA_GUARDED_BY(m_mutex);  // unused slots
    std::vector<uint32_t> m_heap VIDORA_GUARDED_BY(m_mutex);  // slots, the first deadline on top
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_TIMERQUEUE_H
