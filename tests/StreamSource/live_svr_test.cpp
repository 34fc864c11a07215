#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "Protocol/SdpParser.h"
#include "StreamSource/LiveSvrRef.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/LiveSvr.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "support/TestHandler.h"

namespace Kavio {
namespace Vidora {
namespace {

using Support::CPool;
using Support::CTestHandler;
using Support::WaitUntil;

// A source of one video and one audio medium that counts what is asked of it.
class CCountingSource : public CDataSource {
public:
    explicit CCountingSource(std::atomic<int>* closed) : m_closed(closed) {}
    int Init(long, int) override { return 0; }
    void AddNotify(long id) override { m_notify_id = id; }
    void DelNotify(long) override { m_notify_id = 0; }
    int Play(const UtcTime&, const UtcTime&, float, bool) override { return 0; }
    int Play(uint64_t, uint64_t, float, bool) override { return ++m_plays, 0; }
    int Pause() override { return -1; }
    int StartStreaming(packet_type_t type, CMediaBuffer*, int) override { return ++m_running[type], 0; }
    int StopStreaming(packet_type_t type) override { return --m_running[type], 0; }
    using CDataSource::GetSdp;
    int GetSdp(CSdpParser& sdp) override {
        if (m_sdp_fails) {
            return -1;
        }
        sdp.set_session_attribute("packetization-supported", "KX");
        const int video = sdp.add_media("video", 0, 1, "RTP/AVP", "96");
        sdp.set_media_attribute(video, "rtpmap", "96 H264/90000");
        sdp.add_media("audio", 0, 1, "RTP/AVP", "8");
        sdp.GetStream();
        return 0;
    }
    int GetSrcInfo(SrcInfo&, int) override { return 0; }
    int GetPlayRange(UtcTime&, UtcTime&) override { return -1; }
    int GetPlayRange(uint64_t&, uint64_t&) override { return -1; }
    int GetTcpChannel(int) override { return 2; }
    unsigned int GetSSRC(int) override { return 77; }
    int handle_close(CNetHandler*) override {
        std::atomic<int>* closed = m_closed;
        delete this;
        ++*closed;
        return 0;
    }

    std::atomic<int>* m_closed;
    long m_notify_id = 0;
    int m_plays = 0;
    int m_running[3] = {0, 0, 0};
    bool m_sdp_fails = false;
};

CLiveChannel* make_channel(const char* name, CDataSource* source, transf_type_t type = TRANSF_TYPE_RTP) {
    CLiveChannel* channel = CLiveChannel::Create();
    EXPECT_EQ(0, channel->Init(name, 0, type));
    if (source != nullptr) {
        channel->AddDataSrc(source, 0);
    }
    return channel;
}

// A registry and a source, which is closed at the latest with the registry if that has it.
class LiveTest : public testing::Test {
protected:
    void TearDown() override {
        m_svr->Close();
        EXPECT_TRUE(WaitUntil([this] { return m_closed == 1; }));
    }
    // Registers channels of the source under these names.
    void Publish(const std::vector<const char*>& names) {
        for (const char* name : names) {
            EXPECT_EQ(0, m_svr->AddLiveChannel(name, make_channel(name, m_source), m_source));
        }
    }

