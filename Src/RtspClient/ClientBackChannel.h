#ifndef VIDORA_RTSPCLIENT_CLIENTBACKCHANNEL_H
#define VIDORA_RTSPCLIENT_CLIENTBACKCHANNEL_H

#include <memory>
#include <string>

#include "RtpUdpSender.h"
#include "RtspClient/ClientTracks.h"
#include "StreamParser/StreamParser.h"

namespace Kavio {
namespace Vidora {

// CClientBackChannel: sends the application's audio to the device, as RTP over UDP (ONVIF Streaming Specification 5.3).
//
// THREADING  The strand.
class CClientBackChannel {
public:
    // Takes the ports of a track over, whose sockets it closes. `peer`: the device. 0 or -1.
    int Open(client_track& track, const CSockAddrStorage& peer);
    bool IsOpen() const { return m_sender != nullptr; }
    // Sends A-law audio as one packet.
    void Put(const std::string& audio);

private:
    bool make_stream();

    std::unique_ptr<CRtpUdpSender> m_sender;
    CStreamParserPtr m_stream;  // frame to RTP, made with the first data
    uint64_t m_samples = 0;     // sent so far: the stream's clock
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTBACKCHANNEL_H
