#include "SessionRoll.h"

#include <chrono>
#include <new>

#include "Tramel/Reactor.h"

namespace Kavio {
namespace Vidora {

std::shared_ptr<CSessionRoll> CSessionRoll::Create() {
    try {
        return std::make_shared<CSessionRoll>();
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void CSessionRoll::Shut() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_shut = true;
}

unsigned int CSessionRoll::Count() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_count;
}

unsigned int CSessionRoll::EndAll(unsigned int wait_ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (CLink* link = m_ring.next; link != &m_ring; link = link->next) {
        CSessionEntry* entry = static_cast<CSessionEntry*>(link);
        if (!entry->m_ending) {
            entry->m_ending = true;
            ++m_ending;
            Tramel::CReactor::Instance().Post(0, entry->m_id, entry->m_msg, entry->m_param);
        }
    }
    if (wait_ms > 0 && !Tramel::CReactor::IsPoolThread()) {
        m_left.wait_for(lock, std::chrono::milliseconds(wait_ms), [this] { return m_ending == 0; });
    }
    return m_ending;
}

std::unique_ptr<CSessionEntry> CSessionEntry::Create(const std::shared_ptr<CSessionRoll>& roll, long id,
                                                     unsigned int msg, long param) {
    return std::unique_ptr<CSessionEntry>(new (std::nothrow) CSessionEntry(roll, id, msg, param));
}

bool CSessionEntry::Enter() {
    const std::lock_guard<std::mutex> lock(m_roll->m_mutex);
    if (m_roll->m_shut) {
        return false;
    }
    next = &m_roll->m_ring;
    before = m_roll->m_ring.before;
    before->next = this;
    next->before = this;
    m_entered = true;
    ++m_roll->m_count;
    return true;
}

CSessionEntry::~CSessionEntry() {
    const std::lock_guard<std::mutex> lock(m_roll->m_mutex);
    if (!m_entered) {
        return;
    }
    before->next = next;
    next->before = before;
    --m_roll->m_count;
    m_roll->m_ending -= m_ending ? 1 : 0;
    if (m_roll->m_ending == 0) {
        m_roll->m_left.notify_all();
    }
}

}  // namespace Vidora
}  // namespace Kavio
