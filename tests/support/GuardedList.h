#ifndef VIDORA_TESTS_SUPPORT_GUARDEDLIST_H
#define VIDORA_TESTS_SUPPORT_GUARDEDLIST_H

#include <algorithm>
#include <mutex>
#include <utility>
#include <vector>

namespace Kavio::Support {

// CGuardedList: what threads have noted, in its order. Any thread.
template <typename T>
class CGuardedList {
public:
    void Add(T item) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_items.push_back(std::move(item));
    }
    std::vector<T> All() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_items;
    }
    // All, which are forgotten.
    std::vector<T> Take() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return std::exchange(m_items, {});
    }
    size_t Size() const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_items.size();
    }
    // Those that are like that, or that `fits` holds for.
    int Count(const T& item) const {
        return CountIf([&item](const T& each) { return each == item; });
    }
    template <typename Fits>
    int CountIf(Fits fits) const {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return static_cast<int>(std::count_if(m_items.begin(), m_items.end(), fits));
    }

private:
    mutable std::mutex m_mutex;
    std::vector<T> m_items;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_GUARDEDLIST_H
