#ifndef VIDORA_INTERLEAVEDROUTE_H
#define VIDORA_INTERLEAVEDROUTE_H

#include "MediaRoute.h"
#include "SvrLink.h"

namespace Kavio {
namespace Vidora {

// CInterleavedRoute: media on the control connection (RFC 2326 10.12), between the control texts.
class CInterleavedRoute : public IMediaRoute {
public:
    // A route on `sock`, whose failures go to the handler `handler_id`; null if memory is short or the socket has gone.
    static std::unique_ptr<IMediaRoute> Create(CSockStream* sock, long handler_id, const RouteWish& wish);
    ~CInterleavedRoute() override;

    int SetUp(const CTrack& track, int channel, transport_info& transport) override;
    void Switch(const CTrack& track, bool on) override;
    void Pause(const CTrack& track) override;
    int EnterLive(CLiveChannel& channel, packet_type_t type) override;
    void LeaveLive(CLiveChannel& channel, packet_type_t type) override;
    int EnterBuffer(CMediaBuffer& buffer) override;
    void LeaveBuffer(CMediaBuffer& buffer) override;
    silence_rule_t Watch(long handler_id, int timeout_s) override;
    int SendReport(const unsigned char* report, unsigned int length, int channel) override;
    uint64_t Unsent() override;

private:
    explicit CInterleavedRoute(CMediaStreamSender* sender) : m_sender(sender) {}

    CMediaStreamSender* const m_sender;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_INTERLEAVEDROUTE_H
