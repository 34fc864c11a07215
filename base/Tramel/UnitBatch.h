#ifndef VIDORA_TRAMEL_UNITBATCH_H
#define VIDORA_TRAMEL_UNITBATCH_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "Tramel/OutputUnit.h"

namespace Kavio {
namespace Tramel {

// CUnitBatch: media units that go out together, with the vector that one system call sends them by. Many sinks use one
// batch. Borrows the units. A value of one thread.
class CUnitBatch {
public:
    static const unsigned int MAX_UNITS = 64;

    void Clear() {
        m_count = m_part_count = m_slots = m_packets = 0;
        m_has_sides = false;
        m_bytes = 0;
    }
    bool Full() const { return m_count == MAX_UNITS; }
    void Add(COutputUnit* unit) {
        for (unsigned int i = 0; i < unit->PartCount(); ++i) {
            m_parts[m_part_count++] = unit->Parts()[i];
        }
        m_bytes += unit->Length();
        m_packets += unit->Packets();
        m_slots |= 1U << unit->Slot();
        m_has_sides = m_has_sides || unit->SideCount() > 0;
        m_units[m_count++] = unit;
    }

    unsigned int Count() const { return m_count; }
    // The set of all units, bit by index. Not of an empty batch.
    uint64_t All() const { return ~static_cast<uint64_t>(0) >> (MAX_UNITS - m_count); }
    COutputUnit* Unit(unsigned int index) const { return m_units[index]; }
    const struct iovec* Parts() const { return m_parts; }
    unsigned int PartCount() const { return m_part_count; }
    size_t Bytes() const { return m_bytes; }
    // The units' packets.
    unsigned int Packets() const { return m_packets; }
    // The set of the units' slots.
    unsigned int Slots() const { return m_slots; }
    // A unit carries side packets.
    bool HasSides() const { return m_has_sides; }

private:
    unsigned int m_count = 0;
    unsigned int m_part_count = 0;
    unsigned int m_slots = 0;
    unsigned int m_packets = 0;
    bool m_has_sides = false;
    size_t m_bytes = 0;
    COutputUnit* m_units[MAX_UNITS];
    struct iovec m_parts[2 * MAX_UNITS];
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_UNITBATCH_H
