#ifndef VIDORA_RTSPCLIENT_CLIENTSESSIONSTATE_H
#define VIDORA_RTSPCLIENT_CLIENTSESSIONSTATE_H

#include "RtspClient/ClientTypes.h"
#include "Tramel/Reactor.h"
#include "Vidora/Names.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

// What the exported client sessions remember, whatever their engine.
//
// THREADING  All under m_mutex, but for the buffer, which is constant.
struct client_session_state {
    // The first part of Close: nothing is notified any more. False if Close was called before.
    bool BeginEnd(CNetHandler& session) {
        if (m_closed) {
            return false;
        }
        m_closed = true;
        m_ready = false;
        m_notify_id = 0;
        Tramel::CReactor::CountAsEnding(session);  // it waits for its engines, also while the pool stops
        return true;
    }

    CMutex m_mutex;
    CMediaBuffer m_buffer;
    long m_notify_id = 0;  // 0: nothing is notified any more
    bool m_started = false;
    bool m_ready = false;
    bool m_closed = false;
    client_settings m_settings;
    rtsp_client_failure_t m_failure = RTSP_CLIENT_FAILURE_NONE;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTSESSIONSTATE_H
