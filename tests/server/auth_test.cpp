#include <atomic>
#include <thread>

#include "Vidora/AuthModule.h"
#include "server/ServerFixture.h"

namespace Kavio {
namespace Vidora {
namespace {

const char CHALLENGE[] = "Basic realm=\"test\"";
const char GOOD[] = "Authorization: Basic good\r\n";
const char BAD[] = "Authorization: Basic bad\r\n";

// How the modules that the factory makes behave, and what they have seen.
struct ModuleState {
    std::atomic<int> delay_ms{-1};  // -1: answers inside the call; -2: inside Release
    std::atomic<int> first{IAuthModule::AUTH_RESULT_CHALLENGE};
    std::atomic<int> challenges{0};
    std::atomic<int> responses{0};
    std::atomic<int> released{0};
    std::mutex mutex;
    std::string url, peer, response;
} g_module;

class CTestModule : public IAuthModule {
public:
    ~CTestModule() override {
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    void Release() override {
        if (!m_late.empty()) {
            m_late(AUTH_RESULT_OK, nullptr);
        }
        ++g_module.released;
        delete this;
    }
    int GetChallenge(const char* url, result_proc_t result, const char* info, int kind) override {
        EXPECT_EQ(2000, kind);
        ++g_module.challenges;
        {
            const std::lock_guard<std::mutex> guard(g_module.mutex);
            g_module.url = url;
            g_module.peer = info;
        }
        return answer(result, static_cast<auth_result_t>(g_module.first.load()), CHALLENGE);
    }
    int ProcessChallenge(const char* response, result_proc_t result, int kind) override {
        EXPECT_EQ(2000, kind);
        ++g_module.responses;
        const std::lock_guard<std::mutex> guard(g_module.mutex);
        g_module.response = response;
        const bool good = g_module.response.find("Basic good") == 0;
        return answer(result, good ? AUTH_RESULT_OK : AUTH_RESULT_DENIED, nullptr);
    }

private:
    int answer(result_proc_t result, auth_result_t value, const char* text) {
        const int delay = g_module.delay_ms;
        if (delay == -2) {
            m_late = result;
            return 0;
        }
        if (delay < 0) {
            result(value, text);
            return 0;
        }
        if (m_thread.joinable()) {
            m_thread.join();
        }
        m_thread = std::thread([=] {
            std::this_thread::sleep_for(std::chrono::milliseconds(delay));
            result(value, text);
        });
        return 0;
    }
    std::thread m_thread;
    result_proc_t m_late;
};

IAuthModule* MakeModule(rtsp_auth_t type) {
    return type == 3 ? new CTestModule : nullptr;
}

class Authentication : public CServerTest {
protected:
    void Start(rtsp_auth_t type = 3) {
        g_module.delay_ms = -1;
        g_module.first = IAuthModule::AUTH_RESULT_CHALLENGE;
        g_module.challenges = g_module.responses = g_module.released = 0;
        Set(RTSP_SVR_CONFIG_AUTH_TYPE, type);
        SetFunction(RTSP_SVR_CONFIG_AUTH_FUNC, &MakeModule);
        StartServer();
        AddChannel();
    }
};

TEST_F(Authentication, ChallengeRefusalAndPassage) {
    for (const int delay_ms : {-1, 20}) {
        if (m_svr == nullptr) {
            Start();
        }
        g_module.delay_ms = delay_ms;
        g_module.challenges = g_module.responses = g_module.released = 0;
        CRtspTestClient client(m_port);
        EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
        EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);  // free before and after
        EXPECT_EQ(0, g_module.challenges);
        RtspReply reply = client.Ask("OPTIONS", Url());
        EXPECT_EQ(401, reply.status);
        EXPECT_EQ(CHALLENGE, reply.Header("WWW-Authenticate"));
        EXPECT_EQ(std::to_string(client.LastCSeq()), reply.Header("CSeq"));
        EXPECT_EQ(Url(), g_module.url);
        EXPECT_EQ("127.0.0.1", g_module.peer);

        reply = client.Ask("DESCRIBE", Url());  // still without credentials: the same challenge, unasked
        EXPECT_EQ(401, reply.status);
        EXPECT_EQ(std::to_string(client.LastCSeq()), reply.Header("CSeq"));
        EXPECT_EQ(401, client.Ask("DESCRIBE", Url(), BAD).status);
        EXPECT_EQ(1, g_module.challenges);
        EXPECT_EQ(200, client.Ask("DESCRIBE", Url(), GOOD).status);
        EXPECT_EQ("Basic good", g_module.response);
        EXPECT_EQ(2, g_module.responses);
        EXPECT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);  // not examined any more
        EXPECT_EQ(2, g_module.responses);
        client.Close();
        EXPECT_TRUE(SessionsGone());
        EXPECT_EQ(1, g_module.released);
    }
}

TEST_F(Authentication, PipelinedRequestsWaitOnlyForAModuleThatAnswersAtOnce) {
    Start();
    CRtspTestClient client(m_port);
    client.Send(client.Request("DESCRIBE", Url(), GOOD) + client.Request("OPTIONS", Url()));
    EXPECT_EQ(200, client.Reply().status);
    EXPECT_EQ(200, client.Reply().status);

    g_module.delay_ms = 100;
    Support::CLogCapture log;
    CRtspTestClient hasty(m_port);
    hasty.Send(hasty.Request("DESCRIBE", Url(), GOOD) + hasty.Request("OPTIONS", Url()));
    EXPECT_TRUE(hasty.Closed());
    EXPECT_EQ(1, log.Count("auth check processing, new request arrive, state error, refused"));
    EXPECT_TRUE(SessionsGone(1));
}

TEST_F(Authentication, AnswersOfTheFirstContact) {
    Start();
    g_module.first = IAuthModule::AUTH_RESULT_OK;
    CRtspTestClient free_client(m_port);
    EXPECT_EQ(200, free_client.Ask("DESCRIBE", Url()).status);

    g_module.first = IAuthModule::AUTH_RESULT_DENIED;
    Support::CLogCapture log;
    CRtspTestClient denied(m_port);
    denied.Send(denied.Request("DESCRIBE", Url()));
    EXPECT_TRUE(denied.Closed());
    EXPECT_EQ(1, log.Count("challenge_result abnormal, kill this session,m_auth_state:12"));
}

TEST_F(Authentication, OnvifUrlsAreFreeUnlessTheHostSaysOtherwise) {
    const std::string onvif = std::string(LIVE_NAME) + "&proto=Onvif";
    Start();
    CRtspTestClient client(m_port);
    EXPECT_EQ(200, client.Ask("DESCRIBE", Url(onvif)).status);
    EXPECT_EQ(0, g_module.challenges);

    OnvifUserGlobalConfig global;
    global.enable = 1;
    Set(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, global);
    m_svr->SetConfig(m_config);
    CRtspTestClient checked(m_port);
    EXPECT_EQ(401, checked.Ask("DESCRIBE", Url(onvif)).status);
    EXPECT_EQ(200, checked.Ask("DESCRIBE", Url(onvif), GOOD).status);
    EXPECT_EQ("Basic good.OnvifInterDomain", g_module.response);
}

TEST_F(Authentication, AFactoryWithoutAModuleLeavesTheSessionFree) {
    Start(4);
    CRtspTestClient client(m_port);
    EXPECT_EQ(200, client.Ask("DESCRIBE", Url()).status);
}

TEST_F(Authentication, AConnectionThatGoesWhileTheModuleThinks) {
    Start();
    for (int i = 0; i < 10; ++i) {
        g_module.delay_ms = i % 2 == 0 ? 50 : -2;
        CRtspTestClient client(m_port);
        client.Send(client.Request("DESCRIBE", Url()));
        Support::WaitUntil([&] { return g_module.challenges > i; });
    }
    EXPECT_TRUE(SessionsGone());
    EXPECT_EQ(10, g_module.released);
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
