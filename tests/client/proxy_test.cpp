// An edge relays what an origin serves.

#include <gtest/gtest.h>

#include "Protocol/SdpParser.h"
#include "StreamSource/ProxyDescription.h"
#include "StreamSource/ProxyRelay.h"
#include "Tramel/Reactor.h"
#include "server/ServerFixture.h"
#include "support/ClientHost.h"
#include "support/ScriptedServer.h"
#include "support/StreamPeer.h"
#include "support/TestClock.h"

namespace Kavio::Vidora {
namespace {

// An edge server of its own registry, beside the fixture's origin.
class CEdge {
public:
    explicit CEdge(const CRtspSvrConfig& config) {
        m_live_svr = CLiveSvr::Create(0);
        m_port = CBoundSocket(SOCK_STREAM).Port();
        CSockAddrStorage addr("127.0.0.1", static_cast<unsigned short>(m_port));
        m_svr = CRtspSvr::Create(addr);
        m_svr->SetLiveSvr(m_live_svr);
        m_svr->SetConfig(config);
    }
    ~CEdge() {
        m_svr->Close();
        m_live_svr->Close();
    }
    std::string Url(int origin, const std::string& content = LIVE_NAME) const {
        return "rtsp://127.0.0.1:" + std::to_string(m_port) + "/" + content +
               "?proxy=127.0.0.1:" + std::to_string(origin);
    }
    int Port() const { return m_port; }

private:
    int m_port = 0;
    CLiveSvr* m_live_svr = nullptr;
    CRtspSvr* m_svr = nullptr;
};

class CProxyTest : public CServerTest {};

TEST_F(CProxyTest, TwoEdgesRelayOneOriginToTheirPlayers) {
    CFakeStreamSource* source = StartWithChannel();
    CEdge first(m_config);
    CEdge second(m_config);
    {
        CClientHost tcp;
        CClientHost udp;
        ASSERT_EQ(0, tcp.Start(first.Url(m_port)));
        ASSERT_EQ(0, udp.Start(second.Url(m_port), RTP_OVER_UDP));
        ASSERT_TRUE(tcp.WaitFor(MSG_RTSP_PLAY_READY));
        ASSERT_TRUE(udp.WaitFor(MSG_RTSP_PLAY_READY));
        unsigned int sequence = 0;
        EXPECT_TRUE(WaitUntil([&] {
            GiveVideo(source, sequence++, 3000);
            return tcp.sink.Count() > 20 && udp.sink.Count() > 20;
        }));
        EXPECT_EQ(0, tcp.Count(MSG_RTSP_TEARDOWN));
        // The player that leaves takes its source at the edge, and that one's session at the origin, along.
        tcp.Close();
        EXPECT_TRUE(WaitUntil([] { return CRtspSvr::GetSessionCount() <= 2; }));
        const size_t before = udp.sink.Count();
        EXPECT_TRUE(WaitUntil([&] {
            GiveVideo(source, sequence++, 3000);
            return udp.sink.Count() > before + 10;
        }));
    }
    EXPECT_TRUE(SessionsGone());
}

// The edge counts its client once, however often that rests.
TEST_F(CProxyTest, ARecordingIsSoughtBehindAPause) {
    StartServer();
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    CEdge edge(m_config);
    CRtspTestClient client(edge.Port());
    const std::string url = edge.Url(m_port, FILE_CONTENT);
    EXPECT_EQ(200, client.Ask("DESCRIBE", url).status);
    EXPECT_EQ(200, client.Ask("SETUP", url + "/trackID=0", INTERLEAVED).status);
    for (const char* method : {"PLAY", "PAUSE", "PLAY"}) {
        EXPECT_EQ(200, client.Ask(method, url).status) << method;
    }
    EXPECT_EQ(200, client.Ask("PLAY", url, "Range: npt=3-\r\n").status);
}

TEST_F(CProxyTest, AnOriginThatIsNotThereEndsTheRequest) {
    StartServer();
    CRtspTestClient client(m_port);
    const int nobody = CBoundSocket(SOCK_STREAM).Port();
    client.Send(client.Request("DESCRIBE", Url(std::string(LIVE_NAME) + "?proxy=127.0.0.1:" + std::to_string(nobody))));
    EXPECT_TRUE(client.Closed());
}

TEST_F(CProxyTest, ReportsStayTrueWhileTheOriginIsSilent) {
    Set(RTSP_SVR_CONFIG_CONFORMANCE, 1);
    StartServer();
    CEdge edge(m_config);
    CScriptedServer origin(CScriptedServer::Answer);
    CRtspTestClient client(edge.Port());
    for (const char* method : {"DESCRIBE", "SETUP", "PLAY"}) {
        const std::string track = method[0] == 'S' ? "/trackID=0" : "";
        EXPECT_EQ(200, client.Ask(method, edge.Url(origin.Port()) + track, INTERLEAVED).status);
    }
    unsigned int sequence = 0;
    bool has_media = false;  // the first packets may come before the client stands in the stream
    std::string times[3];    // and what is under way still moves the first report
    for (std::string& time : times) {
        EXPECT_TRUE(WaitUntil([&] {
            origin.SendAll(has_media ? "" : CScriptedServer::Rtp(++sequence));
            const RtspFrame frame = client.Frame(50);
            has_media = has_media || frame.channel == 0;
            time = frame.channel == 1 ? frame.data.substr(8, 12) : "";  // NTP and RTP
            return frame.channel == 1;
        }));
        AdvanceClock(5100);
    }
    EXPECT_EQ(times[1], times[2]);
}

// Its edge tells them in order, as the end of any source.
TEST_F(CProxyTest, AnOriginThatEndsOrGoesEndsTheStreamOfItsPlayers) {
    const std::string bye("$\x01\0\x10\x80\xc9\0\x01\0\0\0\x05\x81\xcb\0\x01\0\0\0\x05", 20);
    Set(RTSP_SVR_CONFIG_CONFORMANCE, 1);
    StartServer();
    CEdge edge(m_config);
    for (const bool says_bye : {true, false}) {
        auto origin = std::make_unique<CScriptedServer>(CScriptedServer::Answer);
        CClientHost player;
        player.session->SetConformance(true);
        ASSERT_TRUE(player.Plays(edge.Url(origin->Port())));
        unsigned int sequence = 0;
        EXPECT_TRUE(WaitUntil([&] {
            origin->SendAll(CScriptedServer::Rtp(++sequence));
            return player.sink.Count() > 3;
        }));
        says_bye ? origin->SendAll(bye) : origin.reset();
        EXPECT_EQ(RTSP_CLIENT_CODE_ENDED, player.EndCode());
    }
}

// A source that relays a server, and its holder, which counts the messages.
struct CHeldProxy {
    explicit CHeldProxy(const CScriptedServer& server)
        : source(CDataSource::Create(("movie?proxy=127.0.0.1:" + std::to_string(server.Port())).c_str())) {
        EXPECT_NE(nullptr, source);
        holder->on_message = [this](long, unsigned int msg, long) {
            messages.Add(msg);
            return msg == MSG_SRC_READY && on_ready ? (on_ready(), 0) : 0;
        };
    }
    int Init() { return source->Init(holder->GetID(), 0); }

