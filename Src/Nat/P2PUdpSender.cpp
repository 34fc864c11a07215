#include "Nat/P2PUdpSender.h"

#include "Tramel/MediaTag.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t REPORT_INTERVAL_MS = 1000;

}  // namespace

int CP2PUdpSender::PutRest(CMediaPacket* packet, int offset, int length, int tag) {
    const Tramel::MediaTag media = Tramel::MediaTag::Unpack(tag);
    CGuard guard(m_mutex);
    m_whole_track = NO_TRACK;
    if (!m_tracks.Passes(media.track, media.IsKey())) {
        return 0;
    }
    const unsigned char* data = packet == nullptr ? nullptr : packet->GetData();
    if (data == nullptr || offset < 0 || length < offset || m_sock == nullptr) {
        return -1;
    }
    bool is_whole = false;
    const unsigned int rest = static_cast<unsigned int>(length - offset);
    const bool sent = m_sock->SendMerged(data + offset, rest, &is_whole) >= 0;
    m_whole_track = is_whole ? static_cast<int>(media.track) : NO_TRACK;
    if (!sent && !m_failing) {
        report_failure();
    }
    m_failing = !sent;
    publish_locked();
    return sent ? length : -1;
}

void CP2PUdpSender::EnterPlace(Tramel::CSinkEntry& entry) {
    if (!m_frame_proc.empty()) {
        const Tramel::CTurnGuard turn(entry.turn);
        entry.told = Tramel::TOLD_GAPS;
    }
    COutletSink::EnterPlace(entry);
}

void CP2PUdpSender::fill_locked(Tramel::CSinkEntry& entry) {
    if (!m_failing && m_sock != nullptr) {
        entry.fd = m_sock->GetHandle();
        entry.max_segment = static_cast<uint16_t>(m_sock->MaxSegment());
    }
}

void CP2PUdpSender::SetChannel(int channel) {
    CGuard guard(m_mutex);
    if (m_entry != nullptr && channel >= 0 && channel < static_cast<int>(Tramel::COutputUnit::OTHER_SLOT)) {
        const Tramel::CTurnGuard turn(m_entry->turn);
        m_entry->numbers[channel] = 0;
        m_whole_track = m_whole_track == channel ? NO_TRACK : m_whole_track;  // it may not be counted yet
    }
    switch_locked([channel](CTrackSwitch& tracks) { tracks.On(channel); });
}

void CP2PUdpSender::ClearChannel(int channel) {
    CGuard guard(m_mutex);
    switch_locked([channel](CTrackSwitch& tracks) { tracks.Off(channel); });
}

void CP2PUdpSender::PauseChannel(int channel) {
    CGuard guard(m_mutex);
    switch_locked([channel](CTrackSwitch& tracks) { tracks.Pause(channel); });
}

// Once until a frame gets out, and once a second where some do.
void CP2PUdpSender::report_failure() {
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (m_last_report_ms == 0 || now - m_last_report_ms >= REPORT_INTERVAL_MS) {
        m_last_report_ms = now;
        logError("%s:%d udp send failed \n", __FILE__, __LINE__);
    }
}

}  // namespace Vidora
}  // namespace Kavio
