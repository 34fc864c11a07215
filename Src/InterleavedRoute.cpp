#include "InterleavedRoute.h"

#include <new>

#include "TrackTable.h"
#include "Tramel/Interleave.h"
#include "Tramel/MediaStreamSender.h"
#include "Tramel/SockStream.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/Ostra/ByteWriter.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {
const size_t MAX_REPORT_SIZE = 2048;
}  // namespace

std::unique_ptr<IMediaRoute> CInterleavedRoute::Create(CSockStream* sock, long handler_id, const RouteWish& wish) {
    CMediaStreamSender* sender = CMediaStreamSender::Create();
    if (sender == nullptr) {
        return nullptr;
    }
    std::unique_ptr<IMediaRoute> route(new (std::nothrow) CInterleavedRoute(sender));
    if (!route) {
        sender->Close();
        return nullptr;
    }
    sender->Attach(sock);
    sender->WaitException(handler_id);
    const int timeout_s = wish.config.GetKeepAliveTimeout();
    sender->SetSendTimeout(static_cast<unsigned int>(timeout_s < 0 ? 0 : timeout_s));
    sender->AttachSendProc(wish.on_frame, Tramel::TOLD_GAPS);
    for (int i = 0; i < CTrackTable::MAX_TRACKS; ++i) {
        sender->DisableSendChannel(i);
    }
    return route;
}

CInterleavedRoute::~CInterleavedRoute() {
    m_sender->Detach();
    m_sender->Close();
}

// The source decides the channels, not the client's wish (RFC 2326 12.39 lets the server choose).
int CInterleavedRoute::SetUp(const CTrack& /*track*/, int channel, transport_info& transport) {
    if (channel < 0 || channel > MAX_ROUTE_CHANNEL) {
        return -1;
    }
    transport.server_rtp_port = channel;
    transport.server_rtcp_port = channel + 1;
    return 0;
}

void CInterleavedRoute::Switch(const CTrack& track, bool on) {
    on ? m_sender->SetSendChannel(track.send_channel) : m_sender->DisableSendChannel(track.send_channel);
}

void CInterleavedRoute::Pause(const CTrack& track) {
    m_sender->PauseSendChannel(track.send_channel);
}

int CInterleavedRoute::EnterLive(CLiveChannel& channel, packet_type_t type) {
    return channel.Enter(m_sender, type);
}

void CInterleavedRoute::LeaveLive(CLiveChannel& channel, packet_type_t type) {
    channel.Leave(m_sender, type);
}

int CInterleavedRoute::EnterBuffer(CMediaBuffer& buffer) {
    return CMediaBufferRef(&buffer).Add(m_sender) ? 0 : -1;
}

void CInterleavedRoute::LeaveBuffer(CMediaBuffer& buffer) {
    buffer.DelSender(m_sender);
}

// A client on TCP may be silent while it plays; one that has gone is found by what is sent to it.
silence_rule_t CInterleavedRoute::Watch(long /*handler_id*/, int /*timeout_s*/) {
    return SILENCE_OF_NONE;
}

int CInterleavedRoute::SendReport(const unsigned char* report, unsigned int length, int channel) {
    unsigned char frame[Tramel::INTERLEAVE_HEADER_SIZE + MAX_REPORT_SIZE];
    CByteWriter writer(frame, sizeof(frame));
    writer.WriteU8(Tramel::INTERLEAVE_MARK);
    writer.WriteU8(static_cast<uint8_t>(channel));
    writer.WriteU16(static_cast<uint16_t>(length));
    writer.WriteBytes(report, length);
    if (!writer.Ok()) {
        return -1;
    }
    m_sender->SendOtherData(reinterpret_cast<char*>(frame), static_cast<int>(Tramel::INTERLEAVE_HEADER_SIZE + length));
    return 0;
}

uint64_t CInterleavedRoute::Unsent() {
    return m_sender->Unsent();
}

}  // namespace Vidora
}  // namespace Kavio
