#ifndef VIDORA_RTSPCLIENT_CLIENTKEEPALIVE_H
#define VIDORA_RTSPCLIENT_CLIENTKEEPALIVE_H

#include <algorithm>
#include <cstdint>

#include "RtspClient/ClientTypes.h"

namespace Kavio {
namespace Vidora {

// CClientKeepAlive: the second-by-second clock of a conversation: when a request must keep the server's session alive,
// when reports are due, and whether the stream has gone silent.
//
// THREADING  The strand.
class CClientKeepAlive {
public:
    // OPTIONS or GET_PARAMETER; any other method: none.
    void SetMethod(rtsp_method_t method) {
        m_on = method == RTSP_METHOD_OPTIONS || method == RTSP_METHOD_GET_PARAMETER;
        m_method = m_on ? method : m_method;
    }
    // What the server offers goes before what was set; not after it has refused that.
    void Offer(rtsp_method_t method) { m_method = m_refused ? m_method : method; }
    void Refuse() {
        m_refused = true;
        m_method = RTSP_METHOD_OPTIONS;
    }
    rtsp_method_t Method() const { return m_method; }
    bool IsOn() const { return m_on; }
    // Seconds after which the server drops a silent session; below 1: it didn't say.
    void SetServerTimeout(int seconds) { m_server_timeout = std::max(seconds, 0); }
    void SetIdleLimit(unsigned int seconds) { m_idle_limit = seconds; }

    // A tick has passed.
    uint64_t Tick() { return ++m_tick; }
    uint64_t Now() const { return m_tick; }
    bool IsDue() const { return m_on && m_tick % static_cast<uint64_t>(interval()) == 0; }
    bool IsReportDue() const { return m_reports && m_tick % static_cast<uint64_t>(ClientTiming().report_ticks) == 0; }
    void StopReports() { m_reports = false; }
    // Media came.
    void Lives() { m_idle_count = 0; }
    // Once a tick while it plays. True: two idle periods have ended without media.
    bool IsIdle() {
        if (m_idle_limit < 1 || m_tick % m_idle_limit != 0) {
            return false;
        }
        return ++m_idle_count >= 2;
    }
    unsigned int IdleLimit() const { return m_idle_limit; }

private:
    // The server's time-out must not pass between two of them.
    int interval() const {
        const int usual = ClientTiming().keepalive_ticks;
        return m_server_timeout > 0 ? std::clamp(m_server_timeout / 2, 1, usual) : usual;
    }

    uint64_t m_tick = 0;
    unsigned int m_idle_limit = 0;
    int m_idle_count = 0;
    int m_server_timeout = 0;
    rtsp_method_t m_method = RTSP_METHOD_OPTIONS;
    bool m_on = true;
    bool m_refused = false;
    bool m_reports = true;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTKEEPALIVE_H
