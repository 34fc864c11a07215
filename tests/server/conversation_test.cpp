// Conversations that are written down in conversations.txt: what clients say, and what they get.

#include <fstream>
#include <map>

#include "Vidora/Ostra/Console.h"
#include "server/ServerFixture.h"
#include "support/FakeDataSource.h"
#include "support/SampleTable.h"
#include "support/TestClock.h"
#include "support/UdpPeer.h"

namespace Kavio {
namespace Vidora {
namespace {

struct Script {
    std::string name;
    std::vector<std::string> lines;
};

std::vector<Script> read_scripts() {
    std::vector<Script> scripts;
    std::ifstream file(VIDORA_TEST_DATA "/conversations.txt");
    for (std::string line; std::getline(file, line);) {
        if (line[0] == '[') {
            scripts.push_back({line.substr(1, line.size() - 2), {}});
        } else if (!line.empty() && line[0] != '#') {
            scripts.back().lines.push_back(line);
        }
    }
    return scripts;
}

// "\r", "\n" and "\xHH" of a script as bytes.
std::string unescaped(const std::string& text) {
    std::string bytes;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            bytes += text[i];
        } else if (text[++i] == 'x') {
            bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            bytes += text[i] == 'r' ? '\r' : '\n';
        }
    }
    return bytes;
}

// What stands in front of the first blank, and behind it.
std::pair<std::string, std::string> split_word(const std::string& text) {
    const size_t blank = std::min(text.find(' '), text.size());
    return {text.substr(0, blank), text.substr(std::min(blank + 1, text.size()))};
}

class Conversation : public CServerTest, public testing::WithParamInterface<Script> {
protected:
    // What is behind the name of a step: all of it, and if it begins with a number, that and what follows.
    struct Words {
        explicit Words(const std::string& text)
            : all(text), number(atoi(text.c_str())), rest(split_word(text).second) {}
        std::string all;
        int number;
        std::string rest;
    };
    // One client, and what it has yet to send.
    struct Client {
        explicit Client(int port) : rtsp(port) {}
        CRtspTestClient rtsp;
        Support::CUdpPeer rtp;
        std::string unsent;
    };

    Client& Speaker() {
        std::unique_ptr<Client>& client = m_clients[m_name];
        if (client == nullptr) {
            client = std::make_unique<Client>(m_port);
        }
        return *client;
    }
    CRtspTestClient& Flushed() {
        Client& client = Speaker();
        client.rtsp.Send(client.unsent);
        client.unsent.clear();
        return client.rtsp;
    }
    std::string UrlOf(const std::string& word) const {
        return word == "*" ? word : Url(word[0] == '/' ? m_content + word : word == "." ? m_content : word);
    }
    std::string HeadersOf(const std::string& text) {
        std::string headers;
        for (const std::string& header : Support::SplitText(text, '|')) {
            headers += header == "tcp"   ? INTERLEAVED
                       : header == "kx"  ? PRIVATE
                       : header == "udp" ? UdpTransport(Speaker().rtp.Port())
                       : header.empty()  ? ""
                                         : header + "\r\n";
        }
        return headers;
    }
    void Request(const std::string& words) {
        const auto [method, more] = split_word(words);
        const auto [place, headers] = split_word(more);
        Speaker().unsent += Speaker().rtsp.Request(method, UrlOf(place), HeadersOf(headers));
    }
    void ExpectReply(const Words& words) {
        const RtspReply reply = Flushed().Reply();
        EXPECT_EQ(words.number, reply.status);
        for (const std::string& text : Support::SplitText(words.rest, '|')) {
            const bool wanted = text[0] != '!';
            const size_t place = (reply.head + reply.body).find(text.substr(wanted ? 0 : 1));
            EXPECT_EQ(wanted, place != std::string::npos) << text << " in " << reply.head << reply.body;
        }
    }
    void ExpectFrame(const Words& words) {
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
    void ExpectCalls(const Words& words) {
        CFakeStreamSource* source = m_content == FILE_CONTENT ? CFakeStreamSource::Last() : m_fake;
        EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls(words.rest) == words.number; }));
    }
    void AddListener() {
        auto* source = new Support::CFakeDataSource;
        source->sdp = "v=0\r\nm=audio 0 RTP/AVP 8\r\na=control:trackID=0\r\na=sendonly\r\n";
        m_source = source;
        ShareChannel(LIVE_NAME);
    }
    void SetGroup() {
        CSockAddrStorage group("239.1.2.3", 41000);
        ASSERT_TRUE(Support::WaitUntil([&] { return m_channels[0]->AddTransfDst(group, "127.0.0.1") == 0; }));
        ASSERT_EQ(0, m_channels[0]->SetUnicast(false));
    }
    void Run(const std::string& line);

    std::string m_content = LIVE_NAME;
    std::string m_name;  // of the client that speaks
    std::map<std::string, std::unique_ptr<Client>> m_clients;
    CFakeStreamSource* m_fake = nullptr;  // of the last channel
    CLogCapture m_log;
};

