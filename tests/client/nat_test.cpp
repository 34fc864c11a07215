// A client through NATs, against a server that says what the test tells it, on a network that loses, repeats and
// forges.

#include <gtest/gtest.h>

#include <future>
#include <set>

#include "RtspClient/ClientTypes.h"
#include "Vidora/SdpInfo.h"
#include "Vidora/StreamClientWrapper.h"
#include "server/NatViewer.h"
#include "server/ServerFixture.h"
#include "support/NatPeer.h"

namespace Kavio::Vidora {
namespace {

const char PICTURE_LOST_END[] = "\x80\x60\0\x01\0\0\x10\0\0\0\0\x05\x65\x88\x80\x10";  // without its marker
const size_t PACKET_SIZE = 16;

// Changes what the pool's threads read, and so has to live longer.
struct CFastTiming {
    explicit CFastTiming(int tick_us) {
        ClientTiming().tick_us = tick_us;
        ClientTiming().nat_connect_ticks = 1000;
    }
    ~CFastTiming() { ClientTiming() = usual; }
    const client_timing usual = ClientTiming();
};

class CNatTest : public testing::Test {
protected:
    static bool IsOpen(int fd) { return ::fcntl(fd, F_GETFD) >= 0; }

    const CFastTiming m_timing{20000};
    CPool m_pool{2};
};

TEST_F(CNatTest, MediaComesAsRunsAndWhatIsNoMediaIsDropped) {
    CNatPeer peer(&CScriptedServer::Answer);
    CNatHost host;
    ASSERT_EQ(0, host.Start(peer.Url()));
    host.session->handle_message(0, MSG_SOURCE_CLOSED, 0);  // not of its engine, which lives
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    ASSERT_EQ(1u, peer.Requests("SETUP").size());
    EXPECT_NE(std::string::npos, peer.Requests("SETUP")[0].text.find("RTP/AVP/TCP;unicast;interleaved=0-1"));
    CSdpInfo* sdp = host.session->GetSdpInfo();
    ASSERT_NE(nullptr, sdp);
    EXPECT_STREQ("H264", sdp->GetPayloadNameEx('V'));

    std::string foreign = CNatPeer::Rtp(1);
    foreign[1] = static_cast<char>(0x80 | 97);
    for (const std::string& datagram :
         {std::string(Vidora::NAT_SERVER_HELLO), std::string(), std::string("\x80\xe0", 2), foreign, std::string("R"),
          std::string(65000, 'R')}) {
        peer.Send(datagram);
    }
    peer.Send(std::string(PICTURE_LOST_END, PACKET_SIZE));
    peer.Send(CNatPeer::Rtp(4));
    ASSERT_TRUE(WaitUntil([&] { return host.sink.Count() == 2; }));
    const std::vector<std::string> packets = host.sink.Packets();
    EXPECT_EQ(std::string("$\0\0\x10", 4) + std::string(PICTURE_LOST_END, PACKET_SIZE), packets[0]);
    EXPECT_EQ(CScriptedServer::Rtp(4), packets[1]);
    const RtspClientStatistics statistics = host.Statistics();
    EXPECT_EQ(2u, statistics.packets);
    EXPECT_EQ(2u, statistics.lost);
    EXPECT_EQ(2u, host.Statistics().lost);
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
    host.Close();
    EXPECT_TRUE(WaitUntil([&] { return peer.Requests("TEARDOWN").size() == 1; }));
    EXPECT_TRUE(WaitUntil([&] { return !IsOpen(host.sock); }));
}

// The first time that a hello, a request or a reply is on its way.
TEST_F(CNatTest, EachDatagramMayGetLost) {
    std::set<std::string> seen;
    CNatPeer peer(&CScriptedServer::Answer, [&seen](const std::string& datagram, bool) {
        return datagram[0] != '\x80' && seen.insert(datagram).second;
    });
    CNatHost host;
    ASSERT_TRUE(host.Plays(peer.Url()));
    peer.Send(CNatPeer::Rtp(1));
    ASSERT_TRUE(WaitUntil([&] { return host.sink.Count() > 0; }));
    for (const char* method : {"OPTIONS", "DESCRIBE", "SETUP", "PLAY"}) {
        const std::vector<ServerRequest> requests = peer.Requests(method);
        ASSERT_GE(requests.size(), 2u) << method;
        EXPECT_EQ(requests[0].text, requests[1].text);
    }
    // And the way is kept open.
    const int hellos = peer.Hellos();
    EXPECT_TRUE(WaitUntil([&] { return peer.Hellos() > hellos + 1; }));
}

TEST_F(CNatTest, RequestsLeaveOneByOne) {
    std::atomic<bool> answers{false};
    CNatPeer peer([&answers](const ServerRequest& request) {
        const bool is_silent = request.method == "PAUSE" && !answers;
        return is_silent ? std::string() : CScriptedServer::Answer(request);
    });
    CNatHost host;
    ASSERT_TRUE(host.Plays(peer.Url()));
    host.session->Pause();
    host.session->Play(0.0F, 0.0F, 1.0F, false);
    ASSERT_TRUE(WaitUntil([&] { return peer.Requests("PAUSE").size() > 2; }));
    EXPECT_EQ(1u, peer.Requests("PLAY").size());
    answers = true;
    EXPECT_TRUE(WaitUntil([&] { return host.Count(MSG_RTSP_PLAY_READY) == 2; }));
    EXPECT_EQ(1, host.Count(MSG_RTSP_PAUSE_READY));
}

// Not with a tick, of which there is none here.
TEST_F(CNatTest, TheNextRequestLeavesWithTheReplyToTheOneBefore) {
    ClientTiming().tick_us = 3600000000;
    std::promise<void> go_on;
    CNatPeer peer([&go_on](const ServerRequest& request) {
        if (request.method == "PAUSE") {
            go_on.get_future().wait();
        }
        return CScriptedServer::Answer(request);
    });
    CNatHost host;
    ASSERT_TRUE(host.Plays(peer.Url()));
    host.session->Pause();
    host.session->Play(0.0F, 0.0F, 1.0F, false);
    EXPECT_TRUE(WaitUntil([&] { return peer.Requests("PAUSE").size() == 1; }));
    go_on.set_value();
    EXPECT_TRUE(WaitUntil([&] { return host.Count(MSG_RTSP_PLAY_READY) == 2; }));
}

// As of a host that calls it with each frame.
TEST_F(CNatTest, OfPlaysThatOvertakeTheServerTheLastCounts) {
    std::atomic<bool> answers{true};
    CNatPeer peer([&answers](const ServerRequest& request) {
        const bool is_silent = request.method == "PLAY" && !answers;
        return is_silent ? std::string() : CScriptedServer::Answer(request);
    });
    CNatHost host;
    ASSERT_TRUE(host.Plays(peer.Url()));
    answers = false;
    for (int i = 1; i <= 200; ++i) {
        EXPECT_EQ(0, host.session->Play(static_cast<float>(i), 0.0F, 1.0F, false));
    }
    ASSERT_TRUE(WaitUntil([&] { return peer.Requests("PLAY").size() > 1; }));
    answers = true;
    EXPECT_TRUE(WaitUntil([&] { return peer.Requests("PLAY").back().text.find("npt=200") != std::string::npos; }));
    // What the server says again and again is logged once a second.
    const Support::CLogCapture log;
    const int repeats = 40;
    for (int i = 0; i < repeats; ++i) {
        peer.Send("RTSP/1.0 200 OK\r\nCSeq: 9999\r\n\r\n");
    }
    host.session->Pause();
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PAUSE_READY));
    EXPECT_GT(log.Count("reply without request"), 0);
    EXPECT_LT(log.Count("reply without request"), repeats / 2);
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
}

