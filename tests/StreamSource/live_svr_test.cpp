// The registry of channels: names, users and sources, also of hosts that take their time and close what is in use.
#include <gtest/gtest.h>

#include "StreamSource/LiveSvrRef.h"
#include "Tramel/Reactor.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "support/Capture.h"
#include "support/CollectingSink.h"
#include "support/FakeDataSource.h"
#include "support/FakeStreamSource.h"
#include "support/FrameBuilder.h"
#include "support/SampleTable.h"
#include "support/StreamPeer.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {
namespace {

using namespace Support;

const int POOL_THREADS = 3;
CLevel2Buffer_IF* const NO_SINK = nullptr;

CLiveChannel* make_channel(const char* name, CDataSource* source, transf_type_t type = TRANSF_TYPE_RTP) {
    CLiveChannel* channel = CLiveChannel::Create();
    EXPECT_EQ(0, channel->Init(name, 0, type));
    channel->AddDataSrc(source, 0);
    return channel;
}

// A registry with a source "slow", whose door a test may shut, and a quick one "quick".
class LiveTest : public testing::Test {
protected:
    LiveTest() {
        Publish({"slow"}, m_slow);
        Publish({"quick"}, m_quick);
    }
    ~LiveTest() override {
        m_svr->Close();
        EXPECT_TRUE(WaitUntil([this] { return m_closed == m_sources; }));
    }
    CFakeDataSource* MakeSource() {
        ++m_sources;
        return new CFakeDataSource(&m_closed);
    }
    // Registers channels of the source under these names.
    void Publish(const std::vector<std::string>& names, CDataSource* source) {
        for (const std::string& name : names) {
            EXPECT_EQ(0, m_svr->AddLiveChannel(name.c_str(), make_channel(name.c_str(), source), source));
        }
    }
    int Enter(const char* name, CLevel2Buffer_IF& sink) {
        return m_svr->EnterLiveChannel(name, &sink, PACKET_TYPE_RTP);
    }
    int Leave(const char* name, CLevel2Buffer_IF& sink) {
        return m_svr->LeaveLiveChannel(name, &sink, PACKET_TYPE_RTP);
    }
    // Waits until that many sources have gone.
    bool Closed(int count) {
        return WaitUntil([=] { return m_closed == count; });
    }
    // Calls `function` on a thread of the pool.
    void OnPool(const std::function<void()>& function) {
        CTestHandler* handler = CTestHandler::Make();
        handler->on_message = [handler, function](long, unsigned int, long) {
            function();
            handler->Close();
            return 0;
        };
        handler->Notify(handler->GetID(), 5000, 0);
    }

    std::atomic<int> m_closed{0};
    int m_sources = 0;
    CPool m_pool{POOL_THREADS};
    CLiveSvr* m_svr = CLiveSvr::Create(0);
    CFakeDataSource* m_slow = MakeSource();
    CFakeDataSource* m_quick = MakeSource();
};

TEST_F(LiveTest, LookupFollowsNameAndParameters) {
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/sources.txt", "names", 3)) {
        const std::vector<std::string> names = SplitText(row[0], ',');
        const char* const content = row[1].c_str();
        Publish(names, m_quick);
        CLiveChannel* const expected = row[2] == "none" ? nullptr : m_svr->GetLiveChannel(row[2].c_str(), 1);
        CLiveChannel* const found = m_svr->GetLiveChannel(content, 2);
        EXPECT_EQ(expected, found) << row[0] << " asked for " << content;
        EXPECT_EQ(found == nullptr ? -1 : 0, m_svr->QueryLiveChannel(content)) << content;
        if (expected != nullptr) {
            expected->DelRef(1);
            found->DelRef(2);
        }
        for (const std::string& name : names) {
            EXPECT_EQ(0, m_svr->DelLiveChannel(name.c_str()));
        }
    }
}

