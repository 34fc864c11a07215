// Conversations that are written down in conversations.txt: what clients say, and what they get.

#include <map>

#include "Vidora/Ostra/Base64.h"
#include "Vidora/Ostra/Console.h"
#include "server/ServerFixture.h"
#include "support/FakeDataSource.h"
#include "support/SampleTable.h"
#include "support/TestClock.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {
namespace {

std::string encoded(const std::string& text) {
    std::string out(static_cast<size_t>(Ostra::base64EncodeLen(static_cast<int>(text.size()))), '\0');
    Ostra::base64Encode(&out[0], text.data(), static_cast<int>(text.size()));
    out.pop_back();
    return out;
}

// What may be wrong with a recording, by the words of the step "file".
const std::map<std::string, void (*)(CFakeStreamSource::Settings&)> FAULTS = {
    {"", [](auto&) {}},
    {"that is none", [](auto& source) { source.null_source = true; }},
    {"that doesn't begin", [](auto& source) { source.init_fails = true; }},
    {"that tells no format", [](auto& source) { source.tells_info = false; }},
    {"without tracks", [](auto& source) { source.has_video = false; }},
    {"of no kind", [](auto& source) { source.type = SRC_TYPE_NONE; }},
    {"that can't seek", [](auto& source) { source.seek_fails = true; }},
    {"that ends before it seeks and rests", [](auto& source) { source.ends_in_calls = true; }},
    {"with few key frames", [](auto& source) { source.key_sec = 4; }},
    {"that doesn't start", [](auto& source) { source.start_fails = true; }},
    {"with an empty range", [](auto& source) { source.end = source.begin - 10; }},
};
const std::map<std::string, unsigned int> MESSAGES = {
    {"fails", MSG_SRC_FAIL},     {"fails late", MSG_STREAM_FAIL}, {"ends", MSG_SRC_END},
    {"format", MSG_STREAM_INFO}, {"what it may not", 0x7777},     {"ready", MSG_SRC_READY},
    {"plays", MSG_PLAY_READY},   {"paused", MSG_SRC_PAUSED},      {"begin", 0x1f01}};
const std::map<std::string, CFakeAuthModule::answer_t> ANSWERS = {{"at-once", CFakeAuthModule::AT_ONCE},
                                                                  {"later", CFakeAuthModule::LATER},
                                                                  {"inside-release", CFakeAuthModule::INSIDE_RELEASE}};

class Conversation : public CServerTest, public testing::WithParamInterface<Script> {
protected:
    // One client, and what it has yet to send: in a tunnel, by the last of its POSTs.
    struct Client {
        Client(int port, const std::string& from) : rtsp(port, from.empty() ? nullptr : from.c_str()) {}
        CRtspTestClient rtsp;
        CUdpPeer rtp;
        std::string unsent;
        std::string cookie;
        std::vector<std::unique_ptr<CRtspTestClient>> posts;
    };