TEST_F(CNatTest, StrangersAreNotHeard) {
    std::atomic<bool> hears{false};
    CNatPeer peer(&CScriptedServer::Answer, [&hears](const std::string&, bool) { return !hears; });
    CUdpPeer other_host(0, "127.0.0.2"), other_port;
    CNatHost host;
    ASSERT_EQ(0, host.Start(peer.Url()));
    const int port = host.port;
    other_host.Send(NAT_SERVER_HELLO, port);
    other_host.Send("RTSP garbage that would end it", port);
    other_port.Send("VRP/1 DONE 0123456789abcdef", port);  // of the rendezvous
    hears = true;
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    for (CUdpPeer* stranger : {&other_host, &other_port}) {
        stranger->Send("RTSP garbage that would end it", port);
        stranger->Send(CNatPeer::Rtp(1), port);
        stranger->Send(NAT_SERVER_HELLO, port);
    }
    peer.Send(CNatPeer::Rtp(7));
    ASSERT_TRUE(WaitUntil([&] { return host.sink.Count() > 0; }));
    EXPECT_EQ(CScriptedServer::Rtp(7), host.sink.Packets()[0]);
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
}

// A NAT may have given the server another port than the one that the rendezvous saw.
TEST_F(CNatTest, TheFirstHelloTellsThePort) {
    CNatPeer silent(&CScriptedServer::Answer, [](const std::string&, bool) { return true; });
    CNatPeer real(&CScriptedServer::Answer);
    CNatHost host;
    ASSERT_EQ(0, host.Start(silent.Url()));
    real.SendTo(std::string(NAT_SERVER_HELLO), host.port);
    EXPECT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    EXPECT_EQ(0u, silent.Requests("OPTIONS").size());
}

