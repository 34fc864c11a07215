#ifndef VIDORA_SIP_UDPSTREAMSENDER_H
#define VIDORA_SIP_UDPSTREAMSENDER_H

#include <memory>

#include "Ostra/LogGate.h"
#include "SIP/SdpTrack.h"
#include "Tramel/SockDgram.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CUdpStreamSender: the sending direction of a single track: frames to RTP packets, and these to the remote.
//
// THREADING  Any thread. m_mutex is held while the packets of a frame are sent, without blocking and without a call to
//            the host.
// OWNERSHIP  Shares the socket.
class CUdpStreamSender {
public:
    // False if memory is short; called first.
    bool Init();
    bool SetTrack(const CSdpTrack& track);
    // `remote` is valid.
    void SetRemote(const CSockAddrStorage& remote);
    void Attach(const std::shared_ptr<CSockDgram>& sock);
    // Nothing is sent any more when it returns.
    void Detach();
    bool Put(const Flumen::CMediaFrame& frame);

private:
    bool send(const Flumen::CMediaFrame& run) VIDORA_REQUIRES(m_mutex);

    CMutex m_mutex;
    CStreamParserPtr m_parser VIDORA_GUARDED_BY(m_mutex);
    std::shared_ptr<CSockDgram> m_sock VIDORA_GUARDED_BY(m_mutex);
    CSockAddrStorage m_remote VIDORA_GUARDED_BY(m_mutex);
    Ostra::CLogGate m_log VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SIP_UDPSTREAMSENDER_H
