#include "Nat/P2PUdpSender.h"

#include "RtpRun.h"
#include "Tramel/MediaTag.h"
#include "Tramel/SockDgram.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint8_t ALL_CHANNELS = 0xff;
const int MAX_CHANNEL = 7;
const uint64_t REPORT_INTERVAL_MS = 1000;

uint8_t bit_of(int channel) {
    return static_cast<uint8_t>(1U << channel);
}

// The bytes of the packets in front of the first that isn't whole.
unsigned int whole_packets(const unsigned char* data, size_t length) {
    CByteReader reader(data, length);
    interleaved_unit_t unit;
    size_t left = length;
    while (left > 0 && ReadInterleavedUnit(reader, unit)) {
        left = reader.Remaining();
    }
    return static_cast<unsigned int>(length - left);
}

}  // namespace

int CP2PUdpSender::Put(CMediaPacket* packet, int length, int /*flag*/, int tag) {
    const int track = Tramel::MediaTag::Unpack(tag).track;
    if (track > MAX_CHANNEL || (m_channels.load(std::memory_order_relaxed) & bit_of(track)) == 0) {
        return 0;
    }
    const unsigned char* data = packet == nullptr ? nullptr : packet->GetData();
    if (data == nullptr || length < 0 || m_sock == nullptr) {
        return -1;
    }
    const unsigned int whole = whole_packets(data, static_cast<size_t>(length));
    const bool sent = m_sock->SendMerged(data, whole) >= 0 && whole == static_cast<unsigned int>(length);
    if (!sent) {
        report_failure();
    }
    m_failing = !sent;
    return sent ? length : -1;
}

// Once until a frame gets out, and once a second where some do.
void CP2PUdpSender::report_failure() {
    const uint64_t now = CTime::getCurrentMilliSecond();
    if (!m_failing && (m_last_report_ms == 0 || now - m_last_report_ms >= REPORT_INTERVAL_MS)) {
        m_last_report_ms = now;
        logError("%s:%d udp send failed \n", __FILE__, __LINE__);
    }
}

void CP2PUdpSender::SetChannel(int channel) {
    if (channel < 0) {
        m_channels = ALL_CHANNELS;
    } else if (channel <= MAX_CHANNEL) {
        const uint8_t others = m_channels;
        m_channels = static_cast<uint8_t>((others == ALL_CHANNELS ? 0 : others) | bit_of(channel));
    }
}

void CP2PUdpSender::ClearChannel(int channel) {
    if (OSTRA_ASSERT(channel <= 7 && channel >= 0)) {
        m_channels = static_cast<uint8_t>(m_channels & ~bit_of(channel));
    }
}

}  // namespace Vidora
}  // namespace Kavio
