#include "Nat/P2PUdpReceiver.h"

#include <cerrno>
#include <new>
#include <utility>

#include "DgramTurn.h"
#include "Nat/NatHello.h"
#include "Protocol/RtspParser.h"
#include "Vidora/Ostra/ByteReader.h"

namespace Kavio {
namespace Vidora {

namespace {

const unsigned int MIN_DATAGRAM = 12;  // the header of RTP (RFC 3550 5.1)
const uint8_t PAYLOAD_TYPE_MASK = 0x7f;
const size_t RTCP_SSRC_AT = 4;

}  // namespace

CP2PUdpReceiver* CP2PUdpReceiver::Create(const std::shared_ptr<CSockDgram>& sock, const CSockAddrStorage& server,
                                         bool takes_rtcp, long owner_id) {
    return begun(sock != nullptr ? new (std::nothrow) CP2PUdpReceiver(sock, server, takes_rtcp) : nullptr, owner_id);
}

int CP2PUdpReceiver::Start(uint64_t period_us, float speed) {
    m_sock->JoinReceived();  // an older system returns them one by one
    const int result = RegisterSock(*m_sock, Tramel::SOCK_EVENT_READ, 0);
    if (result == 0) {
        StartReceive(static_cast<int64_t>(period_us), speed);
    }
    return result;
}

int CP2PUdpReceiver::Stop() {
    UnregisterSock(*m_sock, Tramel::SOCK_EVENT_READ);
    StopReceive();
    return 0;
}

int CP2PUdpReceiver::handle_stream_input() {
    const CTurn turn(*this);
    if (input_fd() != m_sock->GetHandle()) {
        return -1;
    }
    CDgramTurn datagrams(*m_sock);
    DgramSlice datagram;
    int count = 0;
    for (mark_arrival(); datagrams.Next(datagram); ++count) {
        if (datagrams.From() == m_server && Take(datagram) < 0) {
            return -1;
        }
    }
    const int error = datagrams.Failed() ? errno : 0;
    return count > 0 || m_sock->GoesOn(error) ? count : -1;
}

int CP2PUdpReceiver::Take(const DgramSlice& datagram) {
    if (datagram.length < MIN_DATAGRAM) {
        return 0;
    }
    CByteReader reader(datagram.data, datagram.length);
    if (reader.ReadU8() == NAT_TEXT_MARK) {
        take_text(datagram);
        return 0;
    }
    const uint8_t type = reader.ReadU8();
    const int track = find_payload_track(type & PAYLOAD_TYPE_MASK);
    if (track >= 0 && track < RECEIVER_MERGED_TRACKS) {
        return take_datagram(track, datagram.data, static_cast<int>(datagram.length));
    }
    if (m_takes_rtcp && IsNatRtcp(type)) {
        take_report(datagram);
    }
    return 0;
}

// A forger would have to know the media's SSRC.
void CP2PUdpReceiver::take_report(const DgramSlice& datagram) {
    CByteReader reader(datagram.data, datagram.length);
    reader.Skip(RTCP_SSRC_AT);
    const int track = find_source_track(reader.ReadU32());
    if (track >= 0) {
        take_rtcp(track, datagram.data, static_cast<int>(datagram.length));
    }
}

void CP2PUdpReceiver::take_text(const DgramSlice& datagram) {
    const char* text = reinterpret_cast<const char*>(datagram.data);
    if (datagram.length <= RTSP_MAX_MESSAGE && !IsNatHello({text, datagram.length}, NAT_SERVER_HELLO)) {
        unsigned char& behind = datagram.data[datagram.length];
        const unsigned char next = std::exchange(behind, uint8_t{0});
        take_rtsp(text, static_cast<int>(datagram.length));
        behind = next;  // another datagram's, perhaps
    }
}

}  // namespace Vidora
}  // namespace Kavio