    Client& Speaker() {
        std::unique_ptr<Client>& client = m_clients[m_name];
        if (client == nullptr) {
            client = std::make_unique<Client>(m_port, m_from);
        }
        return *client;
    }
    CRtspTestClient& Flushed() {
        Client& client = Speaker();
        CRtspTestClient& way = client.posts.empty() ? client.rtsp : *client.posts.back();
        for (size_t at = 0; at < client.unsent.size(); at += m_piece) {
            way.Send(client.unsent.substr(at, m_piece));
            usleep(m_piece < client.unsent.size() ? 500 : 0);  // so that the server mostly reads each by itself
        }
        client.unsent.clear();
        return client.rtsp;
    }
    void Say(const std::string& bytes) { Speaker().unsent += Speaker().posts.empty() ? bytes : encoded(bytes); }
    void Post(const std::string& headers) {
        Client& client = Speaker();
        client.posts.push_back(std::make_unique<CRtspTestClient>(m_port));
        client.posts.back()->Send("POST / HTTP/1.0\r\nx-sessioncookie: " + client.cookie + "\r\n" + HeadersOf(headers) +
                                  "\r\n");
    }
    void OpenTunnel(const std::string& cookie) {
        Speaker().cookie = cookie;
        Speaker().rtsp.Send("GET / HTTP/1.0\r\nx-sessioncookie: " + cookie + "\r\n\r\n");
        EXPECT_EQ("application/x-rtsp-tunnelled", Speaker().rtsp.Reply().Header("Content-Type"));
        Post("");
    }
    // Returns when the server has seen it.
    void EndPost() {
        const char line[] = "m_post_stream Recv -1";
        const int before = m_log.Count(line);
        Flushed();
        Speaker().posts.back()->Close();
        EXPECT_TRUE(WaitUntil([&] { return m_log.Count(line) == before + 1; }));
    }
    std::string UrlOf(const std::string& word) const {
        return word == "*" ? word : Url(word[0] == '/' ? m_content + word : word == "." ? m_content : word);
    }
    std::string HeadersOf(const std::string& text) {
        std::string headers;
        for (const std::string& header : SplitText(text, '|')) {
            headers += header == "tcp"   ? INTERLEAVED
                       : header == "kx"  ? PRIVATE
                       : header == "udp" ? UdpTransport(Speaker().rtp.Port())
                       : header.empty()  ? ""
                                         : header + "\r\n";
        }
        return headers;
    }
    void Request(const std::string& words) {
        const auto [method, more] = SplitWord(words);
        const auto [place, headers] = SplitWord(more);
        Say(Speaker().rtsp.Request(method, UrlOf(place), HeadersOf(headers)));
    }
    void Play(const std::string& headers) {
        for (const std::string& request :
             {std::string("DESCRIBE ."), "SETUP /trackID=0 " + headers, std::string("PLAY .")}) {
            Request(request);
            ExpectReply(ScriptWords("200"));
        }
    }
    void ExpectReply(const ScriptWords& words) {
        const RtspReply reply = Flushed().Reply();
        EXPECT_EQ(words.number, reply.status);
        for (const std::string& text : SplitText(words.rest, '|')) {
            const bool wanted = text[0] != '!';
            const size_t place = (reply.head + reply.body).find(text.substr(wanted ? 0 : 1));
            EXPECT_EQ(wanted, place != std::string::npos) << text << " in " << reply.head << reply.body;
        }
    }
    void ExpectFrame(const ScriptWords& words) {
        RtspFrame frame = Flushed().Frame();
        while (frame.channel >= 0 && frame.channel != words.number) {
            frame = Speaker().rtsp.Frame();
        }
        EXPECT_EQ(words.number, frame.channel);
        EXPECT_NE(std::string::npos, frame.data.find(words.rest));
    }
    void Change(int width) {
        StreamVideoFormat format = CFakeStreamSource::LiveVideo().video;
        format.width = width;
        m_fake->SetVideo(format);
        m_fake->Tell(MSG_STREAM_INFO);
    }
    void ExpectCalls(const ScriptWords& words) {
        CFakeStreamSource* source = m_content == FILE_CONTENT ? CFakeStreamSource::Last() : m_fake;
        EXPECT_TRUE(WaitUntil([&] { return source->CountCalls(words.rest) == words.number; }));
    }
    void UseModule(rtsp_auth_t kind, rtsp_svr_config_t item) {
        UseAuthModule(kind, item);
        m_svr->SetConfig(m_config);
    }
    // What the authentication modules were asked since the last such step, in which "." stands for the content's URL.
    void ExpectQuestions(const ScriptWords& words) {
        std::string questions;
        for (const std::string& call : CFakeAuthModule::All().TakeCalls()) {
            questions += (questions.empty() ? "" : " | ") + call;
        }
        EXPECT_EQ(words.all, Replaced(questions, Url(m_content), "."));
    }
    static CFakeStreamSource::Settings Faulty(CFakeStreamSource::Settings settings, const std::string& fault) {
        FAULTS.at(fault)(settings);
        return settings;
    }
    void AddListener() {
        auto* source = new CFakeDataSource;
        source->sdp = "v=0\r\nm=audio 0 RTP/AVP 8\r\na=control:trackID=0\r\na=sendonly\r\n";
        m_source = source;
        ShareChannel(LIVE_NAME);
    }
    void SetGroup() {
        CSockAddrStorage group("239.1.2.3", 41000);
        ASSERT_TRUE(WaitUntil([&] { return m_channels[0]->AddTransfDst(group, "127.0.0.1") == 0; }));
        ASSERT_EQ(0, m_channels[0]->SetUnicast(false));
    }
    void Run(const std::string& line);

