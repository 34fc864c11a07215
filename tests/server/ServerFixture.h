#ifndef VIDORA_TESTS_SERVER_SERVERFIXTURE_H
#define VIDORA_TESTS_SERVER_SERVERFIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/RtspSvr.h"
#include "Vidora/RtspSvrConfig.h"
#include "support/Capture.h"
#include "support/FakeAuthModule.h"
#include "support/FakeStreamSource.h"
#include "support/FrameBuilder.h"
#include "support/RtspTestClient.h"
#include "support/TestHandler.h"

namespace Kavio::Vidora {

using namespace Support;

const char LIVE_NAME[] = "cam/realmonitor?channel=1&subtype=0";
const char INTERLEAVED[] = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
const char PRIVATE[] = "Transport: KX/AVP/TCP;unicast\r\n";
const char OPTIONS_TEXT[] = "OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n\r\n";
const char FILE_CONTENT[] = "movie.kav";

inline std::string ChannelName(int number) {
    return "cam/realmonitor?channel=" + std::to_string(number) + "&subtype=0";
}
inline std::string UdpTransport(int client_port) {
    return "Transport: RTP/AVP;unicast;client_port=" + std::to_string(client_port) + "\r\n";
}

// The port from which the server's media come by a reply to SETUP.
inline int ServerPort(const RtspReply& reply) {
    return atoi(reply.head.c_str() + reply.head.find("server_port=") + 12);
}

// A source of H.264 and A-law, live or a recording.
CFakeStreamSource::Settings SoundAndPictures(bool is_file = false);

// Gives a video frame to a source; every tenth is a key frame. False if the source doesn't run.
bool GiveVideo(CFakeStreamSource* source, unsigned int sequence, unsigned int size = 100);
// The same as soon as the source runs, which is shortly after the reply to PLAY.
inline bool Give(CFakeStreamSource* source, unsigned int sequence, unsigned int size = 100) {
    return WaitUntil([=] { return GiveVideo(source, sequence, size); });
}

// The host's thread, which gives frames until it goes: `give` is called with rising numbers from 0 on.
class CFramePump {
public:
    CFramePump(int interval_ms, const std::function<void(unsigned int sequence)>& give);
    ~CFramePump();

private:
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

// Events that the server has reported, as text.
class CEventLog {
public:
    static void OnEvent(event_type_t event, void* data, int length);
    static std::vector<std::string> All() { return s_events.All(); }
    static int Count(const std::string& text) { return s_events.Count(text); }
    static void Clear() { s_events.Take(); }

private:
    static inline CGuardedList<std::string> s_events;
};

// A server on the loopback address with a thread pool and a registry, over the host's fake sources.
class CServerTest : public testing::Test {
protected:
    CServerTest();
    ~CServerTest() override;

    // Starts the server; what the test sets in m_config before holds.
    void StartServer();
    // Publishes a channel of a fake source, and gives the source.
    CFakeStreamSource* AddChannel(const std::string& name = LIVE_NAME,
                                  const CFakeStreamSource::Settings& settings = CFakeStreamSource::LiveVideo());
    // One whose SDP doesn't come by itself: a DESCRIBE of it holds the session's machine.
    CFakeStreamSource* AddUnreadyChannel(const std::string& name) {
        return AddChannel(name, CFakeStreamSource::LiveVideo([](auto& settings) { settings.tells_info = false; }));
    }
    CFakeStreamSource* StartWithChannel() {
        StartServer();
        return AddChannel();
    }
    // Publishes the source of the last AddChannel under another name as well.
    void ShareChannel(const std::string& name) { Publish(name, MakeChannel(name)); }
    std::string Url(const std::string& content = LIVE_NAME) const;
    template <typename T>
    void Set(rtsp_svr_config_t item, const T& value) {
        ASSERT_EQ(0, m_config.SetConfig(item, &value, sizeof(value)));
    }
    // Sets a function of the host.
    template <typename F>
    void SetFunction(rtsp_svr_config_t item, F* function) {
        ASSERT_EQ(0, m_config.SetConfig(item, reinterpret_cast<const void*>(function), sizeof(function)));
    }
    // Has `hook` called at the beginning of the host's functions, with the name of one, "url", "source", "connected",
    // "disconnected" or "lost", and the content of the first two. Until the fixture goes; before StartServer.
    typedef std::function<void(const std::string& name, const std::string& content)> host_hook_t;
    void HookHost(const host_hook_t& hook);
    // Has clients authenticated by CFakeAuthModule.
    void UseAuthModule(rtsp_auth_t kind, rtsp_svr_config_t item = RTSP_SVR_CONFIG_AUTH_TYPE);
    // The reply to what was sent, or none if the connection ends, while time runs fast for the server.
    static RtspReply LateReply(CRtspTestClient& client);
    // DESCRIBE and SETUP of the first track, and PLAY. Both give the reply to SETUP.
    RtspReply Prepare(CRtspTestClient& client, const std::string& transport, const std::string& content = LIVE_NAME);
    RtspReply Play(CRtspTestClient& client, const std::string& transport, const std::string& content = LIVE_NAME);
    void PlayInterleaved(CRtspTestClient& client, const std::string& content = LIVE_NAME) {
        Play(client, INTERLEAVED, content);
    }
    // Packets that were dropped for clients that don't read.
    static uint64_t CountDropped();
    // Waits for the sessions to end.
    static bool SessionsGone(unsigned int left = 0);
    CLiveChannel* MakeChannel(const std::string& name);
    void Publish(const std::string& name, CLiveChannel* channel);

    CDataSource* m_source = nullptr;  // of the last AddChannel; the registry's
    int m_port = 0;
    CRtspSvrConfig m_config;
    CPool m_pool{4};
    CLiveSvr* m_live_svr = nullptr;
    CRtspSvr* m_svr = nullptr;
    std::vector<CLiveChannel*> m_channels;
};

}  // namespace Kavio::Vidora

#endif  // VIDORA_TESTS_SERVER_SERVERFIXTURE_H