TEST_F(LiveTest, SinksEnterAndLeaveTheChannelThatTheyKnow) {
    CCollectingSink sink;
    EXPECT_EQ(-1, Leave("slow", sink));  // never entered
    EXPECT_EQ(0, Enter("slow", sink));
    EXPECT_EQ(1, m_slow->running[PACKET_TYPE_RTP]);
    EXPECT_EQ(0, Leave("slow", sink));
    EXPECT_EQ(0, m_slow->Running());
    // Another channel has the name of the one that the caller knows.
    CLiveChannel* const known = CLiveChannel::Create();
    EXPECT_EQ(-1, m_svr->EnterLiveChannel("slow", &sink, PACKET_TYPE_RTP, known));
    EXPECT_EQ(0, m_slow->Running());
    known->Close();
    EXPECT_EQ(0, Enter("slow?x=11&y=22", sink));  // served by the plain name
    Publish({"slow?x=11&y=22"}, m_quick);
    EXPECT_EQ(0, Leave("slow?x=11&y=22", sink));
    EXPECT_EQ(0, m_slow->Running());
    EXPECT_EQ(0, m_quick->stops);
    // Null counts as a user without a sink, and leaving as null asks for no entry.
    EXPECT_EQ(0, m_svr->EnterLiveChannel("quick", NO_SINK, PACKET_TYPE_TS));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("quick", NO_SINK, PACKET_TYPE_TS));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("quick", NO_SINK, PACKET_TYPE_TS));
    EXPECT_EQ(-1, m_svr->EnterLiveChannel("d", NO_SINK, PACKET_TYPE_TS));
    EXPECT_EQ(-1, m_svr->EnterLiveChannel(nullptr, NO_SINK, PACKET_TYPE_TS));
}

TEST_F(LiveTest, SourceIsClosedWithItsLastNameAndChannelsWithTheirLastReference) {
    std::atomic<int> ends{0};
    CTestHandler* user = CTestHandler::Make();
    user->on_message = [&](long, unsigned int msg, long param) {
        ends += msg == MSG_SRC_END && std::string("a") == reinterpret_cast<const char*>(param) ? 1 : 0;
        return 0;
    };
    CFakeDataSource* source = MakeSource();
    Publish({"a", "b"}, source);
    CLiveChannel* channel = m_svr->GetLiveChannel("a", user->GetID());
    ASSERT_EQ(channel, m_svr->GetLiveChannel("a", user->GetID()));  // two references, one message
    EXPECT_EQ(-1, m_svr->AddLiveChannel("c", nullptr, source));
    EXPECT_EQ(0, m_svr->DelLiveChannel("b"));
    EXPECT_EQ(-1, m_svr->DelLiveChannel("b"));
    EXPECT_EQ(0, m_closed);
    EXPECT_EQ(0, m_svr->DelLiveChannel("a"));
    EXPECT_TRUE(WaitUntil([&] { return ends == 1 && m_closed == 1; }));
    EXPECT_EQ(-1, channel->StartStreaming(PACKET_TYPE_RTP));  // its source has gone, it hasn't
    channel->DelRef(user->GetID());
    uint64_t start = 1;
    uint64_t end = 0;
    EXPECT_EQ(0, channel->GetPlayRange(start, end));
    EXPECT_EQ(0u, start);
    EXPECT_EQ(~uint64_t{0}, end);
    channel->DelRef(user->GetID());
    user->Close();
}

TEST_F(LiveTest, AClosedRegistryLivesEmptyUntilItsLastUserHasGone) {
    CLiveSvr* const closed = CLiveSvr::Create(0);
    CLiveSvrRef user(closed);
    CFakeDataSource* source = MakeSource();
    EXPECT_EQ(0, closed->AddLiveChannel("a", make_channel("a", source), source));
    CLiveChannel* const channel = user->GetLiveChannel("a", 1);
    closed->Close();
    EXPECT_TRUE(Closed(1));
    const CLiveSvrRef other = user;
    user = CLiveSvrRef();
    EXPECT_EQ(-1, other->QueryLiveChannel("a"));
    EXPECT_EQ(nullptr, other->GetLiveChannel("a", 1));
    EXPECT_EQ(-1, other->EnterLiveChannel("a", NO_SINK, PACKET_TYPE_RTP));
    EXPECT_EQ(-1, other->AddLiveChannel("a", channel, m_quick));
    channel->DelRef(1);
}

