#include <map>

#include "Protocol/SdpParser.h"
#include "Vidora/Ostra/Console.h"
#include "server/ServerFixture.h"
#include "support/UdpPeer.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CUdpPeer;

// A source of one medium that the client would have to send.
class CListeningSource : public CDataSource {
public:
    int Init(long, int) override { return 0; }
    void AddNotify(long) override {}
    void DelNotify(long) override {}
    int Play(const UtcTime&, const UtcTime&, float, bool) override { return 0; }
    int Play(uint64_t, uint64_t, float, bool) override { return 0; }
    int Pause() override { return 0; }
    int StartStreaming(packet_type_t, CMediaBuffer*, int) override { return 0; }
    int StopStreaming(packet_type_t) override { return 0; }
    using CDataSource::GetSdp;
    int GetSdp(CSdpParser& sdp) override {
        return sdp.set_media_attribute(sdp.add_media("audio", 0, 1, "RTP/AVP", "8"), "sendonly", nullptr);
    }
    int GetSrcInfo(SrcInfo&, int) override { return 0; }
    int GetPlayRange(UtcTime&, UtcTime&) override { return 0; }
    int GetPlayRange(uint64_t&, uint64_t&) override { return 0; }
    int GetTcpChannel(int) override { return 0; }
    unsigned int GetSSRC(int) override { return 0; }
    int handle_close(CNetHandler*) override { return delete this, 0; }
};

class Conversation : public CServerTest {};

TEST_F(Conversation, InterleavedFromOptionsToASecondPlay) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);

    RtspReply reply = client.Ask("OPTIONS", "*");
    EXPECT_EQ(200, reply.status);
    EXPECT_EQ("OPTIONS,DESCRIBE,SETUP,PLAY,PAUSE,TEARDOWN,SET_PARAMETER,GET_PARAMETER", reply.Header("Public"));
    reply = client.Ask("DESCRIBE", Url(), "Accept: application/sdp\r\n");
    ASSERT_EQ(200, reply.status);
    EXPECT_EQ("application/sdp", reply.Header("Content-Type"));
    EXPECT_NE(std::string::npos, reply.body.find("a=rtpmap:96 H264/90000"));
    EXPECT_NE(std::string::npos, reply.body.find("a=control:trackID=0"));

    // The server decides the channels.
    reply = client.Ask("SETUP", Url() + "/trackID=0", "Transport: RTP/AVP/TCP;unicast;interleaved=6-7\r\n");
    ASSERT_EQ(200, reply.status);
    EXPECT_TRUE(reply.Holds("RTP/AVP/TCP;unicast;interleaved=0-1;ssrc="));
    EXPECT_TRUE(reply.Holds(";timeout=60"));
    reply = client.Ask("PLAY", Url(), "Range: npt=0.000-\r\n");
    ASSERT_EQ(200, reply.status);
    EXPECT_EQ(0u, reply.Header("RTP-Info").find("url=trackID=0;seq="));
    EXPECT_EQ("npt=0.000000-", reply.Header("Range"));

    ASSERT_TRUE(Give(source, 10, 3000));
    std::string bytes;
    for (int marker = 0; marker == 0;) {
        const RtspFrame frame = client.Frame();
        ASSERT_EQ(0, frame.channel);
        ASSERT_LT(12u, frame.data.size());
        marker = static_cast<uint8_t>(frame.data[1]) >> 7;
        bytes += frame.data.substr(12);
    }
    EXPECT_LT(3000u, bytes.size());

    // Requests in the middle of the stream.
    EXPECT_EQ(200, client.Ask("GET_PARAMETER", Url(), "Content-Type: text/parameters\r\n", "position\r\n").status);
    EXPECT_EQ(200, client.Ask("SET_PARAMETER", Url(), "", "a: b\r\n").status);
    EXPECT_EQ(455, client.Ask("PAUSE", Url()).status);  // a channel is shared,
    EXPECT_EQ(455, client.Ask("PAUSE", Url()).status);  // and the state stays
    reply = client.Ask("PLAY", Url());
    EXPECT_EQ(200, reply.status);
    EXPECT_FALSE(reply.Holds("RTP-Info"));  // nothing to change
    EXPECT_EQ("Rtsp Server/2.0", reply.Header("Server"));

    // The BYE comes before the reply. RFC 3550 6.4.1, 6.5, 6.6: a report, the source's name, and the end.
    client.Send(client.Request("TEARDOWN", Url()));
    const RtspFrame report = client.Frame();
    EXPECT_EQ(1, report.channel);
    EXPECT_EQ('\xc8', report.data[1]);
    EXPECT_NE(std::string::npos, report.data.find("End of Stream"));
    EXPECT_EQ(200, client.Reply().status);
    EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls("Stop") == 1; }));

    PlayInterleaved(client);
    ASSERT_TRUE(Give(source, 20));
    EXPECT_EQ(0, client.Frame().channel);
    client.Close();
    EXPECT_TRUE(SessionsGone());
    EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls("Stop") == 2; }));
}

