// Peers and hosts that misbehave, beside a client that plays: whatever they do ends their own connection at most, and
// the one that plays gets every packet in its order.

#include <cstring>

#include "server/ServerFixture.h"
#include "support/TestClock.h"

namespace Kavio::Vidora {
namespace {

// A client that plays a channel, with the threads that feed its source and read what comes.
class CBystander {
public:
    CBystander(std::unique_ptr<CRtspTestClient> client, CFakeStreamSource* source)
        : m_client(std::move(client)), m_source(source), m_reader([this] { read(); }) {}
    ~CBystander() { Stop(); }

    // Waits until `count` more frames have come.
    bool ReceivesMore(int count) {
        const int wanted = m_received + count;
        return WaitUntil([&] { return m_received >= wanted; });
    }
    // Ends the feeding and waits for what was given.
    void Stop() {
        m_pump.reset();
        if (m_reader.joinable()) {
            EXPECT_TRUE(WaitUntil([&] { return m_received >= m_given; })) << m_received << " of " << m_given;
            m_client->Send("OPTIONS * RTSP/1.0\r\nCSeq: 99\r\n\r\n");
            m_done = true;
            m_reader.join();
            EXPECT_EQ(0, m_faults);
            EXPECT_EQ(m_given, m_received);
        }
    }

private:
    void read() {
        int last = -1;
        while (!m_done) {
            const RtspFrame frame = m_client->Frame(100);
            if (frame.channel != 0) {
                m_faults += frame.channel < 0 || frame.channel == 1 ? 0 : 1;  // nothing yet, or a report
                continue;
            }
            const int sequence = static_cast<uint8_t>(frame.data[2]) << 8 | static_cast<uint8_t>(frame.data[3]);
            m_faults += last >= 0 && sequence != ((last + 1) & 0xffff) ? 1 : 0;
            last = sequence;
            m_received += static_cast<uint8_t>(frame.data[1]) >> 7;  // RFC 6184 5.1: the last packet of a picture
        }
    }

    std::unique_ptr<CRtspTestClient> m_client;
    CFakeStreamSource* m_source;
    std::atomic<bool> m_done{false};
    std::atomic<int> m_given{0}, m_received{0}, m_faults{0};
    std::thread m_reader;
    std::unique_ptr<CFramePump> m_pump = std::make_unique<CFramePump>(
        3, [this](unsigned int sequence) { m_given += GiveVideo(m_source, sequence, 3000) ? 1 : 0; });
};

class Hostile : public CServerTest {
protected:
    void Begin() {
        CFakeStreamSource* source = StartWithChannel();
        auto client = std::make_unique<CRtspTestClient>(m_port);
        PlayInterleaved(*client);
        m_bystander = std::make_unique<CBystander>(std::move(client), source);
        ASSERT_TRUE(m_bystander->ReceivesMore(1));
    }
    void TearDown() override { m_bystander.reset(); }

