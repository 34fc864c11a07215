#include "StreamSource/IdList.h"

#include <new>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

bool AppendId(std::list<long>& ids, long id) {
    try {
        ids.push_back(id);
        return true;
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return false;
    }
}

bool AppendIdOnce(std::list<long>& ids, long id) {
    std::list<long> entry;
    if (!AppendId(entry, id)) {
        return false;
    }
    ids.remove(id);
    ids.splice(ids.end(), entry);
    return true;
}

}  // namespace Vidora
}  // namespace Kavio