TEST_F(Conversation, UdpSendsFromTheAnnouncedPorts) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);
    CUdpPeer rtp;
    const std::string ports = std::to_string(rtp.Port()) + "-" + std::to_string(rtp.Port() + 1);
    const std::string transport =
        Play(client, "Transport: RTP/AVP;unicast;client_port=" + ports + "\r\n").Header("Transport");
    EXPECT_EQ(0u, transport.find("RTP/AVP;unicast;client_port=" + ports + ";server_port="));
    const int server_port = atoi(transport.c_str() + transport.find("server_port=") + 12);
    ASSERT_TRUE(Give(source, 10, 3000));
    int from = 0;
    const std::string packet = rtp.Recv(5000, &from);
    ASSERT_LT(12u, packet.size());
    EXPECT_EQ('\x80', packet[0]);
    EXPECT_EQ(server_port, from);
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url()).status);
    while (!rtp.Recv(100).empty()) {
    }
    EXPECT_FALSE(GiveVideo(source, 11));
}

TEST_F(Conversation, SetupRefusesWhatItCantServe) {
    StartWithChannel();
    const struct {
        const char* track;
        const char* transport;
        int status;  // 0: no reply at all
    } rows[] = {
        {"/trackID=0", "RTP/AVP;unicast;client_port=0-1", 461},
        {"/trackID=0", "RTP/AVP;unicast;client_port=65535-65536", 461},
        {"/trackID=0", "RTP/AVP;unicast;client_port=99999-100000", 461},
        {"/trackID=0", "RTP/AVP;unicast", 461},
        {"/trackID=0", "RTP/AVP;multicast", 461},
        {"/trackID=0", "RTP/AVP/TCP;multicast", 461},
        {"/trackID=0", "RTP/AVP/TCP;multicast;interleaved=0-1", 461},
        {"/trackID=0", "RTP/AVP;multicast;destination=127.0.0.1;port=4000-4001;ttl=1", 461},
        {"/trackID=0", "RAW/XYZ", 0},
        {"/trackID=5", "RTP/AVP/TCP;unicast;interleaved=0-1", 0},
        {"", "RTP/AVP/TCP;unicast;interleaved=0-1", 0},
    };
    for (const auto& row : rows) {
        CRtspTestClient client(m_port);
        ASSERT_EQ(200, client.Ask("DESCRIBE", Url()).status);
        client.Send(client.Request("SETUP", Url() + row.track, "Transport: " + std::string(row.transport) + "\r\n"));
        if (row.status == 0) {
            EXPECT_TRUE(client.Silent(200)) << row.transport;
        } else {
            EXPECT_EQ(row.status, client.Reply().status) << row.transport;
        }
    }
}

TEST_F(Conversation, PlayWithoutAnyTrackThatWasSetUpIsRefusedAloud) {
    StartServer();
    m_source = new CListeningSource;
    ShareChannel(LIVE_NAME);
    CRtspTestClient client(m_port);
    ASSERT_EQ(200, client.Ask("DESCRIBE", Url()).status);
    EXPECT_EQ(503, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
    EXPECT_EQ(455, client.Ask("PLAY", Url()).status);
    EXPECT_EQ(455, client.Ask("PLAY", Url()).status);  // the state stays
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url() + "/trackID=0").status);
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
}

TEST_F(Conversation, ARefusedTransportLeavesTheOneThatWasSetUp) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);
    ASSERT_EQ(200, client.Ask("DESCRIBE", Url()).status);
    ASSERT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
    EXPECT_EQ(461, client.Ask("SETUP", Url() + "/trackID=0", "Transport: RTP/AVP;unicast;client_port=0-1\r\n").status);
    ASSERT_EQ(200, client.Ask("PLAY", Url()).status);
    ASSERT_TRUE(Give(source, 10));
    EXPECT_EQ(0, client.Frame().channel);
}

// The console's own words, as a host gets them.
std::atomic<int> g_delay_lines{0};

void count_delay_line(void*, const char* text, unsigned int) {
    g_delay_lines += strstr(text, "frame index[11]") != nullptr ? 1 : 0;
}