// It tells IPv4 senders in their mapped form.
TEST_F(CNatTest, ADualStackSocketServesAsWell) {
    CNatPeer peer(&CScriptedServer::Answer);
    CNatHost host;
    CSockDgram sock;
    const CSockAddrStorage any("::", 0);
    if (sock.Open(&any) != 0) {
        GTEST_SKIP() << "no IPv6 here";
    }
    ASSERT_EQ(0, host.StartBy(peer.Url(), ::dup(sock.GetHandle())));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    peer.Send(CNatPeer::Rtp(1));
    EXPECT_TRUE(WaitUntil([&] { return host.sink.Count() > 0; }));
}

TEST_F(CNatTest, SilenceEndsTheSession) {
    const struct {
        std::string method;  // that gets no answer any more; "-": hellos
        bool goes;           // the server's socket is closed as well
        rtsp_client_code_t code;
        rtsp_client_failure_t failure;
    } rows[] = {{"-", false, RTSP_CLIENT_CODE_CONNECTION, RTSP_CLIENT_FAILURE_TIMEOUT},
                {"DESCRIBE", false, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_NO_REPLY},
                {"SETUP", true, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_NO_REPLY},
                {"none", false, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_IDLE}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.method);
        const bool is_deaf = row.method == "-";
        ClientTiming().nat_connect_ticks = is_deaf ? 5 : 1000;
        ClientTiming().reply_ms = row.failure == RTSP_CLIENT_FAILURE_NO_REPLY ? 500 : 20000;
        std::atomic<int> hellos{0};
        CNatPeer peer(
            [&row](const ServerRequest& request) {
                const std::string silence = row.goes ? CScriptedServer::CLOSE : "";
                return request.method == row.method ? silence : CScriptedServer::Answer(request);
            },
            [&](const std::string&, bool from_client) {
                hellos += from_client ? 1 : 0;
                return is_deaf;
            });
        CNatHost host;
        host.session->SetStreamIdleTimeout(1000);
        ASSERT_EQ(0, host.Start(peer.Url()));
        EXPECT_EQ(row.code, host.EndCode());
        EXPECT_EQ(row.failure, host.session->GetFailure());
        EXPECT_EQ(1, host.Count(MSG_RTSP_TEARDOWN));
        EXPECT_GE(hellos, is_deaf ? 2 : 1);
    }
}

// By a host that keeps a duplicate: before the server was heard, and while it plays.
TEST_F(CNatTest, ASocketThatIsShutDownEndsTheSession) {
    for (const bool is_heard : {false, true}) {
        CNatPeer peer(&CScriptedServer::Answer, [is_heard](const std::string&, bool) { return !is_heard; });
        CNatHost host;
        ASSERT_EQ(0, host.Start(peer.Url()));
        EXPECT_TRUE(!is_heard || host.WaitFor(MSG_RTSP_PLAY_READY));
        const int sock = ::dup(host.sock);
        ::shutdown(sock, SHUT_RD);  // which tells of a socket that isn't connected, and works
        EXPECT_EQ(RTSP_CLIENT_CODE_CONNECTION, host.EndCode());
        EXPECT_EQ(RTSP_CLIENT_FAILURE_LOST, host.session->GetFailure());
        ::close(sock);
    }
}

