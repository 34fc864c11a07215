#ifndef VIDORA_TRAMEL_MEDIACOUNTERS_H
#define VIDORA_TRAMEL_MEDIACOUNTERS_H

#include <atomic>
#include <cstdint>

namespace Kavio {
namespace Tramel {

// CMediaCounters: what all media senders of the process have done. Any thread, without a lock.
class CMediaCounters {
public:
    static CMediaCounters& Instance() {
        static CMediaCounters counters;
        return counters;
    }

    void AddSent(uint64_t packets, uint64_t bytes) {
        m_packets.fetch_add(packets, std::memory_order_relaxed);
        m_bytes.fetch_add(bytes, std::memory_order_relaxed);
    }
    void AddDropped(uint64_t units) { m_dropped.fetch_add(units, std::memory_order_relaxed); }

    uint64_t Packets() const { return m_packets.load(std::memory_order_relaxed); }
    uint64_t Bytes() const { return m_bytes.load(std::memory_order_relaxed); }
    uint64_t Dropped() const { return m_dropped.load(std::memory_order_relaxed); }

private:
    std::atomic<uint64_t> m_packets{0};
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<uint64_t> m_dropped{0};
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIACOUNTERS_H