    CDataSource* source;
    CTestHandler* holder = CTestHandler::Make();
    CGuardedList<unsigned int> messages;
    std::function<void()> on_ready;
};

// Closed at each step of its server, before or after the pool ends; the session's buffer goes right after the Close.
TEST(ProxyEnd, LeavesNothing) {
    const long handlers = Tramel::CReactor::Instance().CountHandlers();
    for (const std::string step : {"", "OPTIONS", "DESCRIBE", "SETUP", "PLAY", "-"}) {
        for (const bool stops_pool : {false, true}) {
            SCOPED_TRACE(step);
            std::atomic<bool> reached{step.empty()};
            CScriptedServer server([&](const ServerRequest& request) {
                reached = reached || request.method == step || (step == "-" && request.method == "PLAY");
                return request.method == step ? std::string()
                                              : CScriptedServer::Answer(request) +
                                                    (request.method == "PLAY" ? CScriptedServer::Rtp(1) : "");
            });
            auto pool = std::make_unique<CPool>(2);
            CHeldProxy held(server);
            CDataSource* const source = held.source;
            auto buffer = std::make_unique<CMediaBuffer>();
            EXPECT_EQ(0, held.Init());
            EXPECT_EQ(0, source->Play(~uint64_t{0}, ~uint64_t{0}, 1.0F, false));  // as a channel does, at once
            EXPECT_EQ(0, source->StartStreaming(PACKET_TYPE_RTP, buffer.get(), -1));
            EXPECT_EQ(-1, source->StartStreaming(PACKET_TYPE_TS, buffer.get(), -1));
            EXPECT_TRUE(WaitUntil([&] { return reached.load(); }));
            source->Close();
            buffer.reset();
            if (stops_pool) {
                pool.reset();
                EXPECT_EQ(handlers + 1, Tramel::CReactor::Instance().CountHandlers());
                pool = std::make_unique<CPool>(2);
            } else {
                EXPECT_TRUE(WaitUntil([&] { return held.messages.Count(MSG_SOURCE_CLOSED) == 1; }));
            }
            held.holder->Close();
            EXPECT_TRUE(WaitUntil([&] { return Tramel::CReactor::Instance().CountHandlers() == handlers; }));
        }
    }
}

// A Play that is taken back before the server is ready isn't made up for.
TEST(ProxySource, PlaysWhatIsAskedForAndTellsWhereEachTrackBegins) {
    const CPool pool;
    std::atomic<bool> taken_back{false};
    CScriptedServer server([&](const ServerRequest& request) {
        WaitUntil([&] { return taken_back.load(); });
        const std::string media =
            "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:1\r\n"
            "m=audio 0 RTP/AVP 8\r\na=control:11\r\n";
        return request.method == "DESCRIBE"
                   ? CScriptedServer::Reply(request, "200 OK", "Content-Type: application/sdp\r\n",
                                            CScriptedServer::Sdp(media))
               : request.method == "PLAY"
                   ? CScriptedServer::Reply(
                         request, "200 OK",
                         "RTP-Info: url=rtsp://h/1;seq=100;rtptime=5,url=rtsp://h/11;seq=200;rtptime=6\r\n")
                   : CScriptedServer::Answer(request);
    });
    CHeldProxy held(server);
    CDataSource* const source = held.source;
    held.on_ready = [source] { source->Play(5000000, ~uint64_t{0}, 1.0F, false); };
    source->Play(~uint64_t{0}, ~uint64_t{0}, 1.0F, false);  // nobody there yet
    EXPECT_EQ(0, held.Init());
    EXPECT_EQ(0, source->Play(~uint64_t{0}, ~uint64_t{0}, 1.0F, false));
    EXPECT_EQ(0, source->Pause());
    taken_back = true;
    EXPECT_TRUE(WaitUntil([&] { return held.messages.Count(MSG_PLAY_READY) == 1; }));
    EXPECT_EQ(1, server.Count("PLAY"));
    EXPECT_TRUE(server.Holds("npt=5.0"));
    for (const int track : {1, 2}) {
        SrcInfo info;
        EXPECT_EQ(0, source->GetSrcInfo(info, track));
        EXPECT_EQ(100 * track, info.seq);
    }
    source->Close();
    EXPECT_TRUE(WaitUntil([&] { return held.messages.Count(MSG_SOURCE_CLOSED) == 1; }));
    held.holder->Close();
}

TEST(ProxyDescription, HidesTheServerAndKeepsWhatDecodersNeed) {
    const std::string text =
        "v=0\r\no=- 1 1 IN IP4 10.0.0.9\r\ns=x\r\nc=IN IP4 239.1.1.1/16\r\nt=0 0\r\na=control:rtsp://10.0.0.9/x\r\n"
        "a=packetization-supported:KX\r\nm=video 5004 RTP/AVP 96\r\nc=IN IP4 "
        "239.1.1.2/16\r\na=control:rtsp://10.0.0.9/v\r\n"
        "a=rtpmap:96 H264/90000\r\na=x-odd:1\r\nm=text 0 RTP/AVP 98\r\na=control:t\r\nm=audio 5006 RTP/AVP 8\r\n"
        "a=control:a\r\n";
    const bool keeps[] = {true, false, true};
    CSdpParser sdp;
    ASSERT_EQ(0, sdp.Parse(ProxyDescription(text, keeps, 3, text.size()).c_str(), 0));
    EXPECT_EQ(2, sdp.get_media_count());
    EXPECT_STREQ("trackID=1", sdp.get_control(1));
    EXPECT_EQ(SDP_MEDIA_AUDIO, sdp.get_media_type_at(1));
    EXPECT_EQ(0, sdp.get_packet_kind());
    const std::string whole = sdp.get_stream();
    for (const char* secret : {"239.", "rtsp://", "5004", "text"}) {
        EXPECT_EQ(std::string::npos, whole.find(secret)) << secret;
    }
    const std::string lean = ProxyDescription(text, keeps, 3, whole.size() - 1);
    EXPECT_EQ(std::string::npos, lean.find("x-odd"));
    EXPECT_NE(std::string::npos, lean.find("a=rtpmap:96"));
    EXPECT_NE(std::string::npos, lean.find("m=audio"));
    const std::string shorter = ProxyDescription(text, keeps, 3, lean.size() - 1);
    EXPECT_NE(std::string::npos, shorter.find("a=rtpmap:96 H264/90000\r\n"));
    EXPECT_EQ(std::string::npos, shorter.find("m=audio"));
    EXPECT_EQ("", ProxyDescription(text, keeps, 3, 50));
}

TEST(ProxyRelay, HoldsWhatComesBeforeTheFirstBufferAndFeedsAllThen) {
    CCollectingSink sinks[2];
    CMediaBuffer buffers[2];
    CProxyRelay relay;
    buffers[0].AddLevel2Buffer(&sinks[0]);
    buffers[1].AddLevel2Buffer(&sinks[1]);
    const auto put = [&relay](size_t size) {
        CountedPacket packet(std::string(size, 'x'));
        relay.Put(&packet, static_cast<int>(size), 1, 1);
    };
    for (int i = 0; i < 40; ++i) {
        put(100000);  // twice what is held
    }
    EXPECT_EQ(0, relay.Add(&buffers[0]));
    EXPECT_EQ(20u, sinks[0].Count());
    EXPECT_EQ(0, relay.Add(&buffers[1]));
    EXPECT_EQ(0, relay.Add(&buffers[1]));
    put(10);
    EXPECT_EQ(21u, sinks[0].Count());
    EXPECT_EQ(1u, sinks[1].Count());
    relay.End(0);
    EXPECT_EQ(1, sinks[0].EndCount());
    relay.Cut(&buffers[0]);  // its client is still to leave
    put(10);
    EXPECT_EQ(21u, sinks[0].Count());
    EXPECT_EQ(2u, sinks[1].Count());
    EXPECT_EQ(0, relay.Add(&buffers[0]));
    EXPECT_EQ(3, relay.Remove(&buffers[0]));
    EXPECT_EQ(0, relay.Add(&buffers[1]));
    EXPECT_EQ(3, relay.Remove(nullptr));
    EXPECT_EQ(2, relay.Remove(nullptr));                   // of the last one
    sinks[0].on_put = [&] { relay.Remove(&buffers[0]); };  // from inside
    put(10);
    put(10);
    EXPECT_EQ(22u, sinks[0].Count());
    EXPECT_EQ(4u, sinks[1].Count());
    relay.Close();
    put(10);
    EXPECT_EQ(4u, sinks[1].Count());
    EXPECT_EQ(-1, relay.Add(&buffers[0]));
}

}  // namespace
}  // namespace Kavio::Vidora