TEST_F(CNatTest, GarbageOfTheServerEndsTheSession) {
    for (const char* garbage : {"RTSP garbage, no reply", "RTSP/1.0 200 OK\r\nCSeq: 9"}) {
        CNatPeer peer(&CScriptedServer::Answer);
        CNatHost host;
        ASSERT_TRUE(host.Plays(peer.Url()));
        peer.Send(garbage);
        EXPECT_NE(RTSP_CLIENT_CODE_ENDED, host.EndCode());
        EXPECT_EQ(RTSP_CLIENT_FAILURE_PROTOCOL, host.session->GetFailure());
        EXPECT_TRUE(WaitUntil([&] { return peer.Requests("TEARDOWN").size() == 1; }));
    }
}

// Nothing is sent, and the socket is still the host's.
TEST_F(CNatTest, AStartThatFailsLeavesTheSocket) {
    CBoundSocket datagrams(SOCK_DGRAM);
    CBoundSocket stream(SOCK_STREAM);
    const struct {
        const char* url;
        int sock;
    } rows[] = {{nullptr, datagrams.Fd()},
                {"http://127.0.0.1:9/a", datagrams.Fd()},
                {"rtsp://a-name.invalid:9/a", datagrams.Fd()},
                {"rtsp://127.0.0.1:9/a", stream.Fd()},
                {"rtsp://127.0.0.1:9/a", -1}};
    for (const auto& row : rows) {
        CP2PClientSession* session = CP2PClientSession::Create();
        EXPECT_EQ(-1, session->Start(row.url, 0, row.sock));
        EXPECT_TRUE(row.sock < 0 || IsOpen(row.sock));
        EXPECT_EQ(-1, session->Play(0.0F, 0.0F, 1.0F, false));
        EXPECT_EQ(nullptr, session->GetSdpInfo());
        session->Close();
    }
}

// A network between a client and the library's server, which loses datagrams on the way to either.
class CLossyNetwork {
public:
    explicit CLossyNetwork(int server_port) : m_server_port(server_port), m_thread([this] { run(); }) {}
    ~CLossyNetwork() {
        m_stops = true;
        m_thread.join();
    }

    // Loses each datagram of this number; 0: none.
    void Lose(int every) { m_every = every; }
    // Where the client, and where the server, takes the other to be.
    int PortOfServer() const { return m_near.Port(); }
    int PortOfClient() const { return m_far.Port(); }
    // Datagrams that began so, whether or not they were lost.
    int Count(const std::string& begin) {
        return m_seen.CountIf([&](const std::string& each) { return each.compare(0, begin.size(), begin) == 0; });
    }

private:
    void run() {
        while (!m_stops) {
            pollfd events[] = {{m_near.Fd(), POLLIN, 0}, {m_far.Fd(), POLLIN, 0}};
            ::poll(events, 2, 20);
            if (events[0].revents != 0) {
                pass(m_near, m_client_port, m_far, m_server_port);
            }
            if (events[1].revents != 0) {
                int port = 0;
                pass(m_far, port, m_near, m_client_port);
            }
        }
    }
    void pass(CUdpPeer& in, int& from, CUdpPeer& out, int to) {
        const std::string datagram = in.Recv(0, &from);
        m_seen.Add(datagram.substr(0, 20));
        const int every = m_every;
        const bool is_lost = every > 0 && ++m_count % every == 0;
        if (!datagram.empty() && !is_lost) {
            out.Send(datagram, to);
        }
    }

    CUdpPeer m_near, m_far;
    const int m_server_port;
    int m_client_port = 0;
    int m_count = 0;
    CGuardedList<std::string> m_seen;  // their beginnings
    std::atomic<int> m_every{0};
    std::atomic<bool> m_stops{false};
    std::thread m_thread;
};

