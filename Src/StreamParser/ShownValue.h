#ifndef VIDORA_STREAMPARSER_SHOWNVALUE_H
#define VIDORA_STREAMPARSER_SHOWNVALUE_H

#include <atomic>

namespace Kavio {
namespace Vidora {

// CShownValue: a figure that a converter's own thread writes and the console's thread shows, which may be a moment old.
template <typename T>
class CShownValue {
public:
    void operator=(T value) { m_value.store(value, std::memory_order_relaxed); }
    operator T() const { return m_value.load(std::memory_order_relaxed); }

private:
    std::atomic<T> m_value{};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMPARSER_SHOWNVALUE_H
