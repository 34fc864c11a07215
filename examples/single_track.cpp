// One track by SDP, passed on: example_single_track FILE.sdp PORT REMOTE_PORT
// It receives on PORT what the description announces, and sends each frame to REMOTE_PORT of this host, as packets of
// its own, until its input ends; both ports are of 127.0.0.1. It then prints how many packets came, and how many
// frames.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iostream>
#include <string>

#include "Vidora/Vidora.h"
using namespace Kavio::Vidora;

// Sends what it receives.
class CRelay {
public:
    bool Start(const char* sdp, int sock, int remote_port) {
        m_track = IRTPUdpTransmiter::Create();
        return m_track != nullptr && m_track->SetSdpInfo(IRTPUdpTransmiter::SDP_TYPE_SEND, sdp) &&
               m_track->SetSdpInfo(IRTPUdpTransmiter::SDP_TYPE_RECV, sdp) && m_track->Attach(sock) &&
               m_track->SetRemote("127.0.0.1", remote_port, IRTPUdpTransmiter::REMOTE_SEND) &&
               m_track->StartRecv({this, &CRelay::on_frame});
    }
    // No frame comes after it.
    void Stop() {
        if (m_track != nullptr) {
            RtpUdpStatistics statistics;
            m_track->GetStatistics(statistics);
            m_track->Close();
            std::cout << statistics.packets << " packets, " << m_frames << " frames" << std::endl;
        }
    }

private:
    void on_frame(const Kavio::Flumen::CMediaFrame& frame) {
        if (!frame.valid()) {
            std::cerr << "the socket has failed" << std::endl;
        } else if (m_track->Put(frame)) {
            ++m_frames;
        }
    }

    IRTPUdpTransmiter* m_track = nullptr;
    std::atomic<int> m_frames{0};
};

int main(int argc, char** argv) {
    std::ifstream file(argc > 3 ? argv[1] : "");
    const std::string sdp(std::istreambuf_iterator<char>(file), {});
    sockaddr_in local = {};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    local.sin_port = htons(static_cast<uint16_t>(argc > 3 ? std::atoi(argv[2]) : 0));
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    if (sdp.empty() || bind(sock, reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) {
        std::cerr << "usage: example_single_track FILE.sdp PORT REMOTE_PORT" << std::endl;
        return 2;
    }
    CNetThread::CreateThreadPool(2, false);
    CRelay relay;
    const bool started = relay.Start(sdp.c_str(), sock, std::atoi(argv[3]));
    if (started) {
        std::cout << "receiving; an empty line ends" << std::endl;
        std::cin.get();
    }
    relay.Stop();
    close(sock);
    CNetThread::DestroyThreadPool();
    return started ? 0 : 1;
}