class CNatServerTest : private CFastTiming, public CServerTest {
protected:
    CNatServerTest() : CFastTiming(50000) {}

    static std::string UrlAt(const CLossyNetwork& network) {
        return "rtsp://127.0.0.1:" + std::to_string(network.PortOfServer()) + "/" + LIVE_NAME;
    }
    int HandIn(CNatViewer& viewer, const CLossyNetwork& network) {
        return viewer.HandIn(*m_svr, "127.0.0.1:" + std::to_string(network.PortOfClient()));
    }
};

// A client that the network spares tells what must come.
TEST_F(CNatServerTest, ThroughLossesTheStreamPlaysAndThenItsFramesAreWhole) {
    CFakeStreamSource* source = StartWithChannel();
    CNatViewer viewer;  // the server's end
    CLossyNetwork network(viewer.HostPort());
    network.Lose(3);
    ASSERT_EQ(0, HandIn(viewer, network));
    CClientHost direct;
    CNatHost host;
    direct.session->SetPacketType(PACKET_TYPE_RTP);
    ASSERT_EQ(0, direct.Start(Url()));
    ASSERT_EQ(0, host.Start(UrlAt(network)));
    ASSERT_TRUE(direct.WaitFor(MSG_RTSP_PLAY_READY));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    unsigned int sequence = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const RtspClientStatistics statistics = host.Statistics();
        GiveVideo(source, sequence++, 3000);
        return statistics.lost > 5 && host.sink.Count() > 5;
    }));
    network.Lose(0);
    const long frames = 20;
    for (long i = 0; i < 2 * frames; ++i) {  // one by one, as no socket of the network is to overflow
        const size_t before = host.sink.Count();
        ASSERT_TRUE(GiveVideo(source, sequence++, 3000));
        ASSERT_TRUE(WaitUntil([&] { return host.sink.Count() > before; }));
    }
    const auto last = [](const std::vector<std::string>& packets) {
        return std::vector<std::string>(packets.end() - frames, packets.end());
    };
    EXPECT_TRUE(WaitUntil([&] { return last(host.sink.Packets()) == last(direct.sink.Packets()); }));
    host.Close();
    direct.Close();
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
    EXPECT_EQ(1, viewer.Returns());
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
}

// The client asks again and again while the server's source gets ready: each request is served once.
TEST_F(CNatServerTest, ASlowSourceIsWaitedFor) {
    StartServer();
    CFakeStreamSource* source = AddUnreadyChannel(LIVE_NAME);
    CNatViewer viewer;
    CLossyNetwork network(viewer.HostPort());
    ASSERT_EQ(0, HandIn(viewer, network));
    CNatHost host;
    ASSERT_EQ(0, host.Start(UrlAt(network)));
    ASSERT_TRUE(WaitUntil([&] { return network.Count("DESCRIBE ") > 3; }));
    source->Tell(MSG_STREAM_INFO);
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    EXPECT_TRUE(Give(source, 0));
    EXPECT_TRUE(WaitUntil([&] { return host.sink.Count() > 0; }));
    EXPECT_EQ(1, host.Count(MSG_RTSP_SETUP_READY));
    EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
    host.Close();
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
}

// With conformance at both ends. A track that was silent ends as well; its sender is the one that SETUP has announced.
TEST_F(CNatServerTest, ARecordingEndsByItselfByConformance) {
    for (const bool conformance : {true, false}) {
        m_config.SetConformance(conformance);
        m_svr == nullptr ? StartServer() : m_svr->SetConfig(m_config);
        CFakeStreamSource::SetNext(SoundAndPictures(true));
        CNatViewer viewer;
        CLossyNetwork network(viewer.HostPort());
        ASSERT_EQ(0, HandIn(viewer, network));
        CNatHost host;
        host.session->SetConformance(conformance);
        const std::string at = "rtsp://127.0.0.1:" + std::to_string(network.PortOfServer()) + "/";
        ASSERT_TRUE(host.Plays(at + FILE_CONTENT));
        ASSERT_TRUE(Give(CFakeStreamSource::Last(), 0, 3000));
        ASSERT_TRUE(WaitUntil([&] { return host.sink.Count() > 0; }));
        const auto has_report = [&host] {
            int64_t wall_us = 0;
            return host.session->GetWallTime('V', 0, wall_us) == 0;
        };
        EXPECT_TRUE(!conformance || WaitUntil(has_report));
        CFakeStreamSource::Last()->Tell(MSG_SRC_END);
        EXPECT_TRUE(!conformance || host.EndCode() == RTSP_CLIENT_CODE_ENDED);
        EXPECT_TRUE(SessionsGone());
        EXPECT_EQ(conformance, network.Count("\x80\xc8") > 0) << "sender reports";
        EXPECT_EQ(conformance ? 1 : 0, host.Count(MSG_RTSP_TEARDOWN));
        host.Close();
    }
}

