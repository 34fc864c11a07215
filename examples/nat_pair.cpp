// A camera at home, watched from another home, both behind address translation. Three programs, in this order:
//     example_nat_pair point ADDRESS:PORT                  where both can reach it
//     example_nat_pair device POINT NAME CAMERA            CAMERA is HOST[:PORT] of an RTSP server
//     example_nat_pair viewer POINT NAME CONTENT COUNT     ends after COUNT packets, with exit code 0
// The first two end with an empty line.
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <iostream>
#include <mutex>

#include "Vidora/Vidora.h"
#include "rendezvous/Rendezvous.h"
using namespace Kavio::Vidora;

const char* g_camera = nullptr;

// What a viewer asks for is that of the camera.
char* ask_camera(const char* content, char* out, int size) {
    snprintf(out, static_cast<size_t>(size), "%s?proxy=%s", content, g_camera);
    return out;
}
void close_returned(int, void* descriptor, int) {
    close(*static_cast<int*>(descriptor));
}
void wait_for_line() {
    std::cout << "listening; an empty line ends" << std::endl;
    std::cin.get();
}

int run_point(const char* address) {
    RendezvousPoint point;
    if (!point.Open(address)) {
        return 1;
    }
    std::thread thread([&point] { point.Run(); });
    wait_for_line();
    point.Stop();
    thread.join();
    return 0;
}

int run_device(const RendezvousOptions& options) {
    CRtspSvrConfig config;
    config.SetUrlFunc(&ask_camera);
    CSockAddrStorage nearby("127.0.0.1", 0);
    CRtspSvr* server = CRtspSvr::Create(nearby);
    if (server == nullptr) {
        return 1;
    }
    server->SetConfig(config);
    RendezvousDevice device;
    const bool opened = device.Start(options, [server](const PunchedSocket& viewer) {
        NatConnectRecord record;
        record.on_return = &close_returned;
        server->AddNewConnect(viewer.fd, viewer.peer.c_str(), 0, reinterpret_cast<long>(&record));
    });
    if (opened) {
        wait_for_line();
        device.Stop();
        server->Stop();
        server->EndSessions(1000);
    }
    server->Close();
    return opened ? 0 : 1;
}

// Gets the notifications of a session, and its packets.
class CCounter : public CNetHandler, public CLevel2Buffer_IF {
public:
    explicit CCounter(int count) : m_left(count) {}

    int Watch(const PunchedSocket& met, const char* content) {
        m_session = CP2PClientSession::Create();
        if (m_session->Start(("rtsp://" + met.peer + "/" + content).c_str(), GetID(), met.fd) < 0) {
            close(met.fd);
            return 1;
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_left <= 0 || m_ended; });
        lock.unlock();
        m_session->GetMediaBuffer()->DelLevel2Buffer(this);
        m_session->Close();
        return m_left > 0 ? 1 : 0;
    }

private:
    int handle_message(long, unsigned int msg, long) override {
        if (msg == MSG_RTSP_SETUP_READY) {
            m_session->GetMediaBuffer()->AddLevel2Buffer(this);
            m_session->Play(0, 0, 1, false);
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_ended = m_ended || msg == MSG_RTSP_TEARDOWN;
        m_changed.notify_one();
        return 0;
    }
    int Put(CMediaPacket*, int length, int, int) override {
        const std::lock_guard<std::mutex> lock(m_mutex);
        --m_left;
        m_changed.notify_one();
        return length;
    }

    CP2PClientSession* m_session = nullptr;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_left;
    bool m_ended = false;
};

int main(int argc, char** argv) {
    const std::string role = argc > 2 ? argv[1] : "";
    RendezvousOptions options;
    options.point = argc > 2 ? argv[2] : "";
    options.name = argc > 3 ? argv[3] : "";
    if (role == "point") {
        return run_point(argv[2]);
    }
    int result = 2;
    CNetThread::CreateThreadPool(4, false);
    PunchedSocket met;
    if (role == "device" && argc == 5) {
        g_camera = argv[4];
        result = run_device(options);
    } else if (role == "viewer" && argc == 6) {
        CCounter counter(std::atoi(argv[5]));
        result = MeetPeer(options, met) == 0 ? counter.Watch(met, argv[4]) : 1;
    } else {
        std::cerr << "usage: see the beginning of nat_pair.cpp" << std::endl;
    }
    CNetThread::DestroyThreadPool();
    return result;
}
