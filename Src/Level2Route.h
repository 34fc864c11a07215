#ifndef VIDORA_LEVEL2ROUTE_H
#define VIDORA_LEVEL2ROUTE_H

#include "MediaRoute.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

// CLevel2Route: what the routes over UDP have in common: their sink is called with each packet as it is put.
class CLevel2Route : public IMediaRoute {
public:
    int EnterLive(CLiveChannel& channel, packet_type_t type) override { return channel.Enter(&m_sink, type); }
    void LeaveLive(CLiveChannel& channel, packet_type_t type) override { channel.Leave(&m_sink, type); }
    int EnterBuffer(CMediaBuffer& buffer) override { return CMediaBufferRef(&buffer).Add(&m_sink) ? 0 : -1; }
    void LeaveBuffer(CMediaBuffer& buffer) override { buffer.DelLevel2Buffer(&m_sink); }

protected:
    // `sink`: the derived class's, which need not be made yet.
    explicit CLevel2Route(CLevel2Buffer_IF& sink) : m_sink(sink) {}

private:
    CLevel2Buffer_IF& m_sink;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_LEVEL2ROUTE_H
