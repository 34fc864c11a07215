#include "SIP/UdpStreamSender.h"

namespace Kavio {
namespace Vidora {

bool CUdpStreamSender::Init() {
    const CGuard guard(m_mutex);
    m_parser = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_RTP);
    if (m_parser == nullptr) {
        return false;
    }
    // A frame comes out in one piece, so that a few system calls send all of it.
    RtpOverTcpParam param;
    param.use_header = 1;
    param.merge_frame = 1;
    return m_parser->SetParam(param) == PARSER_OK;
}

bool CUdpStreamSender::SetTrack(const CSdpTrack& track) {
    const CGuard guard(m_mutex);
    RtpEncParam param;
    m_parser->GetParam(param);  // the numbers of the packets go on
    param.enc_type = track.EncType();
    param.payload_type = track.PayloadType();
    param.clock_rate = track.ClockRate();
    logInfo("enc_type:%d pt:%d hz:%d\n", param.enc_type, param.payload_type, static_cast<int>(param.clock_rate));
    return m_parser->SetParam(param) == PARSER_OK;
}

void CUdpStreamSender::SetRemote(const CSockAddrStorage& remote) {
    const CGuard guard(m_mutex);
    m_remote = remote;
    if (m_sock != nullptr) {
        m_sock->SetTarget(m_remote);
    }
}

void CUdpStreamSender::Attach(const std::shared_ptr<CSockDgram>& sock) {
    const CGuard guard(m_mutex);
    m_sock = sock;
    if (m_remote.IsValid()) {
        m_sock->SetTarget(m_remote);
    }
}

void CUdpStreamSender::Detach() {
    const CGuard guard(m_mutex);
    m_sock.reset();
}

bool CUdpStreamSender::Put(const Flumen::CMediaFrame& frame) {
    const CGuard guard(m_mutex);
    const int ret = m_parser->InputFrame(frame);
    if (ret != PARSER_FRAME_READY) {
        if (m_log.Pass()) {
            logWarn("%s:%d MediaFrame Input fail, ret%d\n", __FILE__, __LINE__, ret);
        }
        return false;
    }
    // All of it is taken in any case: what is left would be sent with the next frame.
    bool sent = true;
    for (Flumen::CMediaFrame run = m_parser->OutputFrame(); run.valid(); run = m_parser->OutputFrame()) {
        sent = sent && send(run);
    }
    return sent;
}

bool CUdpStreamSender::send(const Flumen::CMediaFrame& run) {
    bool complete = false;
    if (m_sock != nullptr) {
        m_sock->SendMerged(run.getBuffer(), run.size(), &complete);
    }
    if (!complete && m_log.Pass()) {
        logWarn("%s:%d udp send failed, len:%d \n", __FILE__, __LINE__, static_cast<int>(run.size()));
    }
    return complete;
}

}  // namespace Vidora
}  // namespace Kavio
