#include "Tramel/MediaStreamSender.h"

#include <new>

#include "Tramel/Reactor.h"
#include "Tramel/SockStream.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

CMediaStreamSender* CMediaStreamSender::Create() {
    return new (std::nothrow) CMediaStreamSender();
}

int CMediaStreamSender::Attach(CSock* sock) {
    CSockStream* stream = dynamic_cast<CSockStream*>(sock);
    if (stream == nullptr || !stream->IsValid()) {
        return -1;
    }
    std::shared_ptr<CStreamOutput> queue = stream->GetOutput();
    if (queue == nullptr) {
        return -1;
    }
    Detach();
    CGuard guard(m_mutex);
    if (queue->Attach(this, true, m_exception_id) < 0) {
        return -1;
    }
    queue->SetSendTimeout(m_timeout_s);
    queue->SetLimit(m_limit_bytes, m_limit_age_ms);
    m_sock = sock;
    m_output = std::move(queue);
    return 0;
}

void CMediaStreamSender::WaitException(long handler_id) {
    CGuard guard(m_mutex);
    m_exception_id = handler_id;
    if (m_output != nullptr) {
        m_output->SetExceptionId(this, handler_id);
    }
}

void CMediaStreamSender::SetSendTimeout(unsigned int seconds) {
    CGuard guard(m_mutex);
    m_timeout_s = seconds;
    if (m_output != nullptr) {
        m_output->SetSendTimeout(seconds);
    }
}

void CMediaStreamSender::SetQueueLimit(unsigned int bytes, unsigned int age_ms) {
    CGuard guard(m_mutex);
    m_limit_bytes = bytes != 0 ? bytes : m_limit_bytes;
    m_limit_age_ms = age_ms != 0 ? age_ms : m_limit_age_ms;
    if (m_output != nullptr) {
        m_output->SetLimit(m_limit_bytes, m_limit_age_ms);
    }
}

bool CMediaStreamSender::AttachSendProc(Ostra::TFunction3<void, CMediaPacket*, int, int> proc) {
    if (proc.empty()) {
        return false;
    }
    CGuard guard(m_mutex);
    m_proc = proc;
    return true;
}

void CMediaStreamSender::SetSendChannel(int channel) {
    if (channel >= 0 && channel < static_cast<int>(SWITCHED_TRACKS)) {
        CGuard guard(m_mutex);
        m_slots |= 1U << channel;
    }
}

void CMediaStreamSender::DisableSendChannel(int channel) {
    if (channel >= 0 && channel < static_cast<int>(SWITCHED_TRACKS)) {
        CGuard guard(m_mutex);
        m_slots &= ~(1U << channel);
    }
}

void CMediaStreamSender::SendOtherData(const char* data, int length) {
    std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr && data != nullptr && length > 0) {
        queue->SendText(data, static_cast<unsigned int>(length));
    }
}

CSock* CMediaStreamSender::Detach() {
    CGuard guard(m_mutex);
    if (m_output != nullptr) {
        m_output->Detach(this);
    }
    m_output.reset();
    CSock* sock = m_sock;
    m_sock = nullptr;
    return sock;
}

int CMediaStreamSender::handle_output(int) {
    std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr) {
        queue->OnWritable();
    }
    return 0;
}

int64_t CMediaStreamSender::handle_timeout(long timer_id) {
    std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr) {
        queue->OnTimer(timer_id);
    }
    return 0;
}

int CMediaStreamSender::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

void CMediaStreamSender::Close() {
    Detach();
    CNetHandler::Close();
}

uint64_t CMediaStreamSender::send_batch(const CUnitBatch& batch, uint64_t from_sequence, send_proc_t& proc) {
    CGuard guard(m_mutex);
    proc = m_proc;
    return m_output != nullptr ? m_output->SendMedia(batch, from_sequence, m_slots) : 0;
}

std::shared_ptr<CStreamOutput> CMediaStreamSender::output() {
    CGuard guard(m_mutex);
    return m_output;
}

int CMediaStreamSender::WatchWrite(int fd) {
    return CReactor::Instance().RequestOutput(*this, fd);
}

void CMediaStreamSender::PostFailure(long target) {
    Notify(target, MSG_SOCK_EXCEPTION, 0);
}

long CMediaStreamSender::StartTimer(int64_t period_us) {
    return SetTimer(period_us);
}

void CMediaStreamSender::StopTimer(long timer_id) {
    DestroyTimer(timer_id);
}

}  // namespace Tramel
}  // namespace Kavio
