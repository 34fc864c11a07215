// Sessions by the hundred that come, play and go in every way, while channels are published, renewed and withdrawn and
// sources change their format. Nothing may be left: no session, no handler, no descriptor, no source. The sanitizers
// see to leaks and races. VIDORA_SOAK_SESSIONS raises the number of sessions.

#include <random>

#include "Tramel/Reactor.h"

#include "server/ServerFixture.h"
#include "support/Descriptors.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {
namespace {

const int DEFAULT_SESSIONS = 420;
const int CLIENT_THREADS = 6;
const size_t MAX_PARKED = 120;  // silent and stalled clients at one time
const int STEADY_CHANNELS = 2;
const int ALL_CHANNELS = 6;  // those above the steady ones come and go

// How far a session gets.
enum stage_t { STAGE_CONNECT, STAGE_OPTIONS, STAGE_DESCRIBE, STAGE_SETUP, STAGE_PLAY };
enum leave_t { LEAVE_TEARDOWN, LEAVE_CLOSE, LEAVE_RESET, LEAVE_HALF_CLOSE, LEAVE_HALFWAY, LEAVE_SILENT, LEAVE_KINDS };
enum road_t { ROAD_TCP, ROAD_UDP, ROAD_PRIVATE, ROAD_KINDS };

// A recording takes its time to open, so that its client may have gone by then.
CStreamSource* make_source(const char* content) {
    const bool is_file = std::string(content).find(FILE_CONTENT) != std::string::npos;
    static std::atomic<int> opened{0};
    if (is_file) {
        std::this_thread::sleep_for(std::chrono::milliseconds(opened++ % 4));
    }
    return CFakeStreamSource::Make(SoundAndPictures(is_file));
}

// Gives pictures and sound to all sources. The frames themselves tell of another format at times.
void give_to_all(unsigned int sequence) {
    const bool key = sequence % 10 == 0;
    FrameSpec video = {key ? 'I' : 'P', sequence, sequence * 40, H264Picture(key, key ? 30000 : 3000, 7)};
    video.width = 64 + (sequence / 1000 % 2) * 64;
    const FrameSpec audio = {'A', sequence, sequence * 40, std::string(320, 'a'), 14};
    const Flumen::CMediaFrame frames[] = {BuildFrame(video), BuildFrame(audio)};
    CFakeStreamSource::ForEach([&](CFakeStreamSource& source) {
        for (const Flumen::CMediaFrame& frame : frames) {
            source.Give(frame);
        }
    });
}

class Soak : public CServerTest {
protected:
    // Publishes a channel, at times under two names.
    void PublishNumber(int number, bool twice) {
        m_source = CDataSource::Create(LIVE_NAME);
        m_source->SetConfig(m_config);
        for (int i = 0; i < (twice ? 2 : 1); ++i) {
            const std::string name = ChannelName(number) + (i == 0 ? "" : "&twin=yes");
            CLiveChannel* channel = MakeChannel(name);
            if (i == 0) {
                ASSERT_EQ(0, m_source->Init(channel->GetID(), 0));
            }
            Publish(name, channel);
            m_published[number].push_back(channel);
        }
    }

    void Withdraw(int number) {
        if (m_published[number].size() > 1) {
            EXPECT_EQ(0, m_live_svr->DelLiveChannel((ChannelName(number) + "&twin=yes").c_str()));
        }
        EXPECT_EQ(0, m_live_svr->DelLiveChannel(ChannelName(number).c_str()));
        m_published[number].clear();
    }

    // One thing that a host may do at any time.
    void Churn(std::mt19937& random) {
        const int number = STEADY_CHANNELS + 1 + static_cast<int>(random() % (ALL_CHANNELS - STEADY_CHANNELS));
        const std::string name = ChannelName(number);
        const unsigned int action = random() % 8;
        if (m_published[number].empty()) {
            PublishNumber(number, action % 3 == 0);
        } else if (action < 3) {
            Withdraw(number);
        } else if (action == 3) {
            EXPECT_EQ(0, m_live_svr->UpdataLiveChannel(name.c_str(), 0));
        } else if (action == 4) {
            CSockAddrStorage group("239.1.2.3", static_cast<unsigned short>(41000 + 20 * number));
            CLiveChannel* channel = m_published[number][0];
            if (channel->AddTransfDst(group, "127.0.0.1") == 0) {
                channel->StartStreaming(PACKET_TYPE_RTP);
                EXPECT_EQ(0, channel->DelTransfDst(group, "127.0.0.1"));
            }
        } else {
            unsigned int skip = random() % 4;
            CFakeStreamSource::ForEach([&](CFakeStreamSource& source) {
                if (skip-- == 0) {
                    StreamVideoFormat format = CFakeStreamSource::LiveVideo().video;
                    format.width = 64 * static_cast<int>(1 + random() % 4);
                    source.SetVideo(format);
                    source.Tell(source.GetSrcType() != SRC_TYPE_FILE ? MSG_STREAM_INFO
                                : random() % 2 == 0                  ? MSG_SRC_END
                                                                     : MSG_SRC_FAIL);
                }
            });
        }
    }

