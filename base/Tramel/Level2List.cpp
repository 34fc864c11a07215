#include "Tramel/Level2List.h"

#include <algorithm>
#include <new>

#include "Ostra/MemoryTrail.h"
#include "Vidora/Tramel/Level2Buffer.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

namespace {

const size_t SINK_HEAD = 64;  // what a put is likely to look at of a sink, whatever class that is of

}  // namespace

void CLevel2List::Put(CMediaPacket* packet, int length, int flag, int channel) {
    call_each([=](CLevel2Buffer_IF& sink) { sink.Put(packet, length, flag, channel); });
}

void CLevel2List::End(int channel) {
    call_each([=](CLevel2Buffer_IF& sink) { sink.End(channel); });
}

template <typename Call>
void CLevel2List::call_each(Call call_sink) {
    m_mutex.enter();
    const size_t count = m_sinks.size();
    if (count == 0) {
        m_mutex.leave();
        return;
    }
    CCall call = {nullptr, std::this_thread::get_id(), m_calls};
    m_calls = &call;
    for (size_t i = 0; i < count && i < m_sinks.size(); ++i) {
        CLevel2Buffer_IF* sink = m_sinks[i];
        if (sink == nullptr) {
            continue;
        }
        Ostra::CMemoryTrail::Note(m_sinks[i]);
        Ostra::CMemoryTrail::NoteBytes(sink, SINK_HEAD);
        call.sink = sink;
        m_mutex.leave();
        call_sink(*sink);
        m_mutex.enter();
        call.sink = nullptr;
        m_wait.Wake();
    }
    end_call_locked(call);
    m_mutex.leave();
}

// The last call that ends closes the gaps that removals left.
void CLevel2List::end_call_locked(const CCall& call) {
    CCall** place = &m_calls;
    while (*place != &call) {
        place = &(*place)->next;
    }
    *place = call.next;
    if (m_calls == nullptr) {
        m_sinks.erase(std::remove(m_sinks.begin(), m_sinks.end(), nullptr), m_sinks.end());
    }
}

bool CLevel2List::Add(CLevel2Buffer_IF* sink) {
    CGuard guard(m_mutex);
    if (std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end()) {
        return true;
    }
    try {
        m_sinks.push_back(sink);
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

bool CLevel2List::Has(const CLevel2Buffer_IF* sink) {
    CGuard guard(m_mutex);
    return std::find(m_sinks.begin(), m_sinks.end(), sink) != m_sinks.end();
}

void CLevel2List::Remove(const CLevel2Buffer_IF* sink) {
    CGuard guard(m_mutex);
    const auto found = std::find(m_sinks.begin(), m_sinks.end(), sink);
    if (found != m_sinks.end()) {
        remove_at_locked(static_cast<size_t>(found - m_sinks.begin()));
    }
    wait_locked(sink);
}

void CLevel2List::RemoveAll() {
    CGuard guard(m_mutex);
    while (true) {
        const auto found =
            std::find_if(m_sinks.begin(), m_sinks.end(), [](const CLevel2Buffer_IF* sink) { return sink != nullptr; });
        if (found == m_sinks.end()) {
            return;
        }
        const CLevel2Buffer_IF* sink = *found;
        remove_at_locked(static_cast<size_t>(found - m_sinks.begin()));
        wait_locked(sink);
    }
}

void CLevel2List::remove_at_locked(size_t index) {
    if (m_calls != nullptr) {
        m_sinks[index] = nullptr;
    } else {
        m_sinks.erase(m_sinks.begin() + static_cast<std::ptrdiff_t>(index));
    }
}

void CLevel2List::wait_locked(const CLevel2Buffer_IF* sink) {
    while (called_elsewhere_locked(sink)) {
        m_wait.Wait(m_mutex);
    }
}

bool CLevel2List::called_elsewhere_locked(const CLevel2Buffer_IF* sink) {
    for (const CCall* call = m_calls; call != nullptr; call = call->next) {
        if (call->sink == sink && call->thread != std::this_thread::get_id()) {
            return true;
        }
    }
    return false;
}

}  // namespace Tramel
}  // namespace Kavio