TEST_F(LiveTest, ChannelDescribesUnicastAndMulticast) {
    for (const transf_type_t type : {TRANSF_TYPE_RTP, TRANSF_TYPE_TS}) {
        CFakeDataSource* source = MakeSource();
        CLiveChannel* channel = make_channel("a", source, type);
        EXPECT_EQ(1, source->plays);
        CSdpParser sdp;
        ASSERT_EQ(0, channel->GetSdp(sdp));
        const std::string unicast = sdp.get_stream();
        EXPECT_NE(std::string::npos, unicast.find("a=range:npt=now-\r\n"));
        EXPECT_NE(std::string::npos, unicast.find("a=packetization-supported:KX\r\n"));
        EXPECT_EQ(type == TRANSF_TYPE_TS, unicast.find("33 MP2T/90000") != std::string::npos);
        std::shared_ptr<const CSdpParser> shared[3];
        for (std::shared_ptr<const CSdpParser>& one : shared) {
            if (&one == &shared[2]) {
                channel->SetUnicast(true);  // the source is asked for its description anew
            }
            ASSERT_EQ(0, channel->GetSdp(one));
            EXPECT_EQ(unicast, one->get_stream());
        }
        EXPECT_EQ(shared[0], shared[1]);
        EXPECT_NE(shared[0], shared[2]);

        CSockAddrStorage group("239.1.2.3", 30000);
        for (int tracks = type == TRANSF_TYPE_TS ? 2 : 1; tracks <= 2; ++tracks) {  // a pair of ports for each
            CRtspSvrConfig config;
            const RtpPortRange range = {30200, 30200 + 2 * tracks};
            ASSERT_EQ(0, config.SetConfig(RTSP_SVR_CONFIG_RTP_PORT, &range, sizeof(range)));
            channel->SetConfig(config);
            EXPECT_EQ(tracks < 2 ? -1 : 0, channel->AddTransfDst(group, nullptr));
        }
        EXPECT_EQ(type == TRANSF_TYPE_TS ? 1 : 0, source->running[PACKET_TYPE_TS]);
        EXPECT_EQ(0, source->running[PACKET_TYPE_RTP]);  // the host starts it itself
        channel->SetUnicast(false);
        ASSERT_EQ(1, channel->GetSdp(sdp));
        const std::string text = sdp.get_stream();
        EXPECT_NE(std::string::npos, text.find("c=IN IP4 239.1.2.3/4\r\n")) << text;
        EXPECT_EQ(std::string::npos, text.find("packetization-supported"));
        EXPECT_NE(std::string::npos, text.find("m=video 30000 RTP/AVP 96\r\n"));
        EXPECT_EQ(type == TRANSF_TYPE_RTP, text.find("m=audio 30002 RTP/AVP 8\r\n") != std::string::npos) << text;
        ASSERT_EQ(1, channel->GetSdp(sdp, 1));  // with the tracks of private frames
        const std::string whole = sdp.get_stream();
        EXPECT_EQ(type == TRANSF_TYPE_RTP, whole.find("m=audio 30002 RTP/AVP 8\r\n") != std::string::npos) << whole;
        EXPECT_EQ(-1, channel->DelTransfDst(group, "127.0.0.1"));  // another interface is another destination
        EXPECT_EQ(0, channel->DelTransfDst(group, nullptr));
        EXPECT_EQ(0, source->running[PACKET_TYPE_RTP]);  // nobody had started it

        EXPECT_EQ(source, channel->AddDataSrc(nullptr, 0));
        EXPECT_EQ(-1, channel->StartStreaming(PACKET_TYPE_RTP));
        EXPECT_EQ(0u, channel->GetSSRC(1));
        EXPECT_EQ(-1, channel->AddTransfDst(group, nullptr));
        channel->Close();
        source->Close();
    }
}