void Conversation::Run(const std::string& line) {
    typedef Conversation& C;
    typedef const Words& W;
    using Support::WaitUntil;
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
        {"no-source",
         [](C, W) {
             CFakeStreamSource::Settings none;
             none.null_source = true;
             CFakeStreamSource::SetNext(none);
         }},
        {"file", [](C, W) { CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo()); }},
        {"give", [](C c, W w) { EXPECT_TRUE(Give(c.m_fake, static_cast<unsigned int>(w.number), 3000)); }},
        {"give-file", [](C, W) { EXPECT_TRUE(Give(CFakeStreamSource::Last(), 10)); }},
        {"format", [](C c, W w) { c.Change(w.number); }},
        {"clock", [](C, W w) { Support::AdvanceClock(static_cast<uint64_t>(w.number)); }},
        {"calls", [](C c, W w) { c.ExpectCalls(w); }},
        {"events", [](C, W w) { EXPECT_TRUE(WaitUntil([&] { return CEventLog::Count(w.rest) == w.number; })); }},
        {"log", [](C c, W w) { EXPECT_TRUE(WaitUntil([&] { return c.m_log.Count(w.rest) == w.number; })) << w.all; }},
        {"left", [](C, W w) { EXPECT_TRUE(SessionsGone(static_cast<unsigned int>(w.number))); }},
        {"expire",
         [](C, W) {
             EXPECT_TRUE(WaitUntil([] {
                 Support::AdvanceClock(61000);
                 return CRtspSvr::GetSessionCount() == 0;
             }));
         }},
        // The clients'.
        {"client", [](C c, W w) { c.m_name = w.all; }},
        {"content", [](C c, W w) { c.m_content = w.all; }},
        {">", [](C c, W w) { c.Request(w.all); }},
        {"raw", [](C c, W w) { c.Speaker().unsent += unescaped(w.all); }},
        {"fill", [](C c, W w) { c.Speaker().unsent.append(static_cast<size_t>(w.number), 'x'); }},
        {"send", [](C c, W) { c.Flushed(); }},
        {"wait", [](C, W w) { usleep(static_cast<useconds_t>(w.number) * 1000); }},
        {"<", [](C c, W w) { c.ExpectReply(w); }},
        {"frame", [](C c, W w) { c.ExpectFrame(w); }},
        {"silent", [](C c, W w) { EXPECT_TRUE(c.Flushed().Silent(w.number)); }},
        {"closed", [](C c, W) { EXPECT_TRUE(c.Flushed().Closed()); }},
        {"close", [](C c, W) { c.m_clients.erase(c.m_name); }},
        {"play", [](C c, W w) { c.Play(c.Flushed(), c.HeadersOf(w.all), c.m_content); }},
    };
    SCOPED_TRACE(m_name + ": " + line);
    const auto [step, words] = split_word(line);
    ASSERT_EQ(1u, steps.count(step));
    steps.at(step)(*this, Words(words));
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

INSTANTIATE_TEST_SUITE_P(Script, Conversation, testing::ValuesIn(read_scripts()),
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
    EXPECT_TRUE(Support::WaitUntil([] { return g_delay_lines == 1; }));
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

TEST_F(ConversationTest, DescribeWaitsForTheSdpWithoutHoldingOthers) {
    StartServer();
    CFakeStreamSource* source = AddUnreadyChannel(LIVE_NAME);
    AddChannel(ChannelName(2));
    std::vector<std::unique_ptr<CRtspTestClient>> waiting;
    for (int i = 0; i < 12; ++i) {  // more than the pool has threads
        waiting.push_back(std::make_unique<CRtspTestClient>(m_port));
        waiting.back()->Send(waiting.back()->Request("DESCRIBE", Url()));
    }
    CRtspTestClient other(m_port);
    EXPECT_EQ(200, other.Ask("DESCRIBE", Url(ChannelName(2))).status);
    for (size_t i = 0; i < 6; ++i) {
        waiting[i]->Close();  // gone before the answer
    }
    EXPECT_TRUE(waiting[6]->Silent(50));
    source->Tell(MSG_STREAM_INFO);
    for (size_t i = 6; i < waiting.size(); ++i) {
        EXPECT_EQ(200, waiting[i]->Reply().status);
    }
    EXPECT_EQ(200, waiting[7]->Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
}

// Media leave by the port that SETUP announces. The last SETUP of a track counts, and takes no room from the others.
TEST_F(ConversationTest, AUdpTrackThatIsSetUpTwice) {
    StartServer();
    CFakeStreamSource* source = AddChannel(LIVE_NAME, SoundAndPictures());
    CRtspTestClient client(m_port);
    ASSERT_EQ(200, client.Ask("DESCRIBE", Url()).status);
    Support::CUdpPeer first, last, audio;
    ASSERT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", UdpTransport(first.Port())).status);
    const RtspReply reply = client.Ask("SETUP", Url() + "/trackID=0", UdpTransport(last.Port()));
    EXPECT_TRUE(reply.Holds("RTP/AVP;unicast;client_port=" + std::to_string(last.Port()) + "-"));
    ASSERT_EQ(200, client.Ask("SETUP", Url() + "/trackID=1", UdpTransport(audio.Port())).status);
    ASSERT_EQ(200, client.Ask("PLAY", Url()).status);
    ASSERT_TRUE(Give(source, 10));
    int from = 0;
    const std::string packet = last.Recv(20000, &from);
    ASSERT_LT(12u, packet.size());
    EXPECT_EQ('\x80', packet[0]);
    EXPECT_EQ(ServerPort(reply), from);
    EXPECT_EQ("", first.Recv(20));
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url()).status);
    EXPECT_TRUE(Support::WaitUntil([&] { return !GiveVideo(source, 11); }));
}

// RFC 2326 12.33: both numbers name one packet, also to a client that joins a stream.
TEST_F(ConversationTest, RtpInfoNamesOnePacket) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient viewer(m_port);
    std::map<unsigned int, unsigned int> timestamps;  // by sequence number
    const auto play = [&](CRtspTestClient& client) {
        EXPECT_EQ(200, client.Ask("DESCRIBE", Url()).status);
        EXPECT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
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
}  // namespace Vidora
}  // namespace Kavio
