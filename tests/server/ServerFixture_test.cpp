// The fixture's operations; a test program takes all sources of its folder.

#include "server/ServerFixture.h"

#include "support/Loopback.h"
#include "support/TestClock.h"

namespace Kavio::Vidora {

namespace {

std::function<void(const std::string& name, const std::string& content)> g_hook;

}  // namespace

void CEventLog::OnEvent(event_type_t event, void* data, int length) {
    if (event == EVENT_LOST_PACKET) {
        const LostPacketEvent& record = *static_cast<const LostPacketEvent*>(data);
        s_events.Add("lost " + std::string(record.ip) + " channel " + std::to_string(record.channel) + " subtype " +
                     std::to_string(record.subtype));
        EXPECT_EQ(sizeof(record), static_cast<size_t>(length));
    } else {
        s_events.Add(std::string(event == EVENT_CLIENT_CONNECTED ? "connected " : "disconnected ") +
                     std::string(static_cast<const char*>(data), static_cast<size_t>(length)));
    }
}

CFramePump::CFramePump(int interval_ms, const std::function<void(unsigned int sequence)>& give)
    : m_thread([=] {
          for (unsigned int sequence = 0; !m_stop; ++sequence) {
              give(sequence);
              std::this_thread::sleep_for(std::chrono::milliseconds(interval_ms));
          }
      }) {}

CFramePump::~CFramePump() {
    m_stop = true;
    m_thread.join();
}

CServerTest::CServerTest() {
    CEventLog::Clear();
    SetFunction(RTSP_SVR_CONFIG_SRC_FUNC, &CFakeStreamSource::Factory);
    m_live_svr = CLiveSvr::Create(0);
}

CServerTest::~CServerTest() {
    if (m_svr != nullptr) {
        m_svr->Close();
    }
    EXPECT_TRUE(SessionsGone());
    m_live_svr->Close();
    EXPECT_TRUE(WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
}

void CServerTest::StartServer() {
    m_port = CBoundSocket(SOCK_STREAM).Port();  // free again
    CSockAddrStorage addr("127.0.0.1", static_cast<unsigned short>(m_port));
    m_svr = CRtspSvr::Create(addr);
    ASSERT_NE(nullptr, m_svr);
    m_svr->SetLiveSvr(m_live_svr);
    m_svr->SetConfig(m_config);
}

// Waits until the channel has its SDP: the source's first readiness goes to a channel's sessions as an update, which
// would end one that has described already.
CFakeStreamSource* CServerTest::AddChannel(const std::string& name, const CFakeStreamSource::Settings& settings) {
    CFakeStreamSource::SetNext(settings);
    CLiveChannel* channel = MakeChannel(name);
    const auto updates = std::make_shared<std::atomic<int>>(0);
    CTestHandler* user = CTestHandler::Make();
    user->on_message = [updates](long, unsigned int msg, long) {
        *updates += msg == MSG_SDP_UPDATE ? 1 : 0;
        return 0;
    };
    channel->AddRef(user->GetID());
    m_source = CDataSource::Create(LIVE_NAME);
    m_source->SetConfig(m_config);
    EXPECT_EQ(0, m_source->Init(channel->GetID(), 0));
    CFakeStreamSource* fake = CFakeStreamSource::Last();
    Publish(name, channel);
    EXPECT_TRUE(!settings.tells_info || WaitUntil([&] { return *updates > 0; }));
    channel->DelRef(user->GetID());
    user->Close();
    return fake;
}

CLiveChannel* CServerTest::MakeChannel(const std::string& name) {
    CLiveChannel* channel = CLiveChannel::Create();
    channel->SetConfig(m_config);
    EXPECT_EQ(0, channel->Init(name.c_str(), 0, TRANSF_TYPE_RTP));
    return channel;
}

void CServerTest::Publish(const std::string& name, CLiveChannel* channel) {
    channel->AddDataSrc(m_source, 0);
    EXPECT_EQ(0, m_live_svr->AddLiveChannel(name.c_str(), channel, m_source));
    m_channels.push_back(channel);
}

std::string CServerTest::Url(const std::string& content) const {
    return "rtsp://127.0.0.1:" + std::to_string(m_port) + "/" + content;
}

void CServerTest::HookHost(const host_hook_t& hook) {
    g_hook = hook;
    char* (*const url)(const char*, char*, int) = [](const char* content, char*, int) {
        g_hook("url", content);
        return static_cast<char*>(nullptr);
    };
    CStreamSource* (*const source)(const char*) = [](const char* content) {
        g_hook("source", content);
        return CFakeStreamSource::Factory(content);
    };
    void (*const event)(event_type_t, void*, int) = [](event_type_t kind, void*, int) {
        g_hook(kind == EVENT_LOST_PACKET ? "lost" : kind == EVENT_CLIENT_CONNECTED ? "connected" : "disconnected", "");
    };
    SetFunction(RTSP_SVR_CONFIG_URL_FUNC, url);
    SetFunction(RTSP_SVR_CONFIG_SRC_FUNC, source);
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, event);
}

void CServerTest::UseAuthModule(rtsp_auth_t kind, rtsp_svr_config_t item) {
    CFakeAuthModule::All().Reset();
    Set(item, kind);
    SetFunction(RTSP_SVR_CONFIG_AUTH_FUNC, &CFakeAuthModule::Make);
}

RtspReply CServerTest::LateReply(CRtspTestClient& client) {
    RtspReply reply;
    EXPECT_TRUE(WaitUntil([&] {
        AdvanceClock(300);  // so often it is looked for a description
        reply = client.Reply(5);
        return reply.status != 0 || client.Ended();
    }));
    return reply;
}

RtspReply CServerTest::Prepare(CRtspTestClient& client, const std::string& transport, const std::string& content) {
    EXPECT_EQ(200, client.Ask("DESCRIBE", Url(content)).status);
    const RtspReply reply = client.Ask("SETUP", Url(content) + "/trackID=0", transport);
    EXPECT_EQ(200, reply.status);
    return reply;
}

RtspReply CServerTest::Play(CRtspTestClient& client, const std::string& transport, const std::string& content) {
    const RtspReply reply = Prepare(client, transport, content);
    EXPECT_EQ(200, client.Ask("PLAY", Url(content)).status);
    return reply;
}

CFakeStreamSource::Settings SoundAndPictures(bool is_file) {
    CFakeStreamSource::Settings settings = is_file ? CFakeStreamSource::FileVideo() : CFakeStreamSource::LiveVideo();
    settings.has_audio = true;
    settings.audio.encode_type = STREAM_AUDIO_PCMA;
    settings.audio.sample_rate = 8000;
    return settings;
}

bool GiveVideo(CFakeStreamSource* source, unsigned int sequence, unsigned int size) {
    return source->Give(BuildPicture(sequence % 10 == 0, size, sequence));
}

uint64_t CServerTest::CountDropped() {
    RtspSvrStatistics statistics;
    CRtspSvr::GetStatistics(statistics);
    return statistics.dropped;
}

bool CServerTest::SessionsGone(unsigned int left) {
    return WaitUntil([left] { return CRtspSvr::GetSessionCount() <= left; });
}

}  // namespace Kavio::Vidora
