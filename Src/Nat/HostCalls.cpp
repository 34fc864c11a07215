#include "Nat/HostCalls.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

std::shared_ptr<CHostCalls> CHostCalls::Create(frame_callback_t on_frame, error_callback_t on_error, void* user) {
    try {
        return std::shared_ptr<CHostCalls>(new CHostCalls(on_frame, on_error, user));
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

bool CHostCalls::begin(kind_t kind) {
    CGuard guard(m_mutex);
    if (m_stopped) {
        return false;
    }
    m_calls[kind].runs = true;
    m_calls[kind].thread = std::this_thread::get_id();
    return true;
}

void CHostCalls::end(kind_t kind) {
    CGuard guard(m_mutex);
    m_calls[kind] = call_t();
    m_wait.Wake();
}

void CHostCalls::OnFrame(const unsigned char* data, unsigned int size, void* calls) {
    CHostCalls& self = *static_cast<CHostCalls*>(calls);
    if (self.m_on_frame != nullptr && self.begin(MEDIA)) {
        self.m_on_frame(data, size, self.m_user);
        self.end(MEDIA);
    }
}

void CHostCalls::OnError(int code, void* calls) {
    static_cast<CHostCalls*>(calls)->tell_error(MEDIA, code);
}

void CHostCalls::TellOver() {
    {
        CGuard guard(m_mutex);
        if (m_told) {
            return;
        }
        m_told = true;
    }
    tell_error(OVER, STREAM_OVER);
}

void CHostCalls::tell_error(kind_t kind, int code) {
    if (m_on_error != nullptr && begin(kind)) {
        m_on_error(code, m_user);
        end(kind);
    }
}

void CHostCalls::Stop() {
    CGuard guard(m_mutex);
    m_stopped = true;
    bool inside = false;
    for (call_t& call : m_calls) {
        if (call.runs && call.thread == std::this_thread::get_id()) {
            call.stops = true;
            inside = true;
        }
    }
    m_wait.Wake();
    while (must_wait_locked(inside)) {
        m_wait.Wait(m_mutex);
    }
}

bool CHostCalls::must_wait_locked(bool inside) const {
    return std::any_of(std::begin(m_calls), std::end(m_calls), [inside](const call_t& call) {
        return call.runs && call.thread != std::this_thread::get_id() && !(inside && call.stops);
    });
}

}  // namespace Vidora
}  // namespace Kavio
