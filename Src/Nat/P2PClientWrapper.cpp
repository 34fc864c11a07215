#include "Nat/P2PClientWrapper.h"

#include <new>
#include <utility>

#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

// A sink that lives until the call that is inside has returned, also when that call itself ends the stream.
class CP2PClientWrapper::CFrameSink : public CLevel2Buffer_IF, public std::enable_shared_from_this<CFrameSink> {
public:
    explicit CFrameSink(const std::shared_ptr<CHostCalls>& calls)
        : m_calls(calls), m_buffer(&CHostCalls::OnFrame, &CHostCalls::OnError, calls.get()) {}

    CRtspClientBuffer& Buffer() { return m_buffer; }
    int Put(CMediaPacket* packet, int length, int flag, int channel) override {
        const std::shared_ptr<CFrameSink> self = shared_from_this();
        return m_buffer.Put(packet, length, flag, channel);
    }

private:
    const std::shared_ptr<CHostCalls> m_calls;
    CRtspClientBuffer m_buffer;
};

CP2PClientWrapper::CP2PClientWrapper(CRtspClientBuffer::frame_callback_t on_frame,
                                     CRtspClientBuffer::error_callback_t on_error, void* user)
    : m_calls(CHostCalls::Create(on_frame, on_error, user)) {
    logInfo("%s %s this: %p\n", __FILE__, __func__, static_cast<void*>(this));
}

CP2PClientWrapper::~CP2PClientWrapper() = default;

int CP2PClientWrapper::Start(const char* url, int sock_handle) {
    if (url == nullptr) {
        logError("%s %d param is error!this: %p\n", __FILE__, __LINE__, static_cast<void*>(this));
        return -1;
    }
    CGuard guard(m_mutex);
    const bool may_start = m_client == nullptr && !m_closed && m_calls != nullptr;
    CP2PClientSession* client = may_start ? CP2PClientSession::Create() : nullptr;
    if (client == nullptr) {
        return -1;
    }
    if (client->Start(url, GetID(), sock_handle) < 0) {
        client->Close();
        logError("%s %d m_client: %p start failed!this: %p\n", __FILE__, __LINE__, static_cast<void*>(client),
                 static_cast<void*>(this));
        return -1;
    }
    m_client = client;
    return 0;
}

int CP2PClientWrapper::Play(float begin, float end, float speed, bool scale) {
    CGuard guard(m_mutex);
    return m_client != nullptr ? m_client->Play(begin, end, speed, scale) : -1;
}

int CP2PClientWrapper::Pause() {
    CGuard guard(m_mutex);
    if (m_client == nullptr) {
        return -1;
    }
    m_client->Pause();
    return 0;
}

int CP2PClientWrapper::handle_message(long, unsigned int msg, long) {
    const void* self = this;
    bool is_over = false;
    switch (msg) {
        case MSG_RTSP_SETUP_READY: {
            CGuard guard(m_mutex);
            is_over = m_client != nullptr && !begin_frames_locked();
            break;
        }
        case MSG_RTSP_PLAY_READY:
            logInfo("this: %p SG_RTSP_PLAY_READY \n", self);
            break;
        case MSG_RTSP_PAUSE_READY:
            logInfo("this: %p MSG_RTSP_PAUSE_READY \n", self);
            break;
        case MSG_RTSP_TEARDOWN:
            logInfo("this: %p MSG_RTSP_TEARDOWN \n", self);
            is_over = true;
            break;
        default:
            break;
    }
    if (is_over && m_calls != nullptr) {
        m_calls->TellOver();
    }
    return 0;
}

// False for a description that frames can't be made from, or without memory.
bool CP2PClientWrapper::begin_frames_locked() {
    if (m_frame_sink != nullptr) {
        return true;
    }
    try {
        m_frame_sink = std::make_shared<CFrameSink>(m_calls);
    } catch (const std::bad_alloc&) {
        return false;
    }
    if (m_frame_sink->Buffer().GetFrameBuffer().Init(m_client->GetSdpInfo(), 0, 0) < 0) {
        return false;
    }
    m_client->GetMediaBuffer()->AddLevel2Buffer(m_frame_sink.get());
    return m_client->Play(0.0F, 0.0F, 1.0F, false) == 0;
}

// The callbacks stop and the sink goes first, so that no frame is inside when the session has ended.
void CP2PClientWrapper::Close() {
    CP2PClientSession* client = nullptr;
    std::shared_ptr<CFrameSink> sink;
    {
        CGuard guard(m_mutex);
        if (m_closed) {
            return;
        }
        logInfo("%s %s this: %p\n", __FILE__, __func__, static_cast<void*>(this));
        m_closed = true;
        client = std::exchange(m_client, nullptr);
        sink.swap(m_frame_sink);
    }
    if (m_calls != nullptr) {
        m_calls->Stop();
    }
    if (sink != nullptr) {
        client->GetMediaBuffer()->DelLevel2Buffer(sink.get());
    }
    if (client != nullptr) {
        client->Close();
    }
    CNetHandler::Close();
}

int CP2PClientWrapper::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
