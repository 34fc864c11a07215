#ifndef VIDORA_TRAMEL_HANDLERREGISTRY_H
#define VIDORA_TRAMEL_HANDLERREGISTRY_H

#include <atomic>
#include <memory>
#include <unordered_map>

#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CHandlerCore;

// CHandlerRegistry: finds a handler's core by its identifier. Identifiers count up from 1 and are never used again.
//
// THREADING  Any thread; cut into shards, each with its own lock, under which nothing is called.
class CHandlerRegistry {
public:
    long NewId() { return m_next_id.fetch_add(1); }
    // 0, or -1 if memory is short.
    int Add(long id, const std::shared_ptr<CHandlerCore>& core);
    void Remove(long id);
    // The core, or null.
    std::shared_ptr<CHandlerCore> Find(long id);

private:
    struct CShard {
        Ostra::CMutex mutex;
        std::unordered_map<long, std::shared_ptr<CHandlerCore>> cores VIDORA_GUARDED_BY(mutex);
    };
    static constexpr unsigned long SHARDS = 16;

    CShard& shard_of(long id) { return m_shards[static_cast<unsigned long>(id) % SHARDS]; }

    std::atomic<long> m_next_id{1};
    CShard m_shards[SHARDS];
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_HANDLERREGISTRY_H
