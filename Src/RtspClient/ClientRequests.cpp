#include "RtspClient/ClientRequests.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace Kavio {
namespace Vidora {

bool CClientRequests::Add(const pending_request& request) {
    if (IsFull()) {
        return false;
    }
    try {
        m_requests.push_back(request);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool CClientRequests::Take(int cseq, pending_request& request) {
    const auto found = std::find_if(m_requests.begin(), m_requests.end(),
                                    [cseq](const pending_request& waiting) { return waiting.cseq == cseq; });
    if (found == m_requests.end()) {
        return false;
    }
    request = std::move(*found);
    m_requests.erase(found);
    return true;
}

bool CClientRequests::TakeOlder(uint64_t now_ms, unsigned int age_ms, pending_request& request) {
    if (m_requests.empty() || now_ms - m_requests.front().sent_ms < age_ms) {
        return false;
    }
    return Take(m_requests.front().cseq, request);
}

bool CClientRequests::Waits(rtsp_method_t method) const {
    return std::any_of(m_requests.begin(), m_requests.end(),
                       [method](const pending_request& waiting) { return waiting.method == method; });
}

rtsp_method_t CClientRequests::LastOfPlay() const {
    rtsp_method_t method = RTSP_METHOD_UNKNOWN;
    int cseq = 0;
    for (const pending_request& waiting : m_requests) {
        if (waiting.IsOfPlay() && waiting.cseq > cseq) {
            method = waiting.method;
            cseq = waiting.cseq;
        }
    }
    return method;
}

unsigned int CClientRequests::CountOfPlay() const {
    return static_cast<unsigned int>(std::count_if(m_requests.begin(), m_requests.end(),
                                                   [](const pending_request& waiting) { return waiting.IsOfPlay(); }));
}

int CReplySlots::Reserve(char* out, int length) {
    CGuard guard(m_mutex);
    const auto place = std::find_if(m_slots.begin(), m_slots.end(), [](const slot_t& slot) { return !slot.used; });
    const auto index = place - m_slots.begin();
    if (m_closed || index == CLIENT_MAX_PENDING) {
        return 0;
    }
    try {
        m_slots.resize(std::max(m_slots.size(), static_cast<size_t>(index) + 1));
    } catch (const std::bad_alloc&) {
        return 0;
    }
    m_slots[static_cast<size_t>(index)] = slot_t{true, 0, out, length};
    return static_cast<int>(index) + 1;
}

void CReplySlots::Bind(int slot, int cseq) {
    CGuard guard(m_mutex);
    m_slots[static_cast<size_t>(slot) - 1].cseq = cseq;
}

void CReplySlots::Drop(int slot) {
    CGuard guard(m_mutex);
    m_slots[static_cast<size_t>(slot) - 1] = slot_t{};
}

void CReplySlots::DropCSeq(int cseq) {
    Write(cseq, nullptr, 0);
}

void CReplySlots::Move(int cseq, int to) {
    CGuard guard(m_mutex);
    for (slot_t& slot : m_slots) {
        slot.cseq = slot.used && slot.cseq == cseq ? to : slot.cseq;
    }
}

void CReplySlots::Write(int cseq, const char* body, int length) {
    CGuard guard(m_mutex);
    for (slot_t& slot : m_slots) {
        if (!slot.used || slot.cseq != cseq) {
            continue;
        }
        if (body != nullptr && slot.out != nullptr && slot.length > 0) {
            const int copied = std::min(length, slot.length - 1);
            std::memset(slot.out, 0, static_cast<size_t>(slot.length));
            std::memcpy(slot.out, body, static_cast<size_t>(copied));
        }
        slot = slot_t{};
        return;
    }
}

void CReplySlots::Close() {
    CGuard guard(m_mutex);
    m_closed = true;
    for (slot_t& slot : m_slots) {
        slot = slot_t{};
    }
}

}  // namespace Vidora
}  // namespace Kavio