    // A session from its connection to its end. Any request may stay unanswered, as its channel may go at any time.
    void RunSession(unsigned int seed) {
        std::mt19937 random(seed);
        auto client = std::make_unique<CRtspTestClient>(m_port);
        auto rtp = std::make_unique<CUdpPeer>();
        const stage_t wanted = static_cast<stage_t>(std::min<unsigned int>(random() % 12, STAGE_PLAY));
        const road_t road = static_cast<road_t>(random() % ROAD_KINDS);
        const bool is_file = random() % 6 == 0;
        const std::string url =
            Url(is_file ? FILE_CONTENT : ChannelName(1 + static_cast<int>(random() % ALL_CHANNELS)));
        if (random() % 5 == 0) {  // says all at once, and leaves in the middle of it
            std::string bytes = client->Request("DESCRIBE", url) +
                                client->Request("SETUP", url + "/trackID=0", Transport(*rtp, road)) +
                                client->Request("PLAY", url) + client->Request("TEARDOWN", url);
            for (unsigned int damage = random() % 4; damage > 0; --damage) {
                bytes[random() % bytes.size()] = static_cast<char>(random());
            }
            client->Send(bytes);
            std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
            Leave(std::move(client), std::move(rtp), random() % 2 == 0 ? LEAVE_CLOSE : LEAVE_RESET, url);
            return;
        }
        const bool reached = Advance(*client, *rtp, wanted, road, url, random);
        if (reached && wanted == STAGE_PLAY && ReceivesMedia(*client, *rtp, road)) {
            ++m_played;
            if (random() % 4 == 0) {
                client->Send(client->Request(random() % 2 == 0 ? "PAUSE" : "GET_PARAMETER", url) +
                             client->Request("PLAY", url, "Range: npt=2-\r\n"));
                Swallow(client->Fd(), 20);
            }
        }
        leave_t how = static_cast<leave_t>(random() % LEAVE_KINDS);
        if (is_file && road != ROAD_UDP && how == LEAVE_SILENT) {
            how = LEAVE_CLOSE;  // a recording that is paused or at its end stays as long as its connection
        }
        Leave(std::move(client), std::move(rtp), how, url);
    }

    static std::string Transport(const CUdpPeer& rtp, road_t road) {
        return road == ROAD_UDP ? UdpTransport(rtp.Port()) : road == ROAD_TCP ? INTERLEAVED : PRIVATE;
    }

    static bool Advance(CRtspTestClient& client, CUdpPeer& rtp, stage_t wanted, road_t road, const std::string& url,
                        std::mt19937& random) {
        const auto ask = [&](const char* method, const std::string& target, const std::string& headers) {
            return client.Send(client.Request(method, target, headers)) && client.Reply(1500).status == 200;
        };
        if (wanted >= STAGE_OPTIONS && random() % 2 == 0 && !ask("OPTIONS", "*", "")) {
            return false;
        }
        if (wanted >= STAGE_DESCRIBE && !ask("DESCRIBE", url, "")) {
            return false;
        }
        for (int track = 0; wanted >= STAGE_SETUP && track < (road == ROAD_PRIVATE ? 1 : 2); ++track) {
            if (!ask("SETUP", url + "/trackID=" + std::to_string(track), Transport(rtp, road))) {
                return false;
            }
        }
        return wanted < STAGE_PLAY || ask("PLAY", url, "Range: npt=0-\r\n");
    }

    static bool ReceivesMedia(CRtspTestClient& client, CUdpPeer& rtp, road_t road) {
        int count = 0;
        for (; count < 10; ++count) {
            if (road == ROAD_UDP   ? rtp.Recv(500).empty()
                : road == ROAD_TCP ? client.Frame(500).channel < 0
                                   : !Swallow(client.Fd(), 500)) {
                break;
            }
        }
        return count > 0;
    }

