#include "StreamSource/IdList.h"

#include <new>

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

bool CIdList::Append(long id) {
    std::list<long> entry;
    if (!AppendId(entry, id)) {
        return false;
    }
    try {
        const auto place = m_places.emplace(id, entry.begin());
        if (!place.second) {
            m_ids.erase(place.first->second);
            place.first->second = entry.begin();
        }
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return false;
    }
    m_ids.splice(m_ids.end(), entry);
    return true;
}

void CIdList::Remove(long id) {
    const auto place = m_places.find(id);
    if (place != m_places.end()) {
        m_ids.erase(place->second);
        m_places.erase(place);
    }
}

bool CNotifyList::Add(long id) {
    CGuard guard(m_mutex);
    return m_ids.Append(id);
}

void CNotifyList::Remove(long id) {
    CGuard guard(m_mutex);
    m_ids.Remove(id);
}

}  // namespace Vidora
}  // namespace Kavio
