#ifndef VIDORA_SIP_RTPUDPTRANSMITER_H
#define VIDORA_SIP_RTPUDPTRANSMITER_H

#include <atomic>

#include "SIP/UdpStreamReceiver.h"
#include "SIP/UdpStreamSender.h"
#include "Vidora/RTPUdpTransmiter.h"

namespace Kavio {
namespace Vidora {

// CRTPUdpTransmiter: the two directions of a single track around one socket of the host's.
//
// THREADING  Any thread. m_mutex is held while both directions change their socket, so that they always have the same;
//            never over a callback or a wait for one. Below it the locks of the two directions.
// OWNERSHIP  Owns the sender, and the receiver, which it closes. Each call holds a share of the object, and so does the
//            host until Close: the last one deletes it. Thus Close waits for no other call, which may itself wait for
//            the callback that Close is called from.
class CRTPUdpTransmiter final : public IRTPUdpTransmiter {
public:
    // Null if memory is short.
    static CRTPUdpTransmiter* Make();

    void Close() override;
    bool SetSdpInfo(SDP_TYPE type, const char* sdp) override;
    bool Attach(int fd) override;
    bool SetRemote(const char* ip, int port, int mode) override;
    bool StartRecv(frame_proc_t proc) override;
    bool Put(const Flumen::CMediaFrame& frame) override;
    int Detach() override;
    void GetStatistics(RtpUdpStatistics& statistics) override;

private:
    class CShare;

    CRTPUdpTransmiter() = default;
    ~CRTPUdpTransmiter() override;

    bool exchange_sock(int fd);
    void release();

    CUdpStreamSender m_sender;
    CUdpStreamReceiver* m_receiver = nullptr;  // constant after Make
    CMutex m_mutex;
    std::atomic<bool> m_closed{false};
    std::atomic<int> m_shares{1};
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SIP_RTPUDPTRANSMITER_H