TEST_F(Conversation, TheConsoleShowsTheDelayOfFrames) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    g_delay_lines = 0;
    Ostra::R3SetOutput(&count_delay_line, nullptr);
    EXPECT_EQ(0, Ostra::R3Execute("rtspdelay 1"));
    ASSERT_TRUE(Give(source, 10) && Give(source, 11));
    EXPECT_TRUE(Support::WaitUntil([] { return g_delay_lines == 1; }));
    EXPECT_EQ(0, Ostra::R3Execute("rtspdelay 0"));
    Ostra::R3SetOutput(nullptr, nullptr);
}

TEST_F(Conversation, PrivateFramesTravelWithTheirOwnHeader) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);
    EXPECT_EQ(0u, Play(client, PRIVATE).Header("Transport").find("KX/AVP/TCP;"));
    ASSERT_TRUE(Give(source, 10, 500));
    // "$", channel, and four bytes of length, of which an interleaved reader takes the upper two for its own.
    const RtspFrame header = client.Frame();
    EXPECT_EQ(0, header.channel);
    EXPECT_EQ("", header.data);
}

TEST_F(Conversation, DataSourceAnswersLaterSeeksPausesAndEnds) {
    StartServer();
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    const std::string content = FILE_CONTENT;
    CRtspTestClient client(m_port);
    RtspReply reply = client.Ask("DESCRIBE", Url(content));
    ASSERT_EQ(200, reply.status);
    EXPECT_NE(std::string::npos, reply.body.find("a=range:npt=0-12.5"));
    ASSERT_EQ(200, client.Ask("SETUP", Url(content) + "/trackID=0", INTERLEAVED).status);
    reply = client.Ask("PLAY", Url(content), "Range: npt=3.000-9\r\nScale: 2.0\r\n");
    ASSERT_EQ(200, reply.status);
    EXPECT_EQ("npt=3.000000-9.000000", reply.Header("Range"));
    CFakeStreamSource* source = CFakeStreamSource::Last();
    ASSERT_NE(nullptr, source);
    EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls("Start") == 1; }));

    EXPECT_EQ(200, client.Ask("PAUSE", Url(content)).status);
    EXPECT_EQ(1, source->CountCalls("Pause"));
    EXPECT_EQ(200, client.Ask("PLAY", Url(content)).status);
    EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls("Resume") >= 1; }));
    EXPECT_EQ(200, client.Ask("PLAY", Url(content), "Range: npt=5-\r\n").status);  // a seek
    EXPECT_EQ(1, source->CountCalls("Seek 1600000005"));

    // PLAY and TEARDOWN in one write: the TEARDOWN has the last word.
    client.Send(client.Request("PLAY", Url(content)) + client.Request("TEARDOWN", Url(content)));
    EXPECT_EQ(200, client.Reply().status);
    EXPECT_EQ(200, client.Reply().status);
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);

    // The source's end closes the connection, without a message, behind the last picture: also of a client with little
    // room that goes on sending reports, which would tear down a connection that is closed with bytes on their way.
    CRtspTestClient other(m_port);
    const int room = 65536;
    setsockopt(other.Fd(), SOL_SOCKET, SO_RCVBUF, &room, sizeof(room));
    PlayInterleaved(other, content);
    Support::FrameSpec fields;
    fields.type = 'I';
    fields.payload = Support::H264Picture(true, 3000000, 1);
    ASSERT_TRUE(Support::WaitUntil([&] { return CFakeStreamSource::Last()->Give(Support::BuildFrame(fields)); }));
    CFakeStreamSource::Last()->Tell(MSG_SRC_END);
    size_t bytes = 0;
    for (RtspFrame frame = other.Frame(); frame.channel == 0; frame = other.Frame()) {
        bytes += frame.data.size();
        other.Send(std::string("$\1\0\4\x80\xc9\0\0", 8));
        usleep(100);
    }
    EXPECT_LT(3000000u, bytes);
    EXPECT_TRUE(other.Closed());
    client.Close();
    EXPECT_TRUE(SessionsGone());
    EXPECT_TRUE(Support::WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
}