// The two ends of the library, without a network between them.
TEST_F(CNatServerTest, AConversationOverIPv6) {
    CFakeStreamSource* source = StartWithChannel();
    CSockDgram socks[2];
    std::string at[2];
    const CSockAddrStorage loopback("::1", 0);
    for (int i = 0; i < 2; ++i) {
        CSockAddrStorage local;
        if (socks[i].Open(&loopback) != 0 || socks[i].GetLocalAddr(&local) != 0) {
            GTEST_SKIP() << "no IPv6 here";
        }
        at[i] = "[::1]:" + std::to_string(local.GetPort());
    }
    NatConnectRecord record;
    ASSERT_EQ(0, m_svr->AddNewConnect(::dup(socks[0].GetHandle()), at[1].c_str(), 0, reinterpret_cast<long>(&record)));
    CNatHost host;
    ASSERT_EQ(0, host.StartBy("rtsp://" + at[0] + "/" + LIVE_NAME, ::dup(socks[1].GetHandle())));
    ASSERT_TRUE(host.WaitFor(MSG_RTSP_PLAY_READY));
    ASSERT_TRUE(Give(source, 0));
    EXPECT_TRUE(WaitUntil([&] { return host.sink.Count() > 0; }));
    host.Close();
    EXPECT_EQ(0u, m_svr->EndSessions(20000));
}

// How the host of the flat layer ends its client.
enum flat_end_t { FROM_OUTSIDE, BY_THREADS, INSIDE_A_FRAME, INSIDE_AND_OUTSIDE, INSIDE_THE_END, AT_ONCE, NOT_STARTED };

class CFlatTest : public testing::TestWithParam<flat_end_t> {
protected:
    static void on_frame(const unsigned char*, unsigned int, void* user) {
        CFlatTest& test = *static_cast<CFlatTest*>(user);
        ++test.m_frames;
        test.on_call(INSIDE_A_FRAME);
    }
    static void on_error(int code, void* user) {
        CFlatTest& test = *static_cast<CFlatTest*>(user);
        test.m_ends += code == 1 ? 1 : 0;
        test.on_call(code == 1 ? INSIDE_THE_END : NOT_STARTED);
    }
    void on_call(flat_end_t where) {
        EXPECT_FALSE(m_stopped);
        EXPECT_EQ(-1, stream_client_startup());
        EXPECT_EQ(-1, stream_client_cleanup());
        const play_params params = {0.0F, 0.0F, 0, 1.0F};
        EXPECT_TRUE(m_frames != 1 || stream_client_play(m_client, &params) == 0);
        if (where == INSIDE_A_FRAME && GetParam() == INSIDE_AND_OUTSIDE) {
            stream_client_stop(m_client);
            m_inside = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));  // time for who doesn't wait to go on
            m_left = true;
        }
        if (where == GetParam()) {
            m_stopped = true;
            stream_client_stop(m_client);
            stream_client_destroy(m_client);
            m_client = nullptr;
        }
    }

    std::atomic<stream_client*> m_client{nullptr};
    std::atomic<int> m_frames{0};
    std::atomic<int> m_ends{0};
    std::atomic<bool> m_stopped{false};
    std::atomic<bool> m_inside{false};
    std::atomic<bool> m_left{false};
};

