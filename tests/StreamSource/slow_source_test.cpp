// Several channels on one source, and a host that takes its time: what the others see of it.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Protocol/SdpParser.h"
#include "Tramel/Reactor.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "support/FakeStreamSource.h"
#include "support/FrameBuilder.h"
#include "support/TestHandler.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CFakeStreamSource;
using Support::CPool;
using Support::CTestHandler;
using Support::WaitUntil;

const char CONTENT[] = "cam/realmonitor?channel=1&subtype=0";
const int POOL_THREADS = 3;

// A door that calls wait at while it is shut.
class CDoor {
public:
    void Pass() {
        std::unique_lock<std::mutex> guard(m_mutex);
        ++m_waiting;
        m_changed.wait(guard, [this] { return m_open; });
        --m_waiting;
    }
    void Set(bool open) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_open = open;
        m_changed.notify_all();
    }
    int Waiting() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_waiting;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = true;
    int m_waiting = 0;
};

// A data source whose Start, Stop and description wait at its door, and which counts.
class CSlowSource : public CDataSource {
public:
    explicit CSlowSource(std::atomic<int>* closed) : m_closed(closed) {}
    int Init(long, int) override { return 0; }
    void AddNotify(long id) override {
        DelNotify(id);
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_notified.push_back(id);
    }
    void DelNotify(long id) override {
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_notified.erase(std::remove(m_notified.begin(), m_notified.end(), id), m_notified.end());
    }
    int Play(const UtcTime&, const UtcTime&, float, bool) override { return 0; }
    int Play(uint64_t, uint64_t, float, bool) override { return 0; }
    int Pause() override { return -1; }
    int StartStreaming(packet_type_t type, CMediaBuffer*, int) override {
        const CInside inside(*this);
        ++m_starts;
        m_running += m_start_fails ? 0 : 1;
        return m_start_fails || type == PACKET_TYPE_NONE ? -1 : 0;
    }
    int StopStreaming(packet_type_t) override {
        const CInside inside(*this);
        ++m_stops;
        return --m_running > 0 ? -1 : 0;
    }
    using CDataSource::GetSdp;
    int GetSdp(CSdpParser& sdp) override {
        const CInside inside(*this);
        sdp.add_media("video", 0, 1, "RTP/AVP", "96");
        sdp.GetStream();
        return 0;
    }
    int GetSrcInfo(SrcInfo&, int) override { return 0; }
    int GetPlayRange(UtcTime&, UtcTime&) override { return -1; }
    int GetPlayRange(uint64_t&, uint64_t&) override { return -1; }
    int GetTcpChannel(int) override { return 2; }
    unsigned int GetSSRC(int) override { return 77; }
    int handle_close(CNetHandler*) override {
        EXPECT_EQ(0, m_inside);
        std::atomic<int>* closed = m_closed;
        delete this;
        ++*closed;
        return 0;
    }
    size_t Notified() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_notified.size();
    }

    CDoor m_door;
    std::atomic<int> m_inside{0};
    std::atomic<int> m_most{0};  // calls that were inside at once
    std::atomic<int> m_starts{0};
    std::atomic<int> m_stops{0};
    std::atomic<int> m_running{0};
    std::atomic<bool> m_start_fails{false};

private:
    struct CInside {
        explicit CInside(CSlowSource& source) : m_source(source) {
            const int inside = ++m_source.m_inside;
            m_source.m_most = std::max(m_source.m_most.load(), inside);
            m_source.m_door.Pass();
        }
        ~CInside() { --m_source.m_inside; }
        CSlowSource& m_source;
    };

    std::atomic<int>* m_closed;
    std::mutex m_mutex;
    std::vector<long> m_notified;
};

class CSink : public CLevel2Buffer_IF {
public:
    int Put(CMediaPacket*, int length, int, int) override {
        ++m_count;
        if (on_put) {
            on_put();
        }
        return length;
    }
    std::atomic<int> m_count{0};
    std::function<void()> on_put;
};

