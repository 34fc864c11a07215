#include "Tramel/MediaStreamSender.h"

#include <new>

#include "Tramel/SinkGroup.h"

namespace Kavio {
namespace Tramel {

using Ostra::CGuard;

CMediaStreamSender* CMediaStreamSender::Create() {
    return whole(new (std::nothrow) CMediaStreamSender());
}

int CMediaStreamSender::Attach(CSock* sock) {
    CGuard guard(m_mutex);
    if (attach_locked(sock, true, *this) < 0) {
        return -1;
    }
    m_output->SetSendTimeout(m_timeout_s);
    m_output->SetLimit(m_limit_bytes, m_limit_age_ms);
    m_output->SetTracks(m_slots, 0);
    m_output->SetEntry(m_entry);
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

bool CMediaStreamSender::AttachSendProc(send_proc_t proc, told_t told) {
    if (proc.empty()) {
        return false;
    }
    CGuard guard(m_mutex);
    m_proc = proc;
    m_told = told;
    if (m_entry != nullptr) {
        const CTurnGuard turn(m_entry->turn);
        m_entry->told = told;
    }
    return true;
}

void CMediaStreamSender::TellAll(bool on) {
    CSinkGroup::TellAll(on);
}

CMediaStreamSender::send_proc_t CMediaStreamSender::proc() {
    CGuard guard(m_mutex);
    return m_proc;
}

void CMediaStreamSender::SetSendChannel(int channel) {
    if (channel >= 0 && channel < static_cast<int>(SWITCHED_TRACKS)) {
        switch_tracks(1U << channel, 0);
    }
}

void CMediaStreamSender::DisableSendChannel(int channel) {
    if (channel >= 0 && channel < static_cast<int>(SWITCHED_TRACKS)) {
        switch_tracks(0, 1U << channel);
    }
}

void CMediaStreamSender::switch_tracks(unsigned int on, unsigned int off) {
    CGuard guard(m_mutex);
    m_slots = (m_slots | on) & ~off;
    if (m_output != nullptr) {
        m_output->SetTracks(m_slots, on);
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

bool CMediaStreamSender::join(CSinkEntry& entry) {
    CGuard guard(m_mutex);
    if (m_entry != nullptr) {
        return false;
    }
    m_entry = &entry;
    {
        const CTurnGuard turn(entry.turn);
        entry.told = m_told;
    }
    if (m_output != nullptr) {
        m_output->SetEntry(m_entry);
    }
    return true;
}

void CMediaStreamSender::leave() {
    CGuard guard(m_mutex);
    m_entry = nullptr;
    if (m_output != nullptr) {
        m_output->SetEntry(nullptr);
    }
}

}  // namespace Tramel
}  // namespace Kavio
