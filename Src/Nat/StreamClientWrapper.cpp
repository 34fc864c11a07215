#include "Vidora/StreamClientWrapper.h"

#include <cstring>
#include <new>
#include <utility>

#include "Nat/P2PClientWrapper.h"
#include "Protocol/LogQuote.h"
#include "Tramel/Reactor.h"
#include "Vidora/Tramel/NetThread.h"

namespace Kavio {
namespace Vidora {

// THREADING  Any thread; the wrapper is called with m_mutex held where it calls nobody back.
struct stream_client {
    stream_client(const stream_client_params& parameters, void* user_arg) : m_params(parameters), m_arg(user_arg) {}

    const stream_client_params m_params;
    void* const m_arg;
    CMutex m_mutex;
    stream_client_callbacks m_callbacks VIDORA_GUARDED_BY(m_mutex) = {};
    CP2PClientWrapper* m_wrapper VIDORA_GUARDED_BY(m_mutex) = nullptr;  // from start to stop
    std::shared_ptr<CHostCalls> m_calls VIDORA_GUARDED_BY(m_mutex);     // from start on
    bool m_started VIDORA_GUARDED_BY(m_mutex) = false;                  // the socket is the library's
};

namespace {

const unsigned int THREADS = 4;

CMutex startup_mutex;
int startup_count VIDORA_GUARDED_BY(startup_mutex) = 0;

bool is_given(const void* handle, int line) {
    if (handle == nullptr) {
        logError("%s %d handler is null!\n", __FILE__, line);
    }
    return handle != nullptr;
}

int fail_start(const stream_client_params& params) {
    const CLogQuote quote(Ostra::LOG_LEVEL_ERROR, params.url);
    logError("%s %d start client failed! url: %s\n", __FILE__, __LINE__, quote.Text());
    return -1;
}

}  // namespace

// A callback would wait for the mutex, and the end of the pool for the callback.
int stream_client_startup() {
    if (Tramel::CReactor::IsPoolThread()) {
        return -1;
    }
    CGuard guard(startup_mutex);
    if (startup_count++ > 0) {
        logInfo("%s %d streamclient is already start up!\n", __FILE__, __LINE__);
        return 0;
    }
    if (CNetThread::CreateThreadPool(THREADS, false) < 0) {
        logError("%s %d create thread pool failed!\n", __FILE__, __LINE__);
        startup_count = 0;
        return -1;
    }
    return 0;
}

int stream_client_cleanup() {
    if (Tramel::CReactor::IsPoolThread()) {
        return -1;
    }
    CGuard guard(startup_mutex);
    return std::exchange(startup_count, 0) > 0 ? CNetThread::DestroyThreadPool() : -1;
}

stream_client* stream_client_create(const void* parameters, void* arg) {
    if (parameters == nullptr) {
        logError("%s %d param is null!\n", __FILE__, __LINE__);
        return nullptr;
    }
    const stream_client_params& params = *static_cast<const stream_client_params*>(parameters);
    const bool ends = std::memchr(params.url, '\0', sizeof(params.url)) != nullptr;
    return ends ? new (std::nothrow) stream_client(params, arg) : nullptr;
}

void* stream_client_get_arg(const stream_client* handle) {
    return is_given(handle, __LINE__) ? handle->m_arg : nullptr;
}

int stream_client_start(stream_client* handle, const void* callbacks) {
    if (!is_given(handle, __LINE__) || !is_given(callbacks, __LINE__)) {
        return -1;
    }
    CGuard guard(handle->m_mutex);
    if (handle->m_started) {
        return fail_start(handle->m_params);
    }
    handle->m_callbacks = *static_cast<const stream_client_callbacks*>(callbacks);
    CP2PClientWrapper* wrapper = new (std::nothrow)
        CP2PClientWrapper(handle->m_callbacks.on_frame, handle->m_callbacks.on_error, handle->m_callbacks.user);
    if (wrapper == nullptr || wrapper->Start(handle->m_params.url, handle->m_params.sock_handle) < 0) {
        if (wrapper != nullptr) {
            wrapper->Close();
        }
        return fail_start(handle->m_params);
    }
    handle->m_wrapper = wrapper;
    handle->m_calls = wrapper->Calls();
    handle->m_started = true;
    return 0;
}

int stream_client_play(stream_client* handle, const play_params* params) {
    if (!is_given(handle, __LINE__) || !is_given(params, __LINE__)) {
        return -1;
    }
    CGuard guard(handle->m_mutex);
    return handle->m_wrapper != nullptr
               ? handle->m_wrapper->Play(params->begin, params->end, params->speed, params->scale != 0)
               : -1;
}

int stream_client_pause(stream_client* handle) {
    if (!is_given(handle, __LINE__)) {
        return -1;
    }
    CGuard guard(handle->m_mutex);
    return handle->m_wrapper != nullptr ? handle->m_wrapper->Pause() : -1;
}

// Closing waits for callbacks, which may call back in: no lock is held. Who comes when it was closed already waits for
// those that still run.
int stream_client_stop(stream_client* handle) {
    if (!is_given(handle, __LINE__)) {
        return -1;
    }
    CP2PClientWrapper* wrapper = nullptr;
    std::shared_ptr<CHostCalls> calls;
    {
        CGuard guard(handle->m_mutex);
        wrapper = std::exchange(handle->m_wrapper, nullptr);
        calls = handle->m_calls;
    }
    if (wrapper != nullptr) {
        wrapper->Close();
    } else if (calls != nullptr) {
        calls->Stop();
    }
    return 0;
}

int stream_client_destroy(stream_client* handle) {
    const int result = stream_client_stop(handle);
    delete handle;
    return result;
}

}  // namespace Vidora
}  // namespace Kavio
