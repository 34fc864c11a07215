#ifndef VIDORA_TRAMEL_UNITRING_H
#define VIDORA_TRAMEL_UNITRING_H

#include <cstddef>

namespace Kavio {
namespace Tramel {

class COutputUnit;

// CUnitRing: a queue of units that holds a reference on each. Empty, it takes no memory beyond itself or a small block
// that it keeps. No lock of its own.
class CUnitRing {
public:
    CUnitRing() = default;
    ~CUnitRing();
    CUnitRing(const CUnitRing&) = delete;
    CUnitRing& operator=(const CUnitRing&) = delete;

    bool Empty() const { return m_count == 0; }
    size_t Count() const { return m_count; }
    // The unit at `index` from the front; index below Count().
    COutputUnit* At(size_t index) const { return m_units[(m_first + index) & (m_capacity - 1)]; }

    // Appends `unit`, whose reference the ring takes. False, and nothing is taken, if memory is short.
    bool Push(COutputUnit* unit);
    // Takes the front unit off and hands its reference to the caller. Not on an empty ring.
    COutputUnit* Pop();
    // Keeps the units for which `keep` returns true, in order, and releases the others.
    template <typename Keep>
    void Filter(Keep keep) {
        size_t kept = 0;
        for (size_t i = 0; i < m_count; ++i) {
            COutputUnit* unit = At(i);
            if (keep(i, unit)) {
                m_units[(m_first + kept) & (m_capacity - 1)] = unit;
                ++kept;
            } else {
                release(unit);
            }
        }
        m_count = kept;
        trim();
    }
    // Releases all units.
    void Clear();

private:
    static const size_t FIRST_CAPACITY = 8;
    static const size_t KEPT_CAPACITY = 32;  // a block up to this size stays when the ring runs empty

    static void release(COutputUnit* unit);
    bool grow();
    void trim();

    COutputUnit** m_units = nullptr;
    size_t m_capacity = 0;  // a power of two, or 0
    size_t m_first = 0;
    size_t m_count = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_UNITRING_H