    std::string m_content = LIVE_NAME;
    std::string m_name;  // of the client that speaks
    std::string m_from;  // the address of those who come, any if empty
    size_t m_piece = SIZE_MAX;
    std::map<std::string, std::unique_ptr<Client>> m_clients;
    CFakeStreamSource* m_fake = nullptr;  // of the last channel
    CLogCapture m_log;
};

void Conversation::Run(const std::string& line) {
    typedef Conversation& C;
    typedef const ScriptWords& W;
    static const std::map<std::string, void (*)(C, W)> steps = {
        // The server's side.
        {"channel", [](C c, W w) { c.m_fake = c.AddChannel(w.all.empty() ? LIVE_NAME : w.all); }},
        {"delete", [](C c, W w) { EXPECT_EQ(0, c.m_live_svr->DelLiveChannel(w.all.c_str())); }},
        {"group", [](C c, W) { c.SetGroup(); }},
        {"listener", [](C c, W) { c.AddListener(); }},
        {"sound", [](C c, W) { c.m_fake = c.AddChannel(LIVE_NAME, SoundAndPictures()); }},
        {"conformance",
         [](C c, W) {
             c.Set(RTSP_SVR_CONFIG_CONFORMANCE, 1);
             c.m_svr->SetConfig(c.m_config);
         }},
        {"faulty", [](C c, W w) { c.m_fake = c.AddChannel(LIVE_NAME, Faulty(CFakeStreamSource::LiveVideo(), w.all)); }},
        {"file", [](C, W w) { CFakeStreamSource::SetNext(Faulty(CFakeStreamSource::FileVideo(), w.all)); }},
        {"sources", [](C, W w) { EXPECT_TRUE(WaitUntil([&] { return CFakeStreamSource::LiveCount() == w.number; })); }},
        {"tell", [](C c, W w) { c.m_fake->Tell(MESSAGES.at(w.all)); }},
        {"tell-file", [](C, W w) { CFakeStreamSource::Last()->Tell(MESSAGES.at(w.all)); }},
        {"auth", [](C c, W w) { c.UseModule(w.number, RTSP_SVR_CONFIG_AUTH_TYPE); }},
        {"auth-http", [](C c, W w) { c.UseModule(w.number, RTSP_SVR_CONFIG_HTTP_AUTH_TYPE); }},
        {"auth-onvif",
         [](C c, W) {
             c.Set(RTSP_SVR_CONFIG_ONVIF_USER_GLOBAL, OnvifUserGlobalConfig{1});
             c.m_svr->SetConfig(c.m_config);
         }},
        {"first", [](C, W w) { CFakeAuthModule::All().first = static_cast<IAuthModule::auth_result_t>(w.number); }},
        {"answers",
         [](C, W w) {
             const auto [when, delay_ms] = SplitWord(w.all);
             CFakeAuthModule::All().delay_ms = atoi(delay_ms.c_str());
             CFakeAuthModule::All().answer = ANSWERS.at(when);
         }},
        {"asked",
         [](C, W w) { EXPECT_TRUE(WaitUntil([&] { return CFakeAuthModule::All().Count(w.rest) == w.number; })); }},
        {"questions", [](C c, W w) { c.ExpectQuestions(w); }},
        {"end-sessions", [](C c, W) { EXPECT_EQ(0u, c.m_svr->EndSessions(20000)); }},
        {"stop", [](C c, W) { c.m_svr->Stop(); }},
        {"close-server", [](C c, W) { std::exchange(c.m_svr, nullptr)->Close(); }},
        {"give", [](C c, W w) { EXPECT_TRUE(Give(c.m_fake, static_cast<unsigned int>(w.number), 3000)); }},
        {"give-file", [](C, W) { EXPECT_TRUE(Give(CFakeStreamSource::Last(), 10)); }},
        {"format", [](C c, W w) { c.Change(w.number); }},
        {"clock", [](C, W w) { AdvanceClock(static_cast<uint64_t>(w.number)); }},
        {"calls", [](C c, W w) { c.ExpectCalls(w); }},
        {"events", [](C, W w) { EXPECT_TRUE(WaitUntil([&] { return CEventLog::Count(w.rest) == w.number; })); }},
        {"log", [](C c, W w) { EXPECT_TRUE(WaitUntil([&] { return c.m_log.Count(w.rest) == w.number; })) << w.all; }},
        {"left", [](C, W w) { EXPECT_TRUE(SessionsGone(static_cast<unsigned int>(w.number))); }},
        {"expire",
         [](C, W) {
             EXPECT_TRUE(WaitUntil([] {
                 AdvanceClock(61000);
                 return CRtspSvr::GetSessionCount() == 0;
             }));
         }},
        // The clients'.
        {"client", [](C c, W w) { c.m_name = w.all; }},
        {"content", [](C c, W w) { c.m_content = w.all; }},
        {">", [](C c, W w) { c.Request(w.all); }},
        {"from", [](C c, W w) { c.m_from = w.all; }},
        {"raw", [](C c, W w) { c.Say(Unescaped(w.all)); }},
        {"fill", [](C c, W w) { c.Say(std::string(static_cast<size_t>(w.number), 'x')); }},
        {"piece", [](C c, W w) { c.m_piece = static_cast<size_t>(w.number); }},
        {"tunnel", [](C c, W w) { c.OpenTunnel(w.all); }},
        {"post", [](C c, W w) { c.Post(w.all); }},
        {"encoded", [](C c, W w) { c.Speaker().unsent += Unescaped(w.all); }},
        {"end-post", [](C c, W) { c.EndPost(); }},
        {"replaced", [](C c, W) { EXPECT_TRUE(c.Speaker().posts.end()[-2]->Closed()); }},
        {"send", [](C c, W) { c.Flushed(); }},
        {"wait", [](C, W w) { usleep(static_cast<useconds_t>(w.number) * 1000); }},
        {"<", [](C c, W w) { c.ExpectReply(w); }},
        {"late", [](C c, W w) { EXPECT_EQ(w.number, LateReply(c.Flushed()).status); }},
        {"frame", [](C c, W w) { c.ExpectFrame(w); }},
        {"datagram", [](C c, W) { EXPECT_NE("", c.Speaker().rtp.Recv(20000)); }},
        {"silent", [](C c, W w) { EXPECT_TRUE(c.Flushed().Silent(w.number)); }},
        {"closed", [](C c, W) { EXPECT_TRUE(c.Flushed().Closed()); }},
        {"close", [](C c, W) { c.m_clients.erase(c.m_name); }},
        {"play", [](C c, W w) { c.Play(w.all); }},
    };
    SCOPED_TRACE(m_name + ": " + line);
    const auto [step, words] = SplitWord(line);
    ASSERT_EQ(1u, steps.count(step));
    steps.at(step)(*this, ScriptWords(words));
}

TEST_P(Conversation, RunsAsWritten) {
    char* (*const rewrite)(const char*, char*, int) = [](const char* content, char* buffer, int size) {
        snprintf(buffer, static_cast<size_t>(size), "%s", LIVE_NAME);
        return strcmp(content, "alias.kav") == 0 ? buffer : nullptr;
    };
    SetFunction(RTSP_SVR_CONFIG_URL_FUNC, rewrite);
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    Set(RTSP_SVR_CONFIG_TIMEOUT, GetParam().name == "TimeOutOfZeroMeansNone" ? 0 : 60);
    StartServer();
    for (const std::string& line : GetParam().lines) {
        Run(line);
    }
}

INSTANTIATE_TEST_SUITE_P(Script, Conversation, testing::ValuesIn(ReadScripts(VIDORA_TEST_DATA "/conversations.txt")),
                         [](const auto& info) { return info.param.name; });

class ConversationTest : public CServerTest {};

// The console's own words, as a host gets them.
std::atomic<int> g_delay_lines{0};

TEST_F(ConversationTest, TheConsoleShowsTheDelayOfFrames) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    g_delay_lines = 0;
    Ostra::R3SetOutput([](void*, const char* text,
                          unsigned int) { g_delay_lines += strstr(text, "frame index[11]") != nullptr ? 1 : 0; },
                       nullptr);
    EXPECT_EQ(0, Ostra::R3Execute("rtspdelay 1"));
    ASSERT_TRUE(Give(source, 10) && Give(source, 11));
    EXPECT_TRUE(WaitUntil([] { return g_delay_lines == 1; }));
    EXPECT_EQ(0, Ostra::R3Execute("rtspdelay 0"));
    Ostra::R3SetOutput(nullptr, nullptr);
}