TEST_F(LiveTest, SettingsMayChangeWhileClientsShareTheChannel) {
    CLiveChannel* const channel = m_svr->GetLiveChannel("slow", 1);
    CSockAddrStorage group("239.1.2.3", 30000);
    std::atomic<int> clients{0};
    RunTogether(3, [&] {
        const int client = clients++;
        CCollectingSink sink;
        for (int i = 0; i < 200; ++i) {
            if (client == 0) {
                CRtspSvrConfig config;
                config.SetConformance(i % 2 == 0);
                channel->SetConfig(config);
                EXPECT_EQ(0, channel->Init(i % 3 == 0 ? "slow" : "renamed", 0,
                                           i % 2 == 0 ? TRANSF_TYPE_TS : TRANSF_TYPE_RTP));
                channel->AddTransfDst(group, "127.0.0.1");
                EXPECT_EQ(-1, channel->Init("other", 0, i % 2 == 0 ? TRANSF_TYPE_RTP : TRANSF_TYPE_TS))
                    << "it has a sender";
                channel->SetUnicast(i % 4 != 0);
                EXPECT_EQ(0, channel->DelTransfDst(group, "127.0.0.1"));
                continue;
            }
            EXPECT_EQ(0, channel->AddRef(10 + client));
            std::shared_ptr<const CSdpParser> sdp;
            EXPECT_LE(0, channel->GetSdp(sdp));
            EXPECT_NE(nullptr, strstr(sdp->get_stream(), "m=video"));
            EXPECT_EQ(0, channel->Enter(&sink, PACKET_TYPE_RTP));
            channel->handle_message(0, MSG_SDP_UPDATE, 0);
            EXPECT_EQ(0, channel->Leave(&sink, PACKET_TYPE_RTP));
            channel->DelRef(10 + client);
        }
    });
    EXPECT_EQ(0, m_slow->Running());
    // Somebody gives a reference back that he hasn't: it isn't that of the other.
    CLogCapture log(Ostra::LOG_LEVEL_INFO);
    channel->DelRef(2);
    EXPECT_EQ(0, m_svr->DelLiveChannel("slow"));
    EXPECT_EQ(0, m_svr->DelLiveChannel("quick"));
    EXPECT_TRUE(WaitUntil([&] { return log.Count("~CLiveChannel(), channel_name:quick") == 1; }));
    EXPECT_EQ(1, log.Count("~CLiveChannel()"));
    channel->DelRef(1);
    EXPECT_TRUE(WaitUntil([&] { return log.Count("~CLiveChannel()") == 2; }));
}

TEST_F(LiveTest, ADestinationFollowsTheTracksThatTheSourceTellsLater) {
    CFakeDataSource* source = MakeSource();
    const std::string described = source->sdp;
    source->sdp = "not yet";
    CLiveChannel* channel = make_channel("a", source);
    CUdpPeer sound;
    CSockAddrStorage group("127.0.0.1", static_cast<unsigned short>(sound.Port() - 2));
    ASSERT_EQ(0, channel->AddTransfDst(group, nullptr));
    source->sdp = described;
    channel->handle_message(0, MSG_SDP_UPDATE, 0);
    std::string came;
    EXPECT_TRUE(WaitUntil([&] {
        CountedPacket* packet = new CountedPacket(Interleaved(2, std::string("wave")));
        channel->GetMediaBuffer(PACKET_TYPE_RTP)->Put(packet, packet->Size(), 1, 1 << 24);
        came = sound.Recv(20);
        return came == "wave";
    }));
    channel->Close();
    source->Close();
}

