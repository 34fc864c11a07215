#include "Nat/P2PUdpSender.h"

#include "Tramel/MediaTag.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t REPORT_INTERVAL_MS = 1000;

}  // namespace

int CP2PUdpSender::Put(CMediaPacket* packet, int length, int /*flag*/, int tag) {
    const Tramel::MediaTag media = Tramel::MediaTag::Unpack(tag);
    m_sent_whole = false;
    if (!m_tracks.Passes(media.track, media.IsKey())) {
        return 0;
    }
    const unsigned char* data = packet == nullptr ? nullptr : packet->GetData();
    if (data == nullptr || length < 0 || m_sock == nullptr) {
        return -1;
    }
    const bool sent = m_sock->SendMerged(data, static_cast<unsigned int>(length), &m_sent_whole) >= 0;
    if (!sent) {
        report_failure();
    }
    m_failing = !sent;
    return sent ? length : -1;
}

void CP2PUdpSender::PutInfo(CMediaPacket* packet, int length) {
    if (m_sent_whole && !m_frame_proc.empty()) {
        m_frame_proc(packet, length, 0);
    }
}

// Once until a frame gets out, and once a second where some do.
void CP2PUdpSender::report_failure() {
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (!m_failing && (m_last_report_ms == 0 || now - m_last_report_ms >= REPORT_INTERVAL_MS)) {
        m_last_report_ms = now;
        logError("%s:%d udp send failed \n", __FILE__, __LINE__);
    }
}

}  // namespace Vidora
}  // namespace Kavio