TEST_F(Conversation, MulticastChannelIsOfferedAsSuch) {
    CFakeStreamSource* source = StartWithChannel();
    CSockAddrStorage group("239.1.2.3", 41000);
    ASSERT_TRUE(Support::WaitUntil([&] { return m_channels[0]->AddTransfDst(group, "127.0.0.1") == 0; }));
    ASSERT_EQ(0, m_channels[0]->SetUnicast(false));

    CRtspTestClient client(m_port);
    const RtspReply description = client.Ask("DESCRIBE", Url());
    ASSERT_EQ(200, description.status);
    EXPECT_NE(std::string::npos, description.body.find("m=video 41000 RTP/AVP 96"));
    for (const char* transport : {INTERLEAVED, "Transport: RTP/AVP/TCP;multicast\r\n"}) {
        EXPECT_EQ(461, client.Ask("SETUP", Url() + "/trackID=0", transport).status);
    }
    const RtspReply reply = client.Ask("SETUP", Url() + "/trackID=0", "Transport: RTP/AVP;multicast\r\n");
    ASSERT_EQ(200, reply.status);
    EXPECT_EQ(0u, reply.Header("Transport").find("RTP/AVP;multicast;destination=239.1.2.3;port=41000-41001;ttl=4"));
    ASSERT_EQ(200, client.Ask("PLAY", Url()).status);
    EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls("Start") == 1; }));

    // Another viewer that comes and goes, with and without a PLAY, doesn't stop the stream.
    for (int plays = 0; plays < 2; ++plays) {
        CRtspTestClient other(m_port);
        ASSERT_EQ(200, other.Ask("DESCRIBE", Url()).status);
        ASSERT_EQ(200, other.Ask("SETUP", Url() + "/trackID=0", "Transport: RTP/AVP;multicast\r\n").status);
        if (plays != 0) {
            ASSERT_EQ(200, other.Ask("PLAY", Url()).status);
            ASSERT_EQ(200, other.Ask("TEARDOWN", Url()).status);
        }
        other.Close();
        EXPECT_TRUE(SessionsGone(1));
    }
    // PLAY after a refused SETUP is answered, and its user is counted in and out like any other.
    CRtspTestClient refused(m_port);
    ASSERT_EQ(200, refused.Ask("DESCRIBE", Url()).status);
    ASSERT_EQ(461, refused.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
    EXPECT_EQ(200, refused.Ask("PLAY", Url()).status);
    EXPECT_EQ(200, refused.Ask("TEARDOWN", Url()).status);
    EXPECT_EQ(0, source->CountCalls("Stop"));
    client.Send(client.Request("SETUP", Url() + "/trackID=0",
                               "Transport: RTP/AVP;multicast;destination=239.1.2.3;port=4000-4001;ttl=4\r\n"));
    EXPECT_TRUE(client.Silent(200));  // a port other than the description's
    client.Close();
    EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls("Stop") == 1; }));
}

TEST_F(Conversation, DescribeWaitsForTheSdpWithoutHoldingOthers) {
    StartServer();
    CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
    settings.tells_info = false;
    CFakeStreamSource* source = AddChannel(LIVE_NAME, settings);
    AddChannel(ChannelName(2));
    const std::string ready = Url(ChannelName(2));
    std::vector<std::unique_ptr<CRtspTestClient>> waiting;
    for (int i = 0; i < 12; ++i) {  // more than the pool has threads
        waiting.push_back(std::make_unique<CRtspTestClient>(m_port));
        waiting.back()->Send(waiting.back()->Request("DESCRIBE", Url()));
    }
    const auto begin = std::chrono::steady_clock::now();
    const auto elapsed_ms = [&] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin).count();
    };
    CRtspTestClient other(m_port);
    EXPECT_EQ(200, other.Ask("DESCRIBE", ready).status);
    EXPECT_GT(1500, elapsed_ms());
    for (int i = 0; i < 6; ++i) {
        waiting[static_cast<size_t>(i)]->Close();  // gone before the answer
    }
    EXPECT_TRUE(waiting[6]->Silent(500));
    source->Tell(MSG_STREAM_INFO);
    for (size_t i = 6; i < waiting.size(); ++i) {
        EXPECT_EQ(200, waiting[i]->Reply().status);
    }
    EXPECT_EQ(200, waiting[7]->Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
}

TEST_F(Conversation, DescribeWithoutSdpOrSourceIsNotFound) {
    static const auto rewrite = [](const char* content, char* buffer, int size) -> char* {
        snprintf(buffer, static_cast<size_t>(size), "%s", LIVE_NAME);
        return strcmp(content, "alias.kav") == 0 ? buffer : nullptr;
    };
    char* (*const function)(const char*, char*, int) = rewrite;
    SetFunction(RTSP_SVR_CONFIG_URL_FUNC, function);
    StartWithChannel();
    CRtspTestClient alias(m_port);
    EXPECT_EQ(200, alias.Ask("DESCRIBE", Url("alias.kav")).status);

    CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
    settings.tells_info = false;
    AddChannel(ChannelName(3), settings);
    CRtspTestClient never(m_port);
    never.Send(never.Request("DESCRIBE", Url(ChannelName(3))));
    for (const char* content : {"nonsense", "", "other.kav"}) {
        settings.null_source = true;
        CFakeStreamSource::SetNext(settings);
        CRtspTestClient client(m_port);
        EXPECT_EQ(404, client.Ask("DESCRIBE", Url(content)).status) << content;
    }
    EXPECT_EQ(404, never.Reply().status);
}

