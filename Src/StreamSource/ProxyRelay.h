#ifndef VIDORA_STREAMSOURCE_PROXYRELAY_H
#define VIDORA_STREAMSOURCE_PROXYRELAY_H

#include <cstdint>
#include <list>
#include <memory>
#include <thread>
#include <vector>

#include "Tramel/CallWait.h"
#include "Vidora/Names.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

// CProxyRelay: hands what one media buffer carries on to any number of others. Until the first of these comes, what
// the server has begun to send is held.
//
// THREADING  Put, End: one thread at a time. The others: any thread. No lock is held over a Put of a buffer.
// MEMORY     2 MiB and 2 seconds of held packets, of which the oldest are dropped then.
class CProxyRelay : public CLevel2Buffer_IF {
public:
    ~CProxyRelay() override;

    int Put(CMediaPacket* packet, int length, int flag, int channel) override;
    void End(int channel) override;

    // Counts a client of `buffer` in; the first one gets what is held. 0, or -1: closed, null, or no memory.
    int Add(CMediaBuffer* buffer);
    // Counts one out; null: of the buffer that was added last. When its last client has gone no Put into it runs or
    // begins after the return, but for one that this call comes from. The clients that are left, or -1 if there was
    // none.
    int Remove(const CMediaBuffer* buffer);
    // Nothing is put into `buffer` any more until it is added again; its clients stay counted. It waits as Remove does.
    void Cut(const CMediaBuffer* buffer);
    // All buffers are taken off, and no packet is held or put any more.
    void Close();
    bool Feeds();

private:
    struct target_t {
        const CMediaBuffer* buffer = nullptr;
        CMediaBufferRef ref;
        int clients = 0;
    };
    struct held_t {
        std::unique_ptr<CMediaPacket> packet;
        int length = 0;
        int flag = 0;
        int channel = 0;
        uint64_t time_ms = 0;
    };

    static CMediaPacket* share(CMediaPacket& packet, int length);
    static void put(const CMediaBufferRef& ref, CMediaPacket* shared, int length, int flag, int channel);
    void hold_locked(CMediaPacket& packet, int length, int flag, int channel) VIDORA_REQUIRES(m_mutex);
    bool begin_locked(std::vector<CMediaBufferRef>& refs) VIDORA_REQUIRES(m_mutex);
    void begin_locked() VIDORA_REQUIRES(m_mutex);
    void end();
    void wait_locked() VIDORA_REQUIRES(m_mutex);

    CMutex m_mutex;
    Tramel::CCallWait m_wait;  // used with m_mutex
    std::vector<target_t> m_targets VIDORA_GUARDED_BY(m_mutex);
    std::list<held_t> m_held VIDORA_GUARDED_BY(m_mutex);
    size_t m_held_bytes VIDORA_GUARDED_BY(m_mutex) = 0;
    bool m_began VIDORA_GUARDED_BY(m_mutex) = false;  // a buffer was there: nothing is held any more
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;
    int m_putting VIDORA_GUARDED_BY(m_mutex) = 0;  // 2: an Add from inside a Put
    std::thread::id m_put_thread VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_PROXYRELAY_H
