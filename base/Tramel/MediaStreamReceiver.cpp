#include "Tramel/MediaStreamReceiver.h"

#include "Tramel/Reactor.h"

namespace Kavio {
namespace Tramel {

CMediaStreamReceiver::CMediaStreamReceiver() = default;

CMediaStreamReceiver::~CMediaStreamReceiver() = default;

void CMediaStreamReceiver::Close() {
    StopReceive();
    CNetHandler::Close();
}

int CMediaStreamReceiver::handle_stream_input() {
    return 0;
}
int64_t CMediaStreamReceiver::handle_passive_input() {
    return 0;
}
int CMediaStreamReceiver::handle_stream_write() {
    return 0;
}

void CMediaStreamReceiver::StartReceive(int64_t period_us, float speed) {
    StopReceive();
    m_speed = speed;
    m_receiving.store(true);
    CReactor::Instance().Resume(*this);
    if (period_us > 0) {
        m_timer_id.store(SetTimer(period_us));
    }
}

void CMediaStreamReceiver::StopReceive() {
    m_receiving.store(false);
    const long timer_id = m_timer_id.exchange(0);
    if (timer_id != 0) {
        DestroyTimer(timer_id);
    }
}

void CMediaStreamReceiver::WaitException(long handler_id) {
    m_exception_id.store(handler_id);
}

// Input that nobody takes, and a broken connection, stay readable and would come back without end: the socket rests
// until receiving begins.
int CMediaStreamReceiver::handle_input(int fd) {
    m_input_fd = fd;
    const int result = m_receiving.load() ? handle_stream_input() : 0;
    if (result < 0) {
        fail();
    }
    if (!m_receiving.load()) {
        CReactor::Instance().Rest(*this, fd, SOCK_EVENT_READ);
        if (m_receiving.load()) {
            CReactor::Instance().Resume(*this);
        }
    }
    return result < 0 ? -1 : 0;
}

int CMediaStreamReceiver::handle_output(int) {
    return handle_stream_write() < 0 ? -1 : 0;
}

int64_t CMediaStreamReceiver::handle_timeout(long timer_id) {
    if (timer_id != m_timer_id.load() || !m_receiving.load()) {
        return 0;
    }
    const int64_t result = handle_passive_input();
    if (result < 0) {
        fail();
    }
    return result < 0 ? -1 : 0;
}

// Notifies the owner once for each StartReceive.
void CMediaStreamReceiver::fail() {
    const bool was_receiving = m_receiving.exchange(false);
    const long timer_id = m_timer_id.exchange(0);
    if (timer_id != 0) {
        DestroyTimer(timer_id);
    }
    const long exception_id = m_exception_id.load();
    if (was_receiving && exception_id != 0) {
        Notify(exception_id, MSG_SOCK_EXCEPTION, 0);
    }
}

}  // namespace Tramel
}  // namespace Kavio