CLiveChannel* make_channel(const char* name, CDataSource* source) {
    CLiveChannel* channel = CLiveChannel::Create();
    EXPECT_EQ(0, channel->Init(name, 0, TRANSF_TYPE_RTP));
    channel->AddDataSrc(source, 0);
    return channel;
}

// A registry with a slow source "slow" and a quick one "quick".
class SharedSource : public testing::Test {
protected:
    void SetUp() override {
        for (CSlowSource* source : {m_slow, m_quick}) {
            const char* name = source == m_slow ? "slow" : "quick";
            ASSERT_EQ(0, m_svr->AddLiveChannel(name, make_channel(name, source), source));
        }
    }
    void TearDown() override {
        m_slow->m_door.Set(true);
        m_svr->Close();
        EXPECT_TRUE(WaitUntil([this] { return m_closed == m_sources; }));
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
    int m_sources = 2;
    CSlowSource* m_slow = new CSlowSource(&m_closed);
    CSlowSource* m_quick = new CSlowSource(&m_closed);
    CPool m_pool{POOL_THREADS};
    CLiveSvr* m_svr = CLiveSvr::Create(0);
};

TEST_F(SharedSource, ASlowHostHoldsUpOneThreadWhoeverComesAndGoes) {
    const int clients = 4 * POOL_THREADS;
    std::vector<CSink> sinks(static_cast<size_t>(clients));
    m_slow->m_door.Set(false);
    std::atomic<int> through{0};
    for (CSink& sink : sinks) {
        OnPool([&] {
            m_svr->EnterLiveChannel("slow", &sink, PACKET_TYPE_RTP);
            ++through;
        });
    }
    // All but the one that is inside are through, and so is whatever other channels' clients do.
    EXPECT_TRUE(WaitUntil([&] { return through == clients - 1; }));
    EXPECT_EQ(1, m_slow->m_door.Waiting());
    std::atomic<int> answered{0};
    for (int i = 0; i < clients; ++i) {
        OnPool([&] {
            CLiveChannel* channel = m_svr->GetLiveChannel("quick", 1);
            CSdpParser sdp;
            CSink sink;
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
        EXPECT_EQ(0, m_svr->LeaveLiveChannel("slow", &sinks[static_cast<size_t>(i)], PACKET_TYPE_RTP));
    }
    m_slow->m_door.Set(true);
    EXPECT_TRUE(WaitUntil([&] { return through == clients && m_slow->m_running == clients - clients / 2; }));
    m_slow->m_door.Set(false);
    for (int i = clients / 2; i < clients; ++i) {
        OnPool([&, i] { m_svr->LeaveLiveChannel("slow", &sinks[static_cast<size_t>(i)], PACKET_TYPE_RTP); });
    }
    EXPECT_TRUE(WaitUntil([&] { return m_slow->m_door.Waiting() == 1; }));
    EXPECT_EQ(0, m_svr->QueryLiveChannel("quick"));
    m_slow->m_door.Set(true);
    EXPECT_TRUE(WaitUntil([&] { return m_slow->m_running == 0; }));
    EXPECT_EQ(m_slow->m_starts, m_slow->m_stops);
    EXPECT_EQ(1, m_slow->m_most);
}

TEST_F(SharedSource, ADeletedChannelUndoesItsOwnStartsAndIsOffTheSourcesList) {
    CSink sink;
    EXPECT_EQ(2u, m_slow->Notified());  // the channel and the registry
    for (int i = 0; i < 3; ++i) {
        CLiveChannel* channel = make_channel("other", m_slow);
        ASSERT_EQ(0, m_svr->AddLiveChannel("other", channel, m_slow));
        EXPECT_EQ(0, channel->StartStreaming(PACKET_TYPE_KX));
        EXPECT_EQ(0, m_svr->EnterLiveChannel("other", &sink, PACKET_TYPE_RTP));
        EXPECT_EQ(0, m_svr->EnterLiveChannel("slow", &sink, PACKET_TYPE_RTP));
        EXPECT_EQ(3, m_slow->m_running);
        EXPECT_EQ(0, m_svr->DelLiveChannel("other"));
        EXPECT_EQ(1, m_slow->m_running);
        EXPECT_EQ(2u, m_slow->Notified());
        EXPECT_EQ(0, m_svr->LeaveLiveChannel("slow", &sink, PACKET_TYPE_RTP));
        EXPECT_EQ(0, m_slow->m_running);
    }
}

TEST_F(SharedSource, AStartThatFailedIsStoppedByNobody) {
    CSink sink;
    CLiveChannel* channel = m_svr->GetLiveChannel("slow", 1);
    m_slow->m_start_fails = true;
    EXPECT_EQ(-1, channel->StartStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(-1, channel->StopStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_svr->EnterLiveChannel("slow", &sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("slow", &sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_slow->m_stops);
    // The next client brings those that wait along.
    CSink next;
    EXPECT_EQ(0, m_svr->EnterLiveChannel("slow", &sink, PACKET_TYPE_RTP));
    m_slow->m_start_fails = false;
    EXPECT_EQ(0, m_svr->EnterLiveChannel("slow", &next, PACKET_TYPE_RTP));
    EXPECT_EQ(2, m_slow->m_running);
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("slow", &sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("slow", &next, PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_slow->m_running);
    channel->DelRef(1);
}

TEST_F(SharedSource, AClientLeavesTheChannelThatItEntered) {
    CSink sink;
    EXPECT_EQ(0, m_svr->EnterLiveChannel("slow?x=11&y=22", &sink, PACKET_TYPE_RTP));  // served by the plain name
    ASSERT_EQ(0, m_svr->AddLiveChannel("slow?x=11&y=22", make_channel("full", m_quick), m_quick));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("slow?x=11&y=22", &sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_slow->m_running);
    EXPECT_EQ(0, m_quick->m_stops);
}

TEST_F(SharedSource, APublishedChannelIsRefusedAndMayBeClosedByTheHost) {
    CLiveSvr* const other = CLiveSvr::Create(0);
    CLiveChannel* const channel = m_svr->GetLiveChannel("slow", 1);
    EXPECT_EQ(-1, m_svr->AddLiveChannel("twice", channel, m_slow));
    EXPECT_EQ(-1, other->AddLiveChannel("twice", channel, m_slow));
    channel->Close();
    EXPECT_EQ(-1, m_svr->QueryLiveChannel("slow"));
    EXPECT_EQ(-1, channel->AddRef(2));
    channel->DelRef(1);
    EXPECT_EQ(0, m_svr->DelLiveChannel("slow"));  // closes the source
    EXPECT_TRUE(WaitUntil([&] { return m_closed == 1; }));
    m_slow = m_quick;
    other->Close();
}

TEST_F(SharedSource, SourcesChangePlacesUnderAPlayingClient) {
    CSink sink;
    CLiveChannel* const channel = m_svr->GetLiveChannel("slow", 1);
    EXPECT_EQ(0, m_svr->EnterLiveChannel("slow", &sink, PACKET_TYPE_RTP));
    CSlowSource* const next = new CSlowSource(&m_closed);
    ++m_sources;
    ASSERT_EQ(m_slow, channel->AddDataSrc(next, 0));
    EXPECT_EQ(0, m_slow->m_running);
    EXPECT_EQ(0u, m_slow->Notified());
    EXPECT_EQ(1, next->m_running);
    m_slow->Close();  // the caller's again
    EXPECT_TRUE(WaitUntil([&] { return m_closed == 1; }));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("slow", &sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, next->m_running);
    channel->DelRef(1);
    m_slow = next;  // the registry's by now
}

TEST_F(SharedSource, AFormerSourceOfTwoChannelsIsGivenBackOnce) {
    CLiveChannel* const first = m_svr->GetLiveChannel("slow", 1);
    CLiveChannel* const second = make_channel("second", m_slow);
    second->AddRef(1);
    ASSERT_EQ(0, m_svr->AddLiveChannel("second", second, m_slow));
    CSink sink;
    EXPECT_EQ(0, second->Enter(&sink, PACKET_TYPE_RTP));
    EXPECT_EQ(nullptr, first->AddDataSrc(m_slow, 0));  // the registry has it still
    EXPECT_EQ(m_slow, first->AddDataSrc(m_quick, 0));
    EXPECT_EQ(1, m_slow->m_running);
    EXPECT_EQ(nullptr, second->AddDataSrc(m_quick, 0));
    EXPECT_EQ(0, m_slow->m_running);
    EXPECT_EQ(0u, m_slow->Notified());
    EXPECT_EQ(1, m_quick->m_running);
    second->Leave(&sink, PACKET_TYPE_RTP);
    EXPECT_EQ(0, m_svr->DelLiveChannel("second"));
    EXPECT_EQ(m_slow, second->AddDataSrc(m_slow, 0));  // refused, as the channel is closed
    second->DelRef(1);
    first->DelRef(1);
    m_slow->Close();
    EXPECT_TRUE(WaitUntil([&] { return m_closed == 1; }));
    m_slow = m_quick;
}

TEST_F(SharedSource, ASourceMayBeClosedWhileACallIsInside) {
    CSink sink;
    m_slow->m_door.Set(false);
    std::thread client([&] { m_svr->EnterLiveChannel("slow", &sink, PACKET_TYPE_RTP); });
    EXPECT_TRUE(WaitUntil([&] { return m_slow->m_door.Waiting() == 1; }));
    CLiveChannel* const channel = m_svr->GetLiveChannel("slow", 1);
    m_slow->Close();  // by the host, the wrong way round
    EXPECT_EQ(0, m_svr->DelLiveChannel("slow"));
    EXPECT_EQ(0, m_closed);
    m_slow->m_door.Set(true);
    client.join();
    EXPECT_TRUE(WaitUntil([&] { return m_closed == 1; }));
    SrcInfo info;
    EXPECT_EQ(-1, channel->GetSrcInfo(info, 1));
    channel->Leave(&sink, PACKET_TYPE_RTP);
    channel->DelRef(1);
    m_slow = m_quick;
}

// Two channels on one host source, both of which go from inside the frame callback. The host's Stop waits for that
// callback, and so is left to the pool.
TEST(SharedHostSource, AChannelMayGoFromInsideItsFrameCallback) {
    CPool pool(POOL_THREADS);
    CFakeStreamSource::SetNext(CFakeStreamSource::LiveVideo());
    CRtspSvrConfig config;
    config.SetConfig(RTSP_SVR_CONFIG_SRC_FUNC, reinterpret_cast<const void*>(&CFakeStreamSource::Factory),
                     sizeof(&CFakeStreamSource::Factory));
    CDataSource* source = CDataSource::Create(CONTENT);
    source->SetConfig(config);
    ASSERT_EQ(0, source->Init(0, 0));
    CFakeStreamSource* host = CFakeStreamSource::Last();
    CLiveSvr* const svr = CLiveSvr::Create(0);
    CSink sinks[2];
    CSdpParser sdp;
    for (const int i : {0, 1}) {
        const char* name = i == 0 ? "a" : "b";
        CLiveChannel* channel = make_channel(name, source);
        ASSERT_EQ(0, svr->AddLiveChannel(name, channel, source));
        ASSERT_TRUE(WaitUntil([&] { return channel->GetSdp(sdp) == 0; }));
        ASSERT_EQ(0, svr->EnterLiveChannel(name, &sinks[i], PACKET_TYPE_RTP));
    }
    Support::FrameSpec fields;
    fields.type = 'I';
    fields.payload = Support::H264Picture(true, 500, 7);
    const Flumen::CMediaFrame frame = Support::BuildFrame(fields);
    ASSERT_TRUE(host->Give(frame));
    EXPECT_EQ(1, sinks[0].m_count);
    EXPECT_EQ(1, sinks[1].m_count);
    EXPECT_EQ(1, host->CountCalls("Start"));
    sinks[0].on_put = [&] { EXPECT_EQ(0, svr->DelLiveChannel("a")); };
    ASSERT_TRUE(host->Give(frame));
    EXPECT_EQ(2, sinks[1].m_count);
    EXPECT_EQ(0, host->CountCalls("Stop"));  // the other channel has it
    sinks[0].on_put = nullptr;               // it never left, and may get what comes before its channel ends
    sinks[1].on_put = [&] {
        EXPECT_EQ(0, svr->DelLiveChannel("b"));
        source->Close();
    };
    ASSERT_TRUE(host->Give(frame));
    EXPECT_TRUE(WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
    svr->Close();
}

// A channel gets another source inside a frame callback, and the pool can't stop the former one yet.
TEST(SharedHostSource, AFormerSourceGivesNothingFromTheChangeOn) {
    CPool pool(1);
    const int handlers = Tramel::CReactor::Instance().CountHandlers();
    CFakeStreamSource::SetNext(CFakeStreamSource::LiveVideo());
    CRtspSvrConfig config;
    config.SetSrcFunc(&CFakeStreamSource::Factory);
    CDataSource* sources[2];
    CFakeStreamSource* hosts[2];
    for (const int i : {0, 1}) {
        sources[i] = CDataSource::Create(CONTENT);
        sources[i]->SetConfig(config);
        ASSERT_EQ(0, sources[i]->Init(0, 0));
        hosts[i] = CFakeStreamSource::Last();
    }
    CLiveChannel* const channel = make_channel("a", sources[0]);
    CSdpParser sdp;
    ASSERT_TRUE(WaitUntil([&] { return channel->GetSdp(sdp) == 0; }));
    CSink sink;
    ASSERT_EQ(0, channel->Enter(&sink, PACKET_TYPE_RTP));
    sink.on_put = [&] {
        if (sink.m_count == 1) {
            EXPECT_EQ(sources[0], channel->AddDataSrc(sources[1], 0));
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
    Support::FrameSpec fields;
    fields.type = 'I';
    fields.payload = Support::H264Picture(true, 500, 7);
    const Flumen::CMediaFrame frame = Support::BuildFrame(fields);
    ASSERT_TRUE(hosts[0]->Give(frame));
    ASSERT_TRUE(hosts[0]->Give(frame));
    EXPECT_EQ(1, sink.m_count);
    door.Set(true);
    EXPECT_TRUE(WaitUntil([&] { return hosts[1]->Give(frame); }));
    EXPECT_EQ(2, sink.m_count);
    EXPECT_TRUE(WaitUntil([&] { return hosts[0]->CountCalls("Stop") == 1; }));
    // What is started while it has a source and stopped while it has none is started no more.
    EXPECT_EQ(0, channel->Leave(&sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, channel->StartStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(sources[1], channel->AddDataSrc(nullptr, 0));
    EXPECT_EQ(-1, channel->StopStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(nullptr, channel->AddDataSrc(sources[1], 0));
    EXPECT_EQ(hosts[1]->CountCalls("Start"), hosts[1]->CountCalls("Stop"));
    channel->DelRef(1);  // nobody's: the channel ends all the same
    channel->Close();
    keeper->Close();
    for (CDataSource* source : sources) {
        source->Close();
    }
    EXPECT_TRUE(WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
    EXPECT_TRUE(WaitUntil([=] { return Tramel::CReactor::Instance().CountHandlers() <= handlers; }));
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
