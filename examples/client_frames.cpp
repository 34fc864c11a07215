// The smallest client, whole frames of a stream: example_client_frames rtsp://HOST:PORT/PATH COUNT
// It prints a line for each frame and ends after COUNT of them, with exit code 0, or when the stream fails.
#include <condition_variable>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>

#include "Vidora/Vidora.h"
using namespace Kavio::Vidora;

// Gets the notifications of a session, and the frames.
class CViewer : public CNetHandler {
public:
    explicit CViewer(int count) : m_left(count) {}

    bool Start(const char* url) {
        m_session = CRtspClientSession::Create();
        return m_session != nullptr && m_session->Start(url, GetID(), RTP_OVER_RTSP) == 0;
    }
    // Waits for the last frame or the end of the stream.
    int Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait(lock, [this] { return m_left <= 0 || m_failed; });
        return m_failed ? 1 : 0;
    }
    // No frame and no notification comes after it.
    void Stop() {
        const std::lock_guard<std::mutex> guard(m_session_mutex);
        if (m_session == nullptr) {
            return;
        }
        m_session->GetMediaBuffer()->DelLevel2Buffer(m_sink.get());
        m_session->Close();
        m_session = nullptr;
    }

private:
    int handle_message(long, unsigned int msg, long) override {
        const std::lock_guard<std::mutex> guard(m_session_mutex);
        if (m_session == nullptr) {
            return 0;
        }
        if (msg == MSG_RTSP_SETUP_READY) {
            m_session->GetMediaBuffer()->DelLevel2Buffer(m_sink.get());  // of the server that has redirected us here
            m_sink = std::make_unique<CRtspClientBuffer>(&CViewer::on_frame, nullptr, this);
            m_sink->GetFrameBuffer().Init(m_session->GetSdpInfo(), 0, 0);
            m_session->GetMediaBuffer()->AddLevel2Buffer(m_sink.get());
            m_session->Play(-1.0F, 0.0F, 1.0F, true);
        }
        if (msg == MSG_RTSP_TEARDOWN) {
            std::cerr << "the stream has ended: " << m_session->GetFailure() << std::endl;
            change([this] { m_failed = true; });
        }
        return 0;
    }
    // A private frame: its header says the type, and where the codec's own bytes are.
    static void on_frame(const unsigned char* data, unsigned int size, void* user) {
        KXHeader header;
        int body_size = 0;
        kx_read_header(data, size, header);
        get_frame_body(data, static_cast<int>(size), body_size);
        CViewer* viewer = static_cast<CViewer*>(user);
        viewer->change([&] {
            if (viewer->m_left-- > 0) {
                std::cout << "type " << std::hex << int{header.frame_type} << std::dec << ", " << body_size << " bytes"
                          << std::endl;
            }
        });
    }
    template <typename Change>
    void change(Change change) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        change();
        m_changed.notify_all();
    }

    std::mutex m_session_mutex;  // keeps Stop and the notifications apart
    CRtspClientSession* m_session = nullptr;
    std::unique_ptr<CRtspClientBuffer> m_sink;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_left;
    bool m_failed = false;
};

int main(int argc, char** argv) {
    CViewer viewer(argc > 2 ? std::atoi(argv[2]) : 0);
    CNetThread::CreateThreadPool(2, false);
    const int result = argc > 2 && viewer.Start(argv[1]) ? viewer.Wait() : 2;
    viewer.Stop();
    CNetThread::DestroyThreadPool();
    return result;
}