// PLAY is overtaken by what comes with it, and the next one starts the media all the same.
TEST_F(Conversation, APauseInTheSameWriteAsThePlay) {
    StartServer();
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    const std::string url = Url(FILE_CONTENT);
    CRtspTestClient client(m_port);
    ASSERT_EQ(200, client.Ask("DESCRIBE", url).status);
    ASSERT_EQ(200, client.Ask("SETUP", url + "/trackID=0", INTERLEAVED).status);
    for (int round = 0; round < 2; ++round) {
        client.Send(client.Request("PLAY", url) + client.Request("PAUSE", url));
        EXPECT_EQ(200, client.Reply().status);
        EXPECT_EQ(200, client.Reply().status);
        EXPECT_EQ(200, client.Ask("PLAY", url).status);
        ASSERT_TRUE(Give(CFakeStreamSource::Last(), 10));
        EXPECT_EQ(0, client.Frame().channel);
        EXPECT_EQ(200, client.Ask("PAUSE", url).status);
    }
}

// A track that comes back counts anew: what its client didn't ask for is no loss.
TEST_F(Conversation, ATrackThatIsSetUpAgainHasLostNothing) {
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    unsigned int sequence = 10;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(Give(source, sequence++));
        }
        EXPECT_EQ(0, client.Frame().channel);
        ASSERT_EQ(200, client.Ask("TEARDOWN", Url() + "/trackID=0").status);
        for (int i = 0; i < 5; ++i) {
            ASSERT_TRUE(Give(source, sequence++));
        }
        ASSERT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", INTERLEAVED).status);
        ASSERT_EQ(200, client.Ask("PLAY", Url()).status);
    }
    client.Close();
    EXPECT_TRUE(SessionsGone());
    for (const std::string& event : CEventLog::All()) {
        EXPECT_NE(0u, event.find("lost")) << event;
    }
}

// The last SETUP of a track counts, and takes no room from the others.
TEST_F(Conversation, AUdpTrackThatIsSetUpTwice) {
    CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
    settings.has_audio = true;
    settings.audio.encode_type = STREAM_AUDIO_PCMA;
    settings.audio.sample_rate = 8000;
    StartServer();
    CFakeStreamSource* source = AddChannel(LIVE_NAME, settings);
    CRtspTestClient client(m_port);
    ASSERT_EQ(200, client.Ask("DESCRIBE", Url()).status);
    CUdpPeer first, last, audio;
    ASSERT_EQ(200, client.Ask("SETUP", Url() + "/trackID=0", UdpTransport(first.Port())).status);
    const RtspReply reply = client.Ask("SETUP", Url() + "/trackID=0", UdpTransport(last.Port()));
    ASSERT_EQ(200, reply.status);
    ASSERT_EQ(200, client.Ask("SETUP", Url() + "/trackID=1", UdpTransport(audio.Port())).status);
    ASSERT_EQ(200, client.Ask("PLAY", Url()).status);
    ASSERT_TRUE(Give(source, 10));
    int from = 0;
    EXPECT_LT(12u, last.Recv(5000, &from).size());
    const std::string transport = reply.Header("Transport");
    EXPECT_EQ(atoi(transport.c_str() + transport.find("server_port=") + 12), from);
    EXPECT_EQ("", first.Recv(50));
}

// RFC 2326 12.33: both numbers name one packet, also to a client that joins a stream.
TEST_F(Conversation, RtpInfoNamesOnePacket) {
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

// The channel that a client has stays its own, whatever is published under the name that it asked for.
TEST_F(Conversation, AClientEntersAndLeavesTheChannelThatItHas) {
    StartServer();
    CFakeStreamSource* source = AddChannel("cam/realmonitor");
    CRtspTestClient client(m_port);
    PlayInterleaved(client);
    CFakeStreamSource* other = AddChannel(LIVE_NAME);
    ASSERT_TRUE(Give(source, 10));
    EXPECT_EQ(0, client.Frame().channel);
    EXPECT_EQ(200, client.Ask("TEARDOWN", Url()).status);
    EXPECT_TRUE(Support::WaitUntil([&] { return source->CountCalls("Stop") == 1; }));
    EXPECT_EQ(0, other->CountCalls("Stop"));
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