    CPool m_pool;
    std::atomic<int> m_closed{0};
    CLiveSvr* m_svr = CLiveSvr::Create(0);
    CCountingSource* m_source = new CCountingSource(&m_closed);
};

TEST_F(LiveTest, LookupFollowsNameAndParameters) {
    const struct {
        std::vector<const char*> names;
        const char* content;
        int served_by;  // index of the name, -1 for none
    } rows[] = {
        {{"c?x=1"}, "c?x=1&y=2", -1},       // a partial match is never given
        {{"c", "c?x=1"}, "c?x=1&y=2", 0},   // a plain name in front of it is
        {{"c?x=1", "c"}, "c?x=1&y=2", -1},  // behind it, it is hidden
        {{"c?x=1&y=2"}, "c?y=2&x=1", 0},    // order doesn't matter
        {{"c?x=1&y=2", "c?x=1"}, "c", 1},   // the fewest parameters serve a plain request
        {{"c?x=1", "c?y=2"}, "c", 0},       // the first of equals
        {{"c?x=1", "c"}, "c", 1},           // a plain name at once
        {{"c"}, "c?a", 0},                  // a last parameter of one character is dropped
        {{"c?aa"}, "c?aa&", 0},             // a trailing "&" adds nothing
        {{"c?xx&&y=1"}, "c?xx&y=1", -1},    // an empty parameter counts
        {{"c", "c"}, "c", 0},               // the first of two equal names
        {{"cam/realmonitor?channel=1&subtype=0", "cam/realmonitor?channel=1&subtype=1"},
         "cam/realmonitor?channel=1&subtype=1",
         1},
        {{"c"}, "d", -1},
    };
    Publish({"last"});  // keeps the source
    for (const auto& row : rows) {
        Publish(row.names);
        CLiveChannel* const expected = row.served_by < 0 ? nullptr : m_svr->GetLiveChannel(row.names[row.served_by], 1);
        CLiveChannel* const found = m_svr->GetLiveChannel(row.content, 2);
        EXPECT_EQ(expected, found) << row.names[0] << " asked for " << row.content;
        EXPECT_EQ(found == nullptr ? -1 : 0, m_svr->QueryLiveChannel(row.content)) << row.content;
        if (expected != nullptr) {
            expected->DelRef(1);
            found->DelRef(2);
        }
        for (const char* name : row.names) {
            EXPECT_EQ(0, m_svr->DelLiveChannel(name));
        }
    }
}

TEST_F(LiveTest, SinksEnterAndLeave) {
    Publish({"c"});
    CLevel2Buffer_IF* const none = nullptr;
    class CSink : public CLevel2Buffer_IF {
    public:
        int Put(CMediaPacket*, int length, int, int) override { return length; }
    } sink;
    EXPECT_EQ(-1, m_svr->LeaveLiveChannel("c", &sink, PACKET_TYPE_RTP));  // never entered
    EXPECT_EQ(0, m_svr->EnterLiveChannel("c", &sink, PACKET_TYPE_RTP));
    EXPECT_EQ(1, m_source->m_running[PACKET_TYPE_RTP]);
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("c", &sink, PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_source->m_running[PACKET_TYPE_RTP]);
    // Another channel has the name of the one that the caller knows.
    CLiveChannel* const known = CLiveChannel::Create();
    EXPECT_EQ(-1, m_svr->EnterLiveChannel("c", &sink, PACKET_TYPE_RTP, known));
    EXPECT_EQ(0, m_source->m_running[PACKET_TYPE_RTP]);
    known->Close();
    // Null counts as a user without a sink, and leaving as null asks for no entry.
    EXPECT_EQ(0, m_svr->EnterLiveChannel("c", none, PACKET_TYPE_TS));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("c", none, PACKET_TYPE_TS));
    EXPECT_EQ(0, m_svr->LeaveLiveChannel("c", none, PACKET_TYPE_TS));
    EXPECT_EQ(-1, m_svr->EnterLiveChannel("d", none, PACKET_TYPE_TS));
    EXPECT_EQ(-1, m_svr->EnterLiveChannel(nullptr, none, PACKET_TYPE_TS));
}

TEST_F(LiveTest, SourceIsClosedWithItsLastName) {
    Publish({"a", "b"});
    EXPECT_EQ(-1, m_svr->AddLiveChannel("c", nullptr, m_source));
    EXPECT_EQ(0, m_svr->DelLiveChannel("a"));
    EXPECT_EQ(-1, m_svr->DelLiveChannel("a"));
    EXPECT_EQ(0, m_closed);
    EXPECT_EQ(0, m_svr->DelLiveChannel("b"));
    EXPECT_TRUE(WaitUntil([&] { return m_closed == 1; }));
}

TEST_F(LiveTest, ChannelOutlivesItsCloseUntilTheLastReference) {
    std::atomic<int> ends{0};
    CTestHandler* user = CTestHandler::Make();
    user->on_message = [&](long, unsigned int msg, long param) {
        ends += msg == MSG_SRC_END && std::string("a") == reinterpret_cast<const char*>(param) ? 1 : 0;
        return 0;
    };
    Publish({"a"});
    CLiveChannel* channel = m_svr->GetLiveChannel("a", user->GetID());
    ASSERT_EQ(channel, m_svr->GetLiveChannel("a", user->GetID()));  // two references, one message
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
    std::atomic<int> source_closed{0};
    CCountingSource* source = new CCountingSource(&source_closed);
    EXPECT_EQ(0, closed->AddLiveChannel("a", make_channel("a", source), source));
    CLiveChannel* const channel = user->GetLiveChannel("a", 1);
    closed->Close();
    EXPECT_TRUE(WaitUntil([&] { return source_closed == 1; }));
    const CLiveSvrRef other = user;
    user = CLiveSvrRef();
    CLevel2Buffer_IF* const none = nullptr;
    EXPECT_EQ(-1, other->QueryLiveChannel("a"));
    EXPECT_EQ(nullptr, other->GetLiveChannel("a", 1));
    EXPECT_EQ(-1, other->EnterLiveChannel("a", none, PACKET_TYPE_RTP));
    EXPECT_EQ(-1, other->AddLiveChannel("a", channel, m_source));
    channel->DelRef(1);
    Publish({"last"});  // has the fixture's source closed
}

TEST_F(LiveTest, ADestinationNeedsAPairOfPortsForEachTrack) {
    CLiveChannel* channel = make_channel("a", m_source);
    CSockAddrStorage group("239.1.2.4", 30100);
    for (int tracks = 1; tracks <= 2; ++tracks) {
        CRtspSvrConfig config;
        const RtpPortRange range = {30200, 30200 + 2 * tracks};
        ASSERT_EQ(0, config.SetConfig(RTSP_SVR_CONFIG_RTP_PORT, &range, sizeof(range)));
        channel->SetConfig(config);
        EXPECT_EQ(tracks < 2 ? -1 : 0, channel->AddTransfDst(group, nullptr));
    }
    EXPECT_EQ(0, channel->DelTransfDst(group, nullptr));
    channel->Close();
    m_source->Close();
}

TEST_F(LiveTest, ChannelDescribesUnicastAndMulticast) {
    m_source->Close();
    for (const transf_type_t type : {TRANSF_TYPE_RTP, TRANSF_TYPE_TS}) {
        std::atomic<int> closed{0};
        CCountingSource* source = new CCountingSource(&closed);
        CLiveChannel* channel = make_channel("a", source, type);
        EXPECT_EQ(1, source->m_plays);
        CSdpParser sdp;
        ASSERT_EQ(0, channel->GetSdp(sdp));
        const std::string unicast = sdp.get_stream();
        EXPECT_NE(std::string::npos, unicast.find("a=range:npt=now-\r\n"));
        EXPECT_NE(std::string::npos, unicast.find("a=packetization-supported:KX\r\n"));
        EXPECT_EQ(type == TRANSF_TYPE_TS, unicast.find("33 MP2T/90000") != std::string::npos);

        CSockAddrStorage group("239.1.2.3", 30000);
        ASSERT_EQ(0, channel->AddTransfDst(group, nullptr));
        EXPECT_EQ(type == TRANSF_TYPE_TS ? 1 : 0, source->m_running[PACKET_TYPE_TS]);
        EXPECT_EQ(0, source->m_running[PACKET_TYPE_RTP]);  // the host starts it itself
        channel->SetUnicast(false);
        ASSERT_EQ(1, channel->GetSdp(sdp));
        const std::string text = sdp.get_stream();
        EXPECT_NE(std::string::npos, text.find("c=IN IP4 239.1.2.3/4\r\n")) << text;
        EXPECT_EQ(std::string::npos, text.find("packetization-supported"));
        EXPECT_NE(std::string::npos, text.find("m=video 30000 RTP/AVP 96\r\n"));
        EXPECT_EQ(type == TRANSF_TYPE_RTP, text.find("m=audio 30002 RTP/AVP 8\r\n") != std::string::npos) << text;
        EXPECT_EQ(-1, channel->DelTransfDst(group, "127.0.0.1"));  // another interface is another destination
        EXPECT_EQ(0, channel->DelTransfDst(group, nullptr));
        EXPECT_EQ(0, source->m_running[PACKET_TYPE_RTP]);  // nobody had started it

        EXPECT_EQ(source, channel->AddDataSrc(nullptr, 0));
        EXPECT_EQ(-1, channel->StartStreaming(PACKET_TYPE_RTP));
        EXPECT_EQ(0u, channel->GetSSRC(1));
        EXPECT_EQ(-1, channel->AddTransfDst(group, nullptr));
        channel->Close();
        source->Close();
        EXPECT_TRUE(WaitUntil([&] { return closed == 1; }));
    }
}

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
