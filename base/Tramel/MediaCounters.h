#ifndef VIDORA_TRAMEL_MEDIACOUNTERS_H
#define VIDORA_TRAMEL_MEDIACOUNTERS_H

#include <atomic>
#include <cstdint>

namespace Kavio {
namespace Tramel {

// CMediaCounters: what all media senders of the process have done. Any thread, without a lock; told once a write, not
// once a packet.
//
// A unit on a stream socket counts when its last byte has been taken, a merged one as the packets in it; a datagram
// when it is sent. A unit is dropped, once for each client, when that client's queue or socket has no room for it.
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

// CMediaTally: what one writer has done since it last told the counters. A value without a lock.
class CMediaTally {
public:
    void Sent(uint64_t packets, uint64_t bytes) {
        m_packets += packets;
        m_bytes += bytes;
    }
    void Dropped(uint64_t units = 1) { m_dropped += units; }
    // Adds it to the counters, and begins anew.
    void Tell() {
        if (m_bytes != 0) {
            CMediaCounters::Instance().AddSent(m_packets, m_bytes);
        }
        if (m_dropped != 0) {
            CMediaCounters::Instance().AddDropped(m_dropped);
        }
        *this = CMediaTally();
    }

private:
    uint64_t m_packets = 0;
    uint64_t m_bytes = 0;
    uint64_t m_dropped = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIACOUNTERS_H
