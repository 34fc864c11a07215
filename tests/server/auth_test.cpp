#include "server/ServerFixture.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CFakeAuthModule;

const char GOOD[] = "Authorization: Basic good\r\n";
const char BAD[] = "Authorization: Basic bad\r\n";

class Authentication : public CServerTest {
protected:
    void Start(rtsp_auth_t kind = 3) {
        UseAuthModule(kind);
        StartWithChannel();
    }

    CFakeAuthModule::Common& m_module = CFakeAuthModule::All();
};

TEST_F(Authentication, ChallengeRefusalAndPassage) {
    Start();
    for (const CFakeAuthModule::answer_t answer : {CFakeAuthModule::AT_ONCE, CFakeAuthModule::LATER}) {
        m_module.Reset();
        m_module.answer = answer;
        CRtspTestClient client(m_port);
        EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
        EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);  // free before and after
        EXPECT_EQ(0, m_module.Count("challenge"));
        RtspReply reply = client.Ask("OPTIONS", Url());
        EXPECT_EQ(401, reply.status);
        EXPECT_EQ("Basic realm=\"test\"", reply.Header("WWW-Authenticate"));
        EXPECT_EQ(std::to_string(client.LastCSeq()), reply.Header("CSeq"));
        EXPECT_EQ(Url() + " 127.0.0.1", m_module.LastText());

        reply = client.Ask("DESCRIBE", Url());  // still without credentials: the same challenge, unasked
        EXPECT_EQ(401, reply.status);
        EXPECT_EQ(std::to_string(client.LastCSeq()), reply.Header("CSeq"));
        EXPECT_EQ(401, client.Ask("DESCRIBE", Url(), BAD).status);
        EXPECT_EQ(1, m_module.Count("challenge"));
        EXPECT_EQ(200, client.Ask("DESCRIBE", Url(), GOOD).status);
        EXPECT_EQ("Basic good", m_module.LastText());
        EXPECT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);  // not examined any more
        EXPECT_EQ(2, m_module.Count("response"));
        client.Close();
        EXPECT_TRUE(SessionsGone());
        EXPECT_EQ(1, m_module.Count("release"));
    }
}

TEST_F(Authentication, TheModuleHearsOfEachRequestRightBeforeItsQuestion) {
    Start();
    std::mutex mutex;
    std::string calls;
    m_module.on_call = [&](const std::string& call, const std::string& text) {
        const std::lock_guard<std::mutex> guard(mutex);
        calls += call == "request" ? text + ", " : call + "\n";
    };
    CRtspTestClient client(m_port);
    const std::string track = Url() + "/trackID=0";
    EXPECT_EQ(401, client.Ask("OPTIONS", Url()).status);
    EXPECT_EQ(401, client.Ask("DESCRIBE", Url()).status);  // is told the same challenge, unasked
    EXPECT_EQ(401, client.Ask("SETUP", track, BAD).status);
    EXPECT_EQ(200, client.Ask("DESCRIBE", Url(), GOOD).status);
    client.Close();
    EXPECT_TRUE(SessionsGone());
    m_module.Reset();
    EXPECT_EQ("factory\nOPTIONS " + Url() + ", challenge\nSETUP " + track + ", response\nDESCRIBE " + Url() +
                  ", response\nrelease\n",
              calls);
}

TEST_F(Authentication, PipelinedRequestsWaitOnlyForAModuleThatAnswersAtOnce) {
    Start();
    CRtspTestClient client(m_port);
    client.Send(client.Request("DESCRIBE", Url(), GOOD) + client.Request("OPTIONS", Url()));
    EXPECT_EQ(200, client.Reply().status);
    EXPECT_EQ(200, client.Reply().status);

    m_module.answer = CFakeAuthModule::LATER;
    m_module.delay_ms = 100;
    CLogCapture log;
    CRtspTestClient hasty(m_port);
    hasty.Send(hasty.Request("DESCRIBE", Url(), GOOD) + hasty.Request("OPTIONS", Url()));
    EXPECT_TRUE(hasty.Closed());
    EXPECT_EQ(1, log.Count("auth check processing, new request arrive, state error, refused"));
    EXPECT_TRUE(SessionsGone(1));
}

TEST_F(Authentication, AnswersOfTheFirstContact) {
    Start();
    m_module.first = IAuthModule::AUTH_RESULT_OK;
    CRtspTestClient free_client(m_port);
    EXPECT_EQ(200, free_client.Ask("DESCRIBE", Url()).status);

    m_module.first = IAuthModule::AUTH_RESULT_DENIED;
    CLogCapture log;
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
    EXPECT_EQ(0, m_module.Count("challenge"));

    OnvifUserGlobalConfig global;
    global.enable = 1;
    Set(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, global);
    m_svr->SetConfig(m_config);
    CRtspTestClient checked(m_port);
    EXPECT_EQ(401, checked.Ask("DESCRIBE", Url(onvif)).status);
    EXPECT_EQ(200, checked.Ask("DESCRIBE", Url(onvif), GOOD).status);
    EXPECT_EQ("Basic good.OnvifInterDomain", m_module.LastText());
}

TEST_F(Authentication, AFactoryWithoutAModuleLeavesTheSessionFree) {
    Start(4);
    CRtspTestClient client(m_port);
    EXPECT_EQ(200, client.Ask("DESCRIBE", Url()).status);
}

TEST_F(Authentication, AConnectionThatGoesWhileTheModuleThinks) {
    Start();
    m_module.delay_ms = 50;
    for (int i = 0; i < 10; ++i) {
        m_module.answer = i % 2 == 0 ? CFakeAuthModule::LATER : CFakeAuthModule::INSIDE_RELEASE;
        CRtspTestClient client(m_port);
        client.Send(client.Request("DESCRIBE", Url()));
        Support::WaitUntil([&] { return m_module.Count("challenge") > i; });
    }
    EXPECT_TRUE(SessionsGone());
    EXPECT_EQ(10, m_module.Count("release"));
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
