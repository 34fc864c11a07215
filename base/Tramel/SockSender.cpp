#include "Tramel/SockSender.h"

#include "Tramel/Reactor.h"
#include "Tramel/SockStream.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

int CSockSender::attach_locked(CSock* sock, bool is_media, CNetHandler& waiter) {
    CSockStream* stream = dynamic_cast<CSockStream*>(sock);
    if (stream == nullptr || !stream->IsValid()) {
        return -1;
    }
    std::shared_ptr<CStreamOutput> queue = stream->GetOutput();
    if (queue == nullptr) {
        return -1;
    }
    Detach();
    m_waiter = &waiter;
    if (queue->Attach(this, is_media, m_exception_id) < 0) {
        return -1;
    }
    m_sock = sock;
    m_output = std::move(queue);
    return 0;
}

void CSockSender::WaitException(long handler_id) {
    CGuard guard(m_mutex);
    m_exception_id = handler_id;
    if (m_output != nullptr) {
        m_output->SetExceptionId(this, handler_id);
    }
}

CSock* CSockSender::Detach() {
    CGuard guard(m_mutex);
    if (m_output != nullptr) {
        m_output->Detach(this);
    }
    m_output.reset();
    CSock* sock = m_sock;
    m_sock = nullptr;
    return sock;
}

int CSockSender::handle_output(int) {
    const std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr) {
        queue->OnWritable();
    }
    return 0;
}

int64_t CSockSender::handle_timeout(long timer_id) {
    const std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr) {
        queue->OnTimer(timer_id);
    }
    return 0;
}

int CSockSender::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

void CSockSender::Close() {
    Detach();
    CNetHandler::Close();
}

std::shared_ptr<CStreamOutput> CSockSender::output() {
    CGuard guard(m_mutex);
    return m_output;
}

int CSockSender::WatchWrite(int fd) {
    return CReactor::Instance().RequestOutput(*m_waiter, fd);
}

void CSockSender::PostFailure(long target) {
    Notify(target, MSG_SOCK_EXCEPTION, 0);
}

long CSockSender::StartTimer(int64_t period_us) {
    return SetTimer(period_us);
}

void CSockSender::StopTimer(long timer_id) {
    DestroyTimer(timer_id);
}

}  // namespace Tramel
}  // namespace Kavio