TEST_P(CFlatTest, EndsInAnyOrder) {
    CNatPeer peer([](const ServerRequest& request) {
        std::string media;
        for (unsigned int i = 1; i < 6 && request.method == "PLAY"; ++i) {
            media += CScriptedServer::Rtp(i);
        }
        return CScriptedServer::Answer(request) + media;
    });
    ASSERT_EQ(0, stream_client_startup());
    EXPECT_EQ(0, stream_client_startup());
    CUdpPeer sock;
    stream_client_params params = {};
    std::snprintf(params.url, sizeof(params.url), "%s", peer.Url().c_str());
    params.sock_handle = ::dup(sock.Fd());
    m_client = stream_client_create(&params, this);
    ASSERT_NE(nullptr, m_client);
    EXPECT_EQ(this, stream_client_get_arg(m_client));
    EXPECT_EQ(-1, stream_client_start(m_client, nullptr));
    const stream_client_callbacks callbacks = {&on_frame, &on_error, this};
    const flat_end_t end = GetParam();
    if (end == NOT_STARTED) {
        EXPECT_EQ(-1, stream_client_pause(m_client));
        ::close(params.sock_handle);
    } else {
        EXPECT_EQ(0, stream_client_start(m_client, &callbacks));
    }
    if (end != NOT_STARTED && end != AT_ONCE) {
        EXPECT_TRUE(WaitUntil([this] { return m_frames > 0; }));
    }
    if (end == INSIDE_THE_END) {
        peer.Send("RTSP garbage, no reply");
    }
    if (end == INSIDE_A_FRAME || end == INSIDE_THE_END) {
        EXPECT_TRUE(WaitUntil([this] { return m_client == nullptr; }));
    }
    if (end == INSIDE_AND_OUTSIDE) {
        EXPECT_TRUE(WaitUntil([this] { return m_inside.load(); }));
    }
    if (stream_client* client = m_client) {
        RunTogether(end == BY_THREADS ? 2 : 1, [client] { EXPECT_EQ(0, stream_client_stop(client)); });
        EXPECT_EQ(m_inside, m_left);
        m_stopped = true;
        EXPECT_EQ(-1, stream_client_start(client, &callbacks));
        EXPECT_EQ(0, stream_client_destroy(client));
    }
    EXPECT_EQ(end == INSIDE_THE_END ? 1 : 0, m_ends);
    EXPECT_EQ(0, stream_client_cleanup());
    EXPECT_EQ(-1, stream_client_cleanup());
}

INSTANTIATE_TEST_SUITE_P(At, CFlatTest,
                         testing::Values(FROM_OUTSIDE, BY_THREADS, INSIDE_A_FRAME, INSIDE_AND_OUTSIDE, INSIDE_THE_END,
                                         AT_ONCE, NOT_STARTED));

TEST(FlatTest, WithoutAPoolAClientWaitsAndEnds) {
    CUdpPeer sock;
    stream_client_params params = {"rtsp://127.0.0.1:9/stream", ::dup(sock.Fd())};
    const stream_client_callbacks callbacks = {};
    stream_client* client = stream_client_create(&params, nullptr);
    EXPECT_EQ(0, stream_client_start(client, &callbacks));
    EXPECT_EQ(0, stream_client_pause(client));
    EXPECT_EQ(0, stream_client_destroy(client));
    EXPECT_LT(::fcntl(params.sock_handle, F_GETFD), 0);
    EXPECT_EQ(0, stream_client_startup());
    EXPECT_EQ(0, stream_client_cleanup());
}

TEST(FlatTest, NullIsRefused) {
    EXPECT_EQ(nullptr, stream_client_create(nullptr, nullptr));
    EXPECT_EQ(nullptr, stream_client_get_arg(nullptr));
    EXPECT_EQ(-1, stream_client_start(nullptr, nullptr));
    EXPECT_EQ(-1, stream_client_play(nullptr, nullptr));
    EXPECT_EQ(-1, stream_client_pause(nullptr));
    EXPECT_EQ(-1, stream_client_stop(nullptr));
    EXPECT_EQ(-1, stream_client_destroy(nullptr));
}

}  // namespace
}  // namespace Kavio::Vidora