    // Reads what is there, or comes in that time.
    static bool Swallow(int fd, int timeout_ms) {
        char buf[65536];
        pollfd event = {fd, POLLIN, 0};
        return poll(&event, 1, timeout_ms) > 0 && recv(fd, buf, sizeof(buf), 0) > 0;
    }

    void Leave(std::unique_ptr<CRtspTestClient> client, std::unique_ptr<CUdpPeer> rtp, leave_t how,
               const std::string& url) {
        if (how == LEAVE_TEARDOWN) {
            client->Send(client->Request("TEARDOWN", url));
            Swallow(client->Fd(), 100);
        } else if (how == LEAVE_RESET) {
            const linger hard = {1, 0};
            setsockopt(client->Fd(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        } else if (how == LEAVE_HALF_CLOSE) {
            shutdown(client->Fd(), SHUT_WR);
            const bool ends = WaitUntil([&] { return !Swallow(client->Fd(), 5000); });
            EXPECT_TRUE(ends);
        } else if (how == LEAVE_HALFWAY) {
            client->Send("SETUP " + url + "/trackID=0 RTSP/1.0\r\nCSeq: 7\r\nTransp");
        } else if (how == LEAVE_SILENT) {  // and, on TCP, never reading
            const int size = 4096;
            setsockopt(client->Fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
            const std::lock_guard<std::mutex> guard(m_parked_mutex);
            m_parked.emplace_back(std::move(client), std::move(rtp));
            if (m_parked.size() > MAX_PARKED) {
                m_parked.pop_front();
            }
        }
    }

    std::vector<CLiveChannel*> m_published[ALL_CHANNELS + 1];
    std::mutex m_parked_mutex;
    // Clients that neither send nor read any more.
    std::deque<std::pair<std::unique_ptr<CRtspTestClient>, std::unique_ptr<CUdpPeer>>> m_parked;
    std::atomic<int> m_played{0};
};

TEST_F(Soak, NothingIsLeftOfSessionsThatGoInEveryWay) {
    const char* wish = getenv("VIDORA_SOAK_SESSIONS");
    const int sessions = wish == nullptr ? DEFAULT_SESSIONS : atoi(wish);
    Set(RTSP_SVR_CONFIG_TIMEOUT, 1);
    // Not the default one, through which another server's ports may be scattered.
    Set(RTSP_SVR_CONFIG_RTP_PORT, RtpPortRange{10000, 20000});
    SetFunction(RTSP_SVR_CONFIG_SRC_FUNC, &make_source);
    SetFunction(RTSP_SVR_CONFIG_EVENT_FUNC, &CEventLog::OnEvent);
    StartServer();
    CLogCapture log(Ostra::LOG_LEVEL_WARN);
    const long handlers = Tramel::CReactor::Instance().CountHandlers();
    const int descriptors = CountDescriptors();
    for (int number = 1; number <= ALL_CHANNELS; ++number) {
        PublishNumber(number, false);
    }

    {
        CFramePump pump(4, &give_to_all);
        std::atomic<bool> stop{false};
        std::thread churn([&] {
            for (std::mt19937 random(1); !stop;) {
                Churn(random);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
        std::atomic<int> next{0};
        RunTogether(CLIENT_THREADS, [&] {
            for (int number = next++; number < sessions; number = next++) {
                RunSession(static_cast<unsigned int>(number));
            }
        });
        stop = true;
        churn.join();
        // The silent ones end by time-out, those that never read by their full sockets, which are still open here.
        EXPECT_TRUE(SessionsGone());
        for (int number = 1; number <= ALL_CHANNELS; ++number) {
            if (!m_published[number].empty()) {
                Withdraw(number);
            }
        }
    }
    const size_t parked = m_parked.size();
    m_parked.clear();
    EXPECT_TRUE(WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
    EXPECT_TRUE(WaitUntil([&] { return Tramel::CReactor::Instance().CountHandlers() == handlers; }))
        << Tramel::CReactor::Instance().CountHandlers() << " handlers, " << handlers << " at the start";
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() == descriptors; }))
        << CountDescriptors() << " descriptors, " << descriptors << " at the start";
    EXPECT_GT(m_played, sessions / 5);
    const int connected = CEventLog::Count("connected 127.0.0.1");
    EXPECT_LE(connected, CEventLog::Count("disconnected 127.0.0.1"));
    printf("%d sessions: %d connected, %d played, %zu silent at the end\n", sessions, connected, m_played.load(),
           parked);
}

}  // namespace
}  // namespace Kavio::Vidora