TEST_F(LiveTest, ASlowHostHoldsUpOneThreadWhoeverComesAndGoes) {
    const int clients = 4 * POOL_THREADS;
    std::vector<CCollectingSink> sinks(static_cast<size_t>(clients));
    m_slow->door.Set(false);
    std::atomic<int> through{0};
    for (CCollectingSink& sink : sinks) {
        OnPool([&] {
            Enter("slow", sink);
            ++through;
        });
    }
    // All but the one that is inside are through, and so is whatever other channels' clients do.
    EXPECT_TRUE(WaitUntil([&] { return through == clients - 1; }));
    EXPECT_EQ(1, m_slow->door.Waiting());
    std::atomic<int> answered{0};
    for (int i = 0; i < clients; ++i) {
        OnPool([&] {
            CLiveChannel* channel = m_svr->GetLiveChannel("quick", 1);
            CSdpParser sdp;
            CCollectingSink sink;
            EXPECT_EQ(0, channel->GetSdp(sdp));
            EXPECT_EQ(0, channel->Enter(&sink, PACKET_TYPE_RTP));
            EXPECT_EQ(0, channel->Leave(&sink, PACKET_TYPE_RTP));
            channel->DelRef(1);
            // Nor do questions about the slow one wait.
            channel = m_svr->GetLiveChannel("slow", 1);
            SrcInfo info;
            EXPECT_EQ(0, channel->GetSdp(sdp));
            EXPECT_EQ(0, channel->GetSrcInfo(info, 1));
            channel->DelRef(1);
            ++answered;
        });
    }
    EXPECT_TRUE(WaitUntil([&] { return answered == clients; }));
    // Half of them leave before the source has seen them.
    for (int i = 0; i < clients / 2; ++i) {
        EXPECT_EQ(0, Leave("slow", sinks[static_cast<size_t>(i)]));
    }
    m_slow->door.Set(true);
    EXPECT_TRUE(WaitUntil([&] { return through == clients && m_slow->Running() == clients - clients / 2; }));
    m_slow->door.Set(false);
    for (int i = clients / 2; i < clients; ++i) {
        OnPool([&, i] { Leave("slow", sinks[static_cast<size_t>(i)]); });
    }
    EXPECT_TRUE(WaitUntil([&] { return m_slow->door.Waiting() == 1; }));
    EXPECT_EQ(0, m_svr->QueryLiveChannel("quick"));
    m_slow->door.Set(true);
    EXPECT_TRUE(WaitUntil([&] { return m_slow->Running() == 0; }));
    EXPECT_EQ(m_slow->starts, m_slow->stops);
    EXPECT_EQ(1, m_slow->most_inside);
}

TEST_F(LiveTest, ADeletedChannelUndoesItsOwnStartsAndIsOffTheSourcesList) {
    CCollectingSink sink;
    EXPECT_EQ(2u, m_slow->Notified());  // the channel and the registry
    for (int i = 0; i < 3; ++i) {
        Publish({"other"}, m_slow);
        EXPECT_EQ(0, m_svr->EnterLiveChannel("other", NO_SINK, PACKET_TYPE_KX));
        EXPECT_EQ(0, Enter("other", sink));
        EXPECT_EQ(0, Enter("slow", sink));
        EXPECT_EQ(3, m_slow->Running());
        EXPECT_EQ(0, m_svr->DelLiveChannel("other"));
        EXPECT_EQ(1, m_slow->Running());
        EXPECT_EQ(2u, m_slow->Notified());
        EXPECT_EQ(0, Leave("slow", sink));
        EXPECT_EQ(0, m_slow->Running());
    }
}