// The source's end closes the connection, without a message, behind the last picture: also of a client with little room
// that goes on sending reports, which would tear down a connection that is closed with bytes on their way.
TEST_F(ConversationTest, TheLastPictureComesWhole) {
    StartServer();
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    CRtspTestClient client(m_port);
    const int room = 65536;
    setsockopt(client.Fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
    PlayInterleaved(client, FILE_CONTENT);
    ASSERT_TRUE(Give(CFakeStreamSource::Last(), 10, 3000000));
    CFakeStreamSource::Last()->Tell(MSG_SRC_END);
    size_t bytes = 0;
    for (RtspFrame frame = client.Frame(); frame.channel == 0; frame = client.Frame()) {
        bytes += frame.data.size();
        client.Send(std::string("$\1\0\4\x80\xc9\0\0", 8));
        usleep(100);
    }
    EXPECT_LT(3000000u, bytes);
    EXPECT_TRUE(client.Closed());
}

// The channel that it has left ends while its next DESCRIBE is served, and that one's tells the description that it has
// had: neither is of any concern to the session.
TEST_F(ConversationTest, ASessionThatDescribesAnewHearsNothingOfWhatItHasLeft) {
    const std::string left = ChannelName(2);
    HookHost([&](const std::string& name, const std::string& content) {
        EXPECT_TRUE(name != "url" || content == left || m_live_svr->DelLiveChannel(left.c_str()) == 0);
    });
    CFakeStreamSource* source = StartWithChannel();
    AddChannel(left);
    CRtspTestClient client(m_port);
    PlayInterleaved(client, left);
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url(left)).status);
    EXPECT_EQ(1, client.Frame().channel);  // its BYE
    EXPECT_EQ(200, client.Ask("DESCRIBE", Url()).status);
    m_channels[0]->handle_message(0, MSG_SDP_UPDATE, 0);
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
    }
    EXPECT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
    EXPECT_EQ(200, client.Ask("PLAY", Url()).status);
    EXPECT_TRUE(Give(source, 10));
    EXPECT_EQ(0, client.Frame().channel);
}

