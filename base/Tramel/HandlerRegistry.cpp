#include "Tramel/HandlerRegistry.h"

#include <new>

#include "Tramel/HandlerCore.h"

namespace Kavio {
namespace Tramel {

int CHandlerRegistry::Add(long id, const std::shared_ptr<CHandlerCore>& core) {
    CShard& shard = shard_of(id);
    Ostra::CGuard guard(shard.mutex);
    try {
        shard.cores.emplace(id, core);
    } catch (const std::bad_alloc&) {
        return -1;
    }
    return 0;
}

void CHandlerRegistry::Remove(long id) {
    std::shared_ptr<CHandlerCore> core;  // released after the lock
    CShard& shard = shard_of(id);
    Ostra::CGuard guard(shard.mutex);
    const auto found = shard.cores.find(id);
    if (found != shard.cores.end()) {
        core.swap(found->second);
        shard.cores.erase(found);
    }
}

std::shared_ptr<CHandlerCore> CHandlerRegistry::Find(long id) {
    CShard& shard = shard_of(id);
    Ostra::CGuard guard(shard.mutex);
    const auto found = shard.cores.find(id);
    return found == shard.cores.end() ? nullptr : found->second;
}

}  // namespace Tramel
}  // namespace Kavio
