// The smallest host, a JPEG image (4:2:0, standard Huffman tables) as a live stream: example_live_server PORT IMAGE.jpg
// Watch it with: ffplay 'rtsp://127.0.0.1:PORT/cam/realmonitor?channel=1&subtype=0'
#include <atomic>
#include <cstring>
#include <fstream>
#include <iostream>
#include <thread>

#include "Vidora/Vidora.h"
using namespace Kavio::Vidora;
std::string g_image;

// The host's part of a stream: it reports the format, and delivers frames while it is started.
class CSlideShow : public CStreamSource {
public:
    int Init(long receiver_id, int) override {
        Notify(receiver_id, MSG_STREAM_INFO, 0);  // the format can be read
        return 0;
    }
    src_type_t GetSrcType() override { return SRC_TYPE_LIVE; }
    bool HasVideo() override { return true; }
    bool HasAudio() override { return false; }
    void GetAudioFormat(StreamAudioFormat&) override {}
    void GetVideoFormat(StreamVideoFormat& format) override { format.encode_type = STREAM_VIDEO_JPEG; }
    int GetVideoSpecificInfo(char*, int) override { return 0; }
    int UpdataStreamInfo(long) override { return 0; }
    bool Start(frame_proc_t proc) override {
        m_running = true;
        m_thread = std::thread([this, proc] { run(proc); });
        return true;
    }
    bool Stop(frame_proc_t) override {
        m_running = false;
        m_thread.join();
        return true;
    }
    int handle_close(CNetHandler*) override { return delete this, 0; }

private:
    void run(const frame_proc_t& proc) {
        for (; m_running; CThread::sleep(200)) {
            CKXFrame header;
            header.SetFrameType(FRAME_TYPE_JPEG);
            header.SetEncodeType(KX_VIDEO_JPEG);
            header.SetSequence(++m_sequence);
            uint32_t body = 0;
            const uint32_t size = header.GetFrameSize(static_cast<uint32_t>(g_image.size()), body);
            Kavio::Flumen::CMediaFrame frame(size);
            std::memcpy(frame.getBuffer() + body, g_image.data(), g_image.size());
            header.WriteFrame(frame.getBuffer(), size);
            frame.setType(FRAME_TYPE_I);  // every picture is a key frame
            frame.setPts(200 * m_sequence, Kavio::Flumen::PTS_TYPE_MS);
            proc(frame);
        }
    }

    std::atomic<bool> m_running{false};
    std::thread m_thread;
    uint32_t m_sequence = 0;
};

CStreamSource* make_source(const char*) {
    return new CSlideShow;
}

int main(int argc, char** argv) {
    const int port = argc > 2 ? std::atoi(argv[1]) : 0;
    std::ifstream file(argc > 2 ? argv[2] : "", std::ios::binary);
    g_image.assign(std::istreambuf_iterator<char>(file), {});
    if (port < 1 || port > 65535 || g_image.empty()) {
        std::cerr << "usage: example_live_server PORT IMAGE.jpg" << std::endl;
        return 2;
    }
    CNetThread::CreateThreadPool(4, false);
    CRtspSvrConfig config;
    config.SetSrcFunc(&make_source);
    CLiveSvr* live = CLiveSvr::Create(0);
    const char* content = "cam/realmonitor?channel=1&subtype=0";
    CDataSource* source = CDataSource::Create(content);
    source->SetConfig(config);
    source->Init(live->GetID(), 0);
    CLiveChannel* channel = CLiveChannel::Create();
    channel->Init(content, live->GetID(), TRANSF_TYPE_RTP);
    channel->AddDataSrc(source, 0);
    live->AddLiveChannel(content, channel, source);
    CSockAddrStorage address("127.0.0.1", static_cast<unsigned short>(port));
    if (CRtspSvr* server = CRtspSvr::Create(address)) {
        server->SetLiveSvr(live);
        server->SetConfig(config);
        std::cout << "listening on 127.0.0.1; an empty line ends" << std::endl;
        std::cin.get();
        server->Stop();  // no new sessions
        server->EndSessions(1000);
        server->Close();
    }
    live->Close();
    CNetThread::DestroyThreadPool();
}
