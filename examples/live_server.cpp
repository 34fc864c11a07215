// The smallest host, a JPEG image (4:2:0, standard Huffman tables) as a live stream: example_live_server PORT IMAGE.jpg
// Watch it with: ffplay 'rtsp://127.0.0.1:PORT/cam/realmonitor?channel=1&subtype=0'
#include <atomic>
#include <cstring>
#include <fstream>
#include <thread>

#include "Serving.h"
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

bool load(const char* path) {
    std::ifstream file(path, std::ios::binary);
    g_image.assign(std::istreambuf_iterator<char>(file), {});
    return !g_image.empty();
}

int main(int argc, char** argv) {
    const int port = port_of(argc, argv, "example_live_server PORT IMAGE.jpg", &load);
    if (port == 0) {
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
    const bool served = serve(port, config, live);
    live->Close();
    CNetThread::DestroyThreadPool();
    return served ? 0 : 1;
}
