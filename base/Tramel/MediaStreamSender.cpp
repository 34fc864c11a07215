#include "Tramel/MediaStreamSender.h"

#include <new>

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

CMediaStreamSender* CMediaStreamSender::Create() {
    return new (std::nothrow) CMediaStreamSender();
}

int CMediaStreamSender::Attach(CSock* sock) {
    CGuard guard(m_mutex);
    if (attach_locked(sock, true, *this) < 0) {
        return -1;
    }
    m_output->SetSendTimeout(m_timeout_s);
    m_output->SetLimit(m_limit_bytes, m_limit_age_ms);
    return 0;
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

void CMediaStreamSender::PauseSendChannel(int channel) {
    DisableSendChannel(channel);
    CGuard guard(m_mutex);
    if (m_output != nullptr && channel >= 0 && channel < static_cast<int>(SWITCHED_TRACKS)) {
        m_output->RestTrack(static_cast<unsigned int>(channel));
    }
}

void CMediaStreamSender::SendOtherData(const char* data, int length) {
    const std::shared_ptr<CStreamOutput> queue = output();
    if (queue != nullptr && data != nullptr && length > 0) {
        queue->SendText(data, static_cast<unsigned int>(length));
    }
}

uint64_t CMediaStreamSender::Unsent() {
    const std::shared_ptr<CStreamOutput> queue = output();
    return queue == nullptr ? 0 : queue->Unsent();
}

uint64_t CMediaStreamSender::send_batch(const CUnitBatch& batch, uint64_t from_sequence, send_proc_t& proc) {
    CGuard guard(m_mutex);
    proc = m_proc;
    return m_output != nullptr ? m_output->SendMedia(batch, from_sequence, m_slots) : 0;
}

}  // namespace Tramel
}  // namespace Kavio