// RFC 2326 12.33: both numbers name one packet, also to a client that joins a stream.
TEST_F(ConversationTest, RtpInfoNamesOnePacket) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient viewer(m_port);
    std::map<unsigned int, unsigned int> timestamps;  // by sequence number
    const auto play = [&](CRtspTestClient& client) {
        Prepare(client, INTERLEAVED);
        return client.Ask("PLAY", Url()).Header("RTP-Info");
    };
    const auto read_frame = [&] {
        for (unsigned int marker = 0; marker == 0;) {
            const RtspFrame frame = viewer.Frame();
            ASSERT_LT(12u, frame.data.size());
            const auto byte = [&](size_t i) { return static_cast<unsigned int>(static_cast<uint8_t>(frame.data[i])); };
            timestamps[byte(2) << 8 | byte(3)] = byte(4) << 24 | byte(5) << 16 | byte(6) << 8 | byte(7);
            marker = byte(1) >> 7;
        }
    };
    std::vector<std::string> infos = {play(viewer)};
    for (unsigned int sequence = 10; sequence < 14; ++sequence) {
        ASSERT_TRUE(Give(source, sequence, 5000));
        read_frame();
        if (sequence == 12) {
            CRtspTestClient joining(m_port);
            infos.push_back(play(joining));
        }
    }
    for (const std::string& info : infos) {
        unsigned int seq = 0;
        unsigned int rtptime = 0;
        ASSERT_EQ(2, sscanf(info.c_str(), "url=trackID=0;seq=%u;rtptime=%u", &seq, &rtptime)) << info;
        ASSERT_EQ(1u, timestamps.count(seq)) << info;
        EXPECT_EQ(timestamps[seq], rtptime) << info;
    }
}

}  // namespace
}  // namespace Kavio::Vidora
