#include "RtspClient/ClientBackChannel.h"

#include <new>

#include "MediaFrame.h"
#include "StreamParser/RandomDraw.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint8_t PAYLOAD_PCMA = 8;  // RFC 3551 6
const uint32_t PCMA_RATE = 8000;
const uint64_t PCMA_SAMPLES_PER_MS = PCMA_RATE / 1000;
const int CHANNEL = 0;  // of the packets on their way to the sender

}  // namespace

int CClientBackChannel::Open(client_track& track, const CSockAddrStorage& peer) {
    // The sender opens the ports anew, connected to the device.
    track.rtp_sock = nullptr;
    track.rtcp_sock = nullptr;
    m_sender.reset(new (std::nothrow) CRtpUdpSender);
    if (m_sender == nullptr) {
        return -1;
    }
    m_sender->Init(1);
    m_sender->SetRemote(peer);
    if (m_sender->OpenPairAt(track.transport.rtp_port, track.transport.server_rtp_port, CHANNEL) < 0) {
        m_sender = nullptr;
        return -1;
    }
    return 0;
}

bool CClientBackChannel::make_stream() {
    m_stream = CStreamParser::Create(STREAM_TYPE_FRAME_AUTO, STREAM_TYPE_RTP);
    if (m_stream == nullptr) {
        logError("%s:%d rtp stream parser create fail\n", __FILE__, __LINE__);
        return false;
    }
    RtpEncParam rtp;
    rtp.enc_type = ENC_TYPE_AUDIO;
    rtp.payload_type = PAYLOAD_PCMA;
    rtp.clock_rate = PCMA_RATE;
    rtp.sequence = random_draw();
    rtp.timestamp = random_draw32();
    rtp.ssrc = random_draw32();
    RtpOverTcpParam framing;
    framing.use_header = 1;
    framing.channel = CHANNEL;
    m_stream->SetParam(rtp);
    m_stream->SetParam(framing);
    return true;
}

void CClientBackChannel::Put(const std::string& audio) {
    if (m_sender == nullptr || audio.empty() || (m_stream == nullptr && !make_stream())) {
        return;
    }
    Flumen::CMediaFrame frame(static_cast<unsigned int>(audio.size()));
    if (!frame.valid()) {
        return;
    }
    frame.resize(0);
    frame.putBuffer(audio.data(), static_cast<unsigned int>(audio.size()));
    frame.setType(FRAME_TYPE_AUDIO);
    // A time stamp of 0 is none.
    frame.setPts(1 + m_samples / PCMA_SAMPLES_PER_MS, Flumen::PTS_TYPE_MS);
    m_samples += audio.size();
    const int result = m_stream->InputFrame(frame);
    if (result != PARSER_FRAME_READY) {
        logWarn("%s:%d MediaFrame Input fail, ret:%d\n", __FILE__, __LINE__, result);
        return;
    }
    for (Flumen::CMediaFrame out = m_stream->OutputFrame(); out.valid(); out = m_stream->OutputFrame()) {
        CMediaFrame packet(out);
        m_sender->Put(&packet, static_cast<int>(out.size()), 1, 0);
    }
}

}  // namespace Vidora
}  // namespace Kavio