TEST_F(LiveTest, AStartThatFailedIsStoppedByNobody) {
    CCollectingSink sink;
    CLiveChannel* channel = m_svr->GetLiveChannel("slow", 1);
    m_slow->start_fails = true;
    EXPECT_EQ(-1, channel->StartStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(-1, channel->StopStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(0, Enter("slow", sink));
    EXPECT_EQ(0, Leave("slow", sink));
    EXPECT_EQ(0, m_slow->stops);
    // The next client brings those that wait along.
    CCollectingSink next;
    EXPECT_EQ(0, Enter("slow", sink));
    m_slow->start_fails = false;
    EXPECT_EQ(0, Enter("slow", next));
    EXPECT_EQ(2, m_slow->Running());
    EXPECT_EQ(0, Leave("slow", sink));
    EXPECT_EQ(0, Leave("slow", next));
    EXPECT_EQ(0, m_slow->Running());
    channel->DelRef(1);
}

TEST_F(LiveTest, APublishedChannelIsRefusedAndMayBeClosedByTheHost) {
    CLiveSvr* const other = CLiveSvr::Create(0);
    CLiveChannel* const channel = m_svr->GetLiveChannel("slow", 1);
    EXPECT_EQ(-1, m_svr->AddLiveChannel("twice", channel, m_slow));
    EXPECT_EQ(-1, other->AddLiveChannel("twice", channel, m_slow));
    channel->Close();
    EXPECT_EQ(-1, m_svr->QueryLiveChannel("slow"));
    EXPECT_EQ(-1, channel->AddRef(2));
    channel->DelRef(1);
    EXPECT_EQ(0, m_svr->DelLiveChannel("slow"));  // closes the source
    EXPECT_TRUE(Closed(1));
    other->Close();
}

TEST_F(LiveTest, SourcesChangePlacesUnderPlayingClientsAndAreGivenBackOnce) {
    CCollectingSink sink;
    CLiveChannel* const first = m_svr->GetLiveChannel("slow", 1);
    CLiveChannel* const second = make_channel("second", m_slow);
    second->AddRef(1);
    ASSERT_EQ(0, m_svr->AddLiveChannel("second", second, m_slow));
    EXPECT_EQ(0, second->Enter(&sink, PACKET_TYPE_RTP));
    EXPECT_EQ(nullptr, first->AddDataSrc(m_slow, 0));  // the registry has it still
    EXPECT_EQ(m_slow, first->AddDataSrc(m_quick, 0));
    EXPECT_EQ(1, m_slow->Running());
    EXPECT_EQ(nullptr, second->AddDataSrc(m_quick, 0));
    EXPECT_EQ(0, m_slow->Running());
    EXPECT_EQ(0u, m_slow->Notified());
    EXPECT_EQ(1, m_quick->Running());
    second->Leave(&sink, PACKET_TYPE_RTP);
    EXPECT_EQ(0, m_quick->Running());
    EXPECT_EQ(0, m_svr->DelLiveChannel("second"));
    EXPECT_EQ(m_slow, second->AddDataSrc(m_slow, 0));  // refused, as the channel is closed
    second->DelRef(1);
    first->DelRef(1);
    m_slow->Close();  // the caller's again
    EXPECT_TRUE(Closed(1));
}

TEST_F(LiveTest, ASourceMayBeClosedWhileACallIsInside) {
    CCollectingSink sink;
    m_slow->door.Set(false);
    std::thread client([&] { Enter("slow", sink); });
    EXPECT_TRUE(WaitUntil([&] { return m_slow->door.Waiting() == 1; }));
    CLiveChannel* const channel = m_svr->GetLiveChannel("slow", 1);
    m_slow->Close();  // by the host, the wrong way round
    EXPECT_EQ(0, m_svr->DelLiveChannel("slow"));
    EXPECT_EQ(0, m_closed);
    m_slow->door.Set(true);
    client.join();
    EXPECT_TRUE(Closed(1));
    SrcInfo info;
    EXPECT_EQ(-1, channel->GetSrcInfo(info, 1));
    channel->Leave(&sink, PACKET_TYPE_RTP);
    channel->DelRef(1);
}

// Channels of the library's own source over a host's. The pool has one thread.
class HostSourceTest : public testing::Test {
protected:
    // A source, and the host's behind it.
    std::pair<CDataSource*, CFakeStreamSource*> Open() {
        CFakeStreamSource::SetNext(CFakeStreamSource::LiveVideo());
        CRtspSvrConfig config;
        config.SetSrcFunc(&CFakeStreamSource::Factory);
        CDataSource* source = CDataSource::Create("cam/realmonitor?channel=1&subtype=0");
        source->SetConfig(config);
        EXPECT_EQ(0, source->Init(0, 0));
        return {source, CFakeStreamSource::Last()};
    }
    static void EnterWhenReady(CLiveChannel* channel, CCollectingSink& sink) {
        CSdpParser sdp;
        ASSERT_TRUE(WaitUntil([&] { return channel->GetSdp(sdp) == 0; }));
        ASSERT_EQ(0, channel->Enter(&sink, PACKET_TYPE_RTP));
    }

    CPool m_pool{1};
    const Flumen::CMediaFrame m_frame = BuildPicture(true, 500, 7);
    CCollectingSink m_sinks[2];
};

// Two channels on one host source, both of which go from inside the frame callback. The host's Stop waits for that
// callback, and so is left to the pool.
TEST_F(HostSourceTest, AChannelMayGoFromInsideItsFrameCallback) {
    const auto [source, host] = Open();
    CLiveSvr* const svr = CLiveSvr::Create(0);
    for (const int i : {0, 1}) {
        const char* name = i == 0 ? "a" : "b";
        CLiveChannel* channel = make_channel(name, source);
        ASSERT_EQ(0, svr->AddLiveChannel(name, channel, source));
        EnterWhenReady(channel, m_sinks[i]);
    }
    ASSERT_TRUE(host->Give(m_frame));
    EXPECT_EQ(1u, m_sinks[0].Count());
    EXPECT_EQ(1u, m_sinks[1].Count());
    EXPECT_EQ(1, host->CountCalls("Start"));
    m_sinks[0].on_put = [&] { EXPECT_EQ(0, svr->DelLiveChannel("a")); };
    ASSERT_TRUE(host->Give(m_frame));
    EXPECT_EQ(2u, m_sinks[1].Count());
    EXPECT_EQ(0, host->CountCalls("Stop"));  // the other channel has it
    m_sinks[0].on_put = nullptr;             // it never left, and may get what comes before its channel ends
    m_sinks[1].on_put = [&, held = source] {
        EXPECT_EQ(0, svr->DelLiveChannel("b"));
        held->Close();
    };
    ASSERT_TRUE(host->Give(m_frame));
    EXPECT_TRUE(WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
    svr->Close();
}

// A channel gets another source inside a frame callback, and the pool can't stop the former one yet.
TEST_F(HostSourceTest, AFormerSourceGivesNothingFromTheChangeOn) {
    const int handlers = Tramel::CReactor::Instance().CountHandlers();
    const std::pair<CDataSource*, CFakeStreamSource*> former = Open(), next = Open();
    CLiveChannel* const channel = make_channel("a", former.first);
    CCollectingSink& sink = m_sinks[0];
    EnterWhenReady(channel, sink);
    sink.on_put = [&] {
        if (sink.Count() == 0) {
            EXPECT_EQ(former.first, channel->AddDataSrc(next.first, 0));
        }
    };
    CDoor door;
    door.Set(false);
    CTestHandler* const keeper = CTestHandler::Make();  // of the pool's one thread
    keeper->on_message = [&door](long, unsigned int, long) {
        door.Pass();
        return 0;
    };
    keeper->Notify(keeper->GetID(), 5000, 0);
    ASSERT_TRUE(WaitUntil([&] { return door.Waiting() == 1; }));
    ASSERT_TRUE(former.second->Give(m_frame));
    ASSERT_TRUE(former.second->Give(m_frame));
    EXPECT_EQ(1u, sink.Count());
    door.Set(true);
    EXPECT_TRUE(WaitUntil([&] { return next.second->Give(m_frame); }));
    EXPECT_EQ(2u, sink.Count());
    EXPECT_TRUE(WaitUntil([&] { return former.second->CountCalls("Stop") == 1; }));
    // What is started while it has a source and stopped while it has none is started no more.
    EXPECT_EQ(0, channel->Leave(&sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, channel->StartStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(next.first, channel->AddDataSrc(nullptr, 0));
    EXPECT_EQ(-1, channel->StopStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(nullptr, channel->AddDataSrc(next.first, 0));
    EXPECT_EQ(next.second->CountCalls("Start"), next.second->CountCalls("Stop"));
    channel->DelRef(1);  // nobody's: the channel ends all the same
    channel->Close();
    keeper->Close();
    former.first->Close();
    next.first->Close();
    EXPECT_TRUE(WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
    EXPECT_TRUE(WaitUntil([=] { return Tramel::CReactor::Instance().CountHandlers() <= handlers; }));
}

}  // namespace
}  // namespace Kavio::Vidora
