#include "support/SideFleet.h"

#include <sys/socket.h>
#include <unistd.h>

#include "Vidora/MulticastStreamClient.h"
#include "Vidora/RTPUdpTransmiter.h"
#include "support/BlockingPeer.h"
#include "support/H264Runs.h"
#include "support/LibraryPool.h"
#include "support/Loopback.h"

namespace Bench {

using namespace Kavio::Vidora;

namespace {

const uint16_t FIRST_PORT = 20000;
const uint16_t LAST_PORT = 32000;
const int RECV_BUFFER = 1 << 20;

class CCountingReceiver : public ISideReceiver {
public:
    explicit CCountingReceiver(FleetFigures& figures) : m_figures(figures) {}
    void OnFrame(const Kavio::Flumen::CMediaFrame& frame) {
        if (frame.valid()) {
            m_figures.frames.fetch_add(1, std::memory_order_relaxed);
            m_figures.bytes.fetch_add(frame.size(), std::memory_order_relaxed);
        }
    }

protected:
    FleetFigures& m_figures;
};

class CMulticastReceiver : public CCountingReceiver {
public:
    using CCountingReceiver::CCountingReceiver;
    ~CMulticastReceiver() override { m_client->Stop(); }

    bool Start(uint16_t port) override {
        multicast_track_info_t info;
        info.encode = ENC_TYPE_H264;
        return m_client->Start("127.0.0.1", port, {this, &CCountingReceiver::OnFrame}, &info) == 0;
    }

private:
    IMulticastStreamClient* const m_client = IMulticastStreamClient::Create(ClientType_RTP);
};

class CTrackReceiver : public CCountingReceiver {
public:
    using CCountingReceiver::CCountingReceiver;
    ~CTrackReceiver() override {
        RtpUdpStatistics statistics;
        m_track->GetStatistics(statistics);
        m_figures.packets += statistics.packets;
        m_figures.damaged += statistics.damaged;
        m_track->Close();
        ::close(m_sock);
    }

    bool Start(uint16_t port) override {
        const sockaddr_in address = loopback(port);
        const std::string type = std::to_string(H264_PAYLOAD_TYPE);
        const std::string sdp = "v=0\r\nm=video 0 RTP/AVP " + type + "\r\na=rtpmap:" + type + " H264/90000\r\n";
        ::setsockopt(m_sock, SOL_SOCKET, SO_RCVBUF, &RECV_BUFFER, sizeof(RECV_BUFFER));
        return ::bind(m_sock, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
               m_track->SetSdpInfo(IRTPUdpTransmiter::SDP_TYPE_RECV, sdp.c_str()) && m_track->Attach(m_sock) &&
               m_track->StartRecv({this, &CCountingReceiver::OnFrame});
    }

private:
    const int m_sock = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    IRTPUdpTransmiter* const m_track = IRTPUdpTransmiter::Create();
};

}  // namespace

std::unique_ptr<ISideReceiver> MakeMulticastClient(FleetFigures& figures) {
    return std::make_unique<CMulticastReceiver>(figures);
}

std::unique_ptr<ISideReceiver> MakeSingleTrack(FleetFigures& figures) {
    return std::make_unique<CTrackReceiver>(figures);
}

// A receiver with the session that feeds it.
struct CSideFleet::CSide {
    std::unique_ptr<ISideReceiver> receiver;
    std::unique_ptr<CBlockingPeer> session;
};

CSideFleet::CSideFleet(FleetFigures& figures, unsigned int threads, const side_maker_t& maker)
    : m_figures(figures), m_maker(maker) {
    StartLibraryPool(threads);
}

CSideFleet::~CSideFleet() {
    Close();
    EndLibraryPool();
}

void CSideFleet::Open(uint16_t port, unsigned int count, bool /*udp*/) {
    Close();
    m_next_port = FIRST_PORT;
    for (unsigned int i = 0; i < count; ++i) {
        ++(open_one(port) ? m_figures.up : m_figures.failed);
    }
}

bool CSideFleet::open_one(uint16_t server_port) {
    auto side = std::make_unique<CSide>();
    uint16_t port = 0;
    do {
        port = m_next_port;
        m_next_port = static_cast<uint16_t>(m_next_port + 2);
        side->receiver = m_maker(m_figures);
        if (port > LAST_PORT) {
            return false;
        }
    } while (!side->receiver->Start(port));
    side->session = std::make_unique<CBlockingPeer>(server_port);
    m_sides.push_back(std::move(side));
    return m_sides.back()->session->Play(CRtspDialogue(server_port, port));
}

void CSideFleet::Close() {
    m_sides.clear();
    m_figures.up = m_figures.failed = 0;
}

void CSideFleet::Run(int wake_fd) {
    WaitForCommand(wake_fd);
}

}  // namespace Bench
