#include "Tramel/TimerQueue.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace Kavio {
namespace Tramel {
namespace {

// Against an ordered map: every deadline comes once, in order, unless moved or cancelled; handles of the dead are dead.
TEST(TimerQueue, BehavesLikeAnOrderedMap) {
    CTimerQueue queue;
    std::mt19937 random(7);
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> alive;  // serial to handle and deadline
    std::vector<uint64_t> dead;
    uint64_t now = 0;
    uint64_t next_serial = 1;
    for (int step = 0; step < 20000; ++step) {
        const unsigned int what = random() % 8;
        auto some = alive.lower_bound(next_serial == 1 ? 0 : random() % next_serial);
        if (what < 3 || some == alive.end()) {
            const uint64_t deadline = now + random() % 1000;
            const uint64_t handle = queue.Add(deadline, CTimerTarget{nullptr, -1, next_serial});
            ASSERT_NE(0U, handle);
            alive[next_serial++] = {handle, deadline};
        } else if (what < 5) {
            some->second.second = now + random() % 1000;
            ASSERT_TRUE(queue.Rearm(some->second.first, some->second.second));
        } else if (what < 6) {
            ASSERT_TRUE(queue.Cancel(some->second.first));
            dead.push_back(some->second.first);
            alive.erase(some);
        } else {
            now += random() % 100;
            CTimerTarget due[16];
            uint64_t last = 0;
            const size_t count = queue.TakeDue(now, due, 16);
            for (size_t i = 0; i < count; ++i) {
                auto& taken = alive.at(due[i].serial);
                ASSERT_LE(taken.second, now);
                ASSERT_LE(last, taken.second);
                last = taken.second;
                taken.second = now + 1 + random() % 1000;
                ASSERT_TRUE(queue.Rearm(taken.first, taken.second));
            }
            uint64_t first = CTimerQueue::NO_DEADLINE;
            for (const auto& entry : alive) {
                first = std::min(first, entry.second.second);
            }
            ASSERT_EQ(first, queue.FirstDeadline());
        }
    }
    for (const uint64_t handle : dead) {
        ASSERT_FALSE(queue.Cancel(handle));
        ASSERT_FALSE(queue.Rearm(handle, 0));
    }
}

}  // namespace
}  // namespace Tramel
}  // namespace Kavio
