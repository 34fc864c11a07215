// The smallest multicast client, whole frames without RTSP: example_multicast_client GROUP PORT ts|rtp COUNT
// It prints a line for each frame, for rtp those of an H.264 track, and ends after COUNT of them, with exit code 0, or
// when the socket fails.
#include <condition_variable>
#include <iostream>
#include <mutex>
#include <string>

#include "Vidora/Vidora.h"
using namespace Kavio::Vidora;

class CViewer {
public:
    explicit CViewer(int count) : m_left(count) {}

    void OnFrame(const Kavio::Flumen::CMediaFrame& frame) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_failed = m_failed || !frame.valid();
        if (frame.valid() && m_left > 0) {
            // A private frame: its header says the type, and where the codec's own bytes are.
            KXHeader header;
            int body_size = 0;
            kx_read_header(frame.getBuffer(), frame.size(), header);
            get_frame_body(frame.getBuffer(), static_cast<int>(frame.size()), body_size);
            std::cout << "type " << std::hex << int{header.frame_type} << std::dec << ", " << body_size << " bytes"
                      << std::endl;
            --m_left;
        }
        m_changed.notify_all();
    }
    // Waits for the last frame or the end of the stream.
    int Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_left <= 0 || m_failed; });
        return m_left <= 0 ? 0 : 1;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_left;
    bool m_failed = false;
};

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: " << argv[0] << " GROUP PORT ts|rtp COUNT" << std::endl;
        return 2;
    }
    const bool is_ts = std::string(argv[3]) == "ts";
    multicast_track_info_t info;
    info.encode = ENC_TYPE_H264;
    CViewer viewer(std::atoi(argv[4]));
    CNetThread::CreateThreadPool(2, false);
    IMulticastStreamClient* client = IMulticastStreamClient::Create(is_ts ? ClientType_TS : ClientType_RTP);
    int result = 2;
    if (client != nullptr) {
        const IMulticastStreamClient::frame_proc_t proc(&viewer, &CViewer::OnFrame);
        if (client->Start(argv[1], std::atoi(argv[2]), proc, is_ts ? nullptr : &info) == 0) {
            result = viewer.Wait();
        }
        client->Stop();  // no frame comes after it
    }
    CNetThread::DestroyThreadPool();
    return result;
}
