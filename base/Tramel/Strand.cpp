#include "Tramel/Strand.h"

#include <utility>

#include "Tramel/Reactor.h"

namespace Kavio {
namespace Tramel {

void CStrand::Schedule() {
    int state = m_state.load();
    for (;;) {
        if (state == QUEUED || state == RUNNING_AGAIN) {
            // The exchange with itself orders what the caller has written before the turn that is due.
            if (m_state.compare_exchange_weak(state, state)) {
                return;
            }
        } else if (m_state.compare_exchange_weak(state, state == IDLE ? QUEUED : RUNNING_AGAIN)) {
            break;
        }
    }
    if (state == IDLE) {
        CReactor::Instance().Enqueue(shared_from_this());
    }
}

void CStrand::run() {
    m_state.exchange(RUNNING);  // reads what Schedule wrote
    const bool more = RunTurn();
    int state = RUNNING;
    if (!more && m_state.compare_exchange_strong(state, IDLE)) {
        return;
    }
    m_state.exchange(QUEUED);
    CReactor::Instance().Enqueue(shared_from_this());
}

void CStrandQueue::Push(std::shared_ptr<CStrand> strand) {
    std::shared_ptr<CStrand>& link = m_head == nullptr ? m_head : m_tail->m_next;
    m_tail = strand.get();
    link = std::move(strand);
    ++m_size;
}

std::shared_ptr<CStrand> CStrandQueue::Take() {
    std::shared_ptr<CStrand> strand = std::move(m_head);
    m_head = std::move(strand->m_next);
    --m_size;
    return strand;
}

std::shared_ptr<CStrand> CStrandQueue::TakeEnding() {
    CStrand* before = nullptr;
    for (std::shared_ptr<CStrand>* link = &m_head; *link != nullptr; link = &(*link)->m_next) {
        if ((*link)->IsEnding()) {
            std::shared_ptr<CStrand> strand = std::move(*link);
            *link = std::move(strand->m_next);
            m_tail = *link == nullptr ? before : m_tail;
            --m_size;
            return strand;
        }
        before = link->get();
    }
    return nullptr;
}

void CStrandQueue::Append(CStrandQueue& other) {
    if (!other.IsEmpty()) {
        CStrand* const tail = other.m_tail;
        (m_head == nullptr ? m_head : m_tail->m_next) = std::move(other.m_head);
        m_tail = tail;
        m_size += std::exchange(other.m_size, 0);
    }
}

}  // namespace Tramel
}  // namespace Kavio