    std::unique_ptr<CBystander> m_bystander;
};

TEST_F(Hostile, FloodsAreBounded) {
    Begin();
    CLogCapture log(Ostra::LOG_LEVEL_WARN);
    // Requests without end, whose replies nobody reads.
    CRtspTestClient flooding(m_port);
    ASSERT_EQ(200, flooding.Ask("OPTIONS", "*").status);
    const timeval limit = {20, 0};
    setsockopt(flooding.Fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    std::string requests;
    for (int i = 0; i < 1000; ++i) {
        requests += OPTIONS_TEXT;
    }
    int rounds = 0;
    while (rounds < 1000 && flooding.Send(requests)) {
        ++rounds;
    }
    EXPECT_LT(rounds, 1000);
    EXPECT_TRUE(SessionsGone(1));

    // A head without an end, and a frame that the buffer can't hold.
    for (const std::string& start : {std::string("OPTIONS * RTSP/1.0\r\nX: "), std::string("$\1\xff\xff", 4)}) {
        CRtspTestClient endless(m_port);
        ASSERT_EQ(200, endless.Ask("OPTIONS", "*").status);
        endless.Send(start + std::string(6000, 'x'));
        EXPECT_TRUE(endless.Closed());
    }

    // Connections without a word, and with a byte now and then.
    std::vector<std::unique_ptr<CRtspTestClient>> silent;
    for (int i = 0; i < 200; ++i) {
        silent.push_back(std::make_unique<CRtspTestClient>(m_port));
        ASSERT_TRUE(silent.back()->Connected());
        if (i % 2 == 0) {
            silent.back()->Send("DESCRIBE ");
        }
    }
    CRtspTestClient other(m_port);
    EXPECT_EQ(200, other.Ask("DESCRIBE", Url()).status);
    silent.clear();

    // Thousands that come and go at once.
    for (int i = 0; i < 1000; ++i) {
        CRtspTestClient brief(m_port);
        brief.Send(i % 3 == 0 ? OPTIONS_TEXT : "");
    }
    EXPECT_EQ(200, other.Ask("OPTIONS", "*").status);
    EXPECT_TRUE(SessionsGone(2));
    EXPECT_TRUE(m_bystander->ReceivesMore(10));
}

TEST_F(Hostile, HostFunctionsThatBlockHoldTheirOwnSession) {
    static std::atomic<bool> hold{false};  // for calls that outlive the test
    static std::atomic<int> held_calls{0};
    const auto wait_in = [](const std::string& content, const std::string& name) {
        if (content.find("held-" + name) != std::string::npos && hold) {
            ++held_calls;
            WaitUntil([] { return !hold; });
        }
    };
    HookHost([=](const std::string& name, const std::string& content) { wait_in(content, name); });
    UseAuthModule(7);
    CFakeAuthModule::All().first = IAuthModule::AUTH_RESULT_OK;
    CFakeAuthModule::All().on_call = [=](const std::string&, const std::string& text) { wait_in(text, "module"); };
    Begin();
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    const char* contents[] = {"held-url.kav", "held-source.kav", "held-module.kav"};  // the pool has one thread more
    for (const bool leaves : {false, true}) {
        held_calls = 0;
        hold = true;
        std::vector<std::unique_ptr<CRtspTestClient>> held;
        for (const char* content : contents) {
            held.push_back(std::make_unique<CRtspTestClient>(m_port));
            held.back()->Send(held.back()->Request("DESCRIBE", Url(content)));
        }
        ASSERT_TRUE(WaitUntil([] { return held_calls == 3; }));
        CRtspTestClient other(m_port);
        EXPECT_EQ(200, other.Ask("DESCRIBE", Url()).status);
        EXPECT_TRUE(m_bystander->ReceivesMore(20));
        if (leaves) {
            held.clear();
        }
        hold = false;
        for (const auto& client : held) {
            EXPECT_EQ(200, client->Reply().status);
        }
    }
    EXPECT_TRUE(SessionsGone(1));
}

// A host may delete the channel, or close all that it has, inside any of its callbacks.
TEST_F(Hostile, CallbacksInWhichTheHostClosesEverything) {
    // One of them does something, once; also calls that outlive the test ask for it.
    static std::mutex mutex;
    static std::string act_in;
    static std::function<void()> act;
    static std::atomic<bool> acted{false};
    const auto on_call = [](const std::string& name, const std::string&) {
        std::function<void()> action;
        {
            const std::lock_guard<std::mutex> guard(mutex);
            if (act && act_in == name) {
                action.swap(act);
            }
        }
        if (action) {
            action();
            acted = true;
        }
    };
    UseAuthModule(7);
    CFakeAuthModule::All().first = IAuthModule::AUTH_RESULT_OK;
    CFakeAuthModule::All().on_call = on_call;
    HookHost(on_call);
    const std::function<void()> actions[] = {
        [this] { m_live_svr->DelLiveChannel(LIVE_NAME); },
        [this] {
            m_svr->Close();
            m_live_svr->Close();
        },
        [this] {
            m_live_svr->Close();
            m_svr->Close();
        },
    };
    for (const char* place :
         {"factory", "connected", "challenge", "response", "url", "source", "lost", "disconnected", "release"}) {
        for (size_t i = 0; i < sizeof(actions) / sizeof(actions[0]); ++i) {
            SCOPED_TRACE(std::string(place) + " " + std::to_string(i));
            CFakeStreamSource* source = StartWithChannel();
            CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
            acted = false;
            {
                const std::lock_guard<std::mutex> guard(mutex);
                act_in = place;
                act = actions[i];
            }
            CRtspTestClient client(m_port);
            const std::string url = Url(strcmp(place, "source") == 0 ? FILE_CONTENT : LIVE_NAME);
            client.Ask("DESCRIBE", url, strcmp(place, "response") == 0 ? "Authorization: Basic good\r\n" : "");
            client.Ask("SETUP", url + "/trackID=0", INTERLEAVED);
            client.Ask("PLAY", url);
            if (!acted) {
                for (const unsigned int sequence : {10u, 11u, 20u}) {
                    EXPECT_TRUE(Give(source, sequence));
                }
                EXPECT_TRUE(strcmp(place, "lost") != 0 || WaitUntil([] { return acted.load(); }));
            }
            client.Close();
            EXPECT_TRUE(WaitUntil([] { return acted.load(); }));
            EXPECT_TRUE(SessionsGone());
            if (i == 0) {
                m_svr->Close();
                m_live_svr->Close();
            }
            m_svr = nullptr;
            m_live_svr = CLiveSvr::Create(0);
            m_channels.clear();
        }
    }
}

}  // namespace
}  // namespace Kavio::Vidora
