// The client session against the library's own server.

#include <gtest/gtest.h>

#include "Vidora/SdpInfo.h"
#include "server/ServerFixture.h"
#include "support/ClientHost.h"
#include "support/Loopback.h"

namespace Kavio::Vidora {
namespace {

class CPullTest : public CServerTest {};

// Gives frames until `done` holds.
template <typename Done>
bool GiveUntil(CFakeStreamSource* source, Done done) {
    unsigned int sequence = 0;
    return WaitUntil([&] {
        GiveVideo(source, sequence++, 3000);
        return done();
    });
}

TEST_F(CPullTest, MediaComesByEveryWay) {
    const struct {
        rtp_protocol_t transport;
        packet_type_t kind;
        bool conformance;
    } ways[] = {{RTP_OVER_RTSP, PACKET_TYPE_RTP, false},
                {RTP_OVER_RTSP, PACKET_TYPE_RTP, true},
                {RTP_OVER_RTSP, PACKET_TYPE_KX, false},
                {RTP_OVER_UDP, PACKET_TYPE_NONE, false}};
    CFakeStreamSource* source = StartWithChannel();
    for (const auto& way : ways) {
        SCOPED_TRACE(&way - ways);
        CClientHost host;
        host.session->SetPacketType(way.kind);
        host.session->SetConformance(way.conformance);
        ASSERT_TRUE(host.Plays(Url(), way.transport));
        EXPECT_TRUE(GiveUntil(source, [&] { return host.sink.Count() > 20; }));
        CSdpInfo* info = host.session->GetSdpInfo();
        ASSERT_NE(nullptr, info);
        EXPECT_STREQ("H264", info->GetPayloadNameEx('V'));
        const RtspClientStatistics statistics = host.Statistics();
        EXPECT_GT(statistics.packets, 5u);
        EXPECT_GT(statistics.bytes, 1000u);
        EXPECT_EQ(0u, statistics.lost);
        host.Close();
        EXPECT_TRUE(SessionsGone());
        EXPECT_EQ(0, host.Count(MSG_RTSP_TEARDOWN));
    }
}

TEST_F(CPullTest, MediaComesOverIPv6) {
    StartServer();
    const int port = CBoundSocket(SOCK_STREAM).Port();
    CSockAddrStorage addr("::1", static_cast<unsigned short>(port));
    CRtspSvr* svr = CRtspSvr::Create(addr);
    if (svr == nullptr) {
        GTEST_SKIP() << "no IPv6 here";
    }
    svr->SetLiveSvr(m_live_svr);
    svr->SetConfig(m_config);
    CFakeStreamSource* source = AddChannel();
    for (const rtp_protocol_t transport : {RTP_OVER_RTSP, RTP_OVER_UDP}) {
        CClientHost host;
        ASSERT_TRUE(host.Plays("rtsp://[::1]:" + std::to_string(port) + "/" + LIVE_NAME, transport)) << transport;
        EXPECT_TRUE(GiveUntil(source, [&] { return host.sink.Count() > 20; })) << transport;
    }
    svr->Close();
}

TEST_F(CPullTest, ARecordingWithASilentTrackEndsByItselfByConformance) {
    m_config.SetConformance(true);
    StartServer();
    for (const rtp_protocol_t transport : {RTP_OVER_RTSP, RTP_OVER_UDP}) {
        CFakeStreamSource::SetNext(SoundAndPictures(true));
        CClientHost host;
        host.session->SetConformance(true);
        host.session->SetPacketType(PACKET_TYPE_RTP);
        ASSERT_TRUE(host.Plays(Url(FILE_CONTENT), transport));
        ASSERT_TRUE(Give(CFakeStreamSource::Last(), 0));
        EXPECT_TRUE(WaitUntil([&] { return host.sink.Count() > 0; }));
        CFakeStreamSource::Last()->Tell(MSG_SRC_END);
        EXPECT_EQ(RTSP_CLIENT_CODE_ENDED, host.EndCode()) << transport;
    }
}

TEST_F(CPullTest, SlowSinkHoldsUpItsOwnSessionOnly) {
    CFakeStreamSource* source = StartWithChannel();
    std::atomic<bool> holds{true};
    std::atomic<int> held{0};
    {
        CClientHost slow;
        CClientHost quick;
        slow.sink.on_put = [&] {
            ++held;
            WaitUntil([&] { return !holds; });
        };
        for (CClientHost* host : {&slow, &quick}) {
            ASSERT_TRUE(host->Plays(Url()));
        }
        EXPECT_TRUE(GiveUntil(source, [&] { return held > 0 && quick.sink.Count() > 50; }));
        EXPECT_EQ(1, held);
        holds = false;
    }
    EXPECT_TRUE(SessionsGone());
}

TEST_F(CPullTest, MulticastIsJoinedOnTheInterfaceOfTheConnection) {
    CFakeStreamSource* source = StartWithChannel();
    CLiveChannel* channel = m_channels.back();
    const int port = CBoundSocket(SOCK_DGRAM).Port() & ~1;
    CSockAddrStorage group("239.255.77.1", static_cast<unsigned short>(port));
    ASSERT_EQ(0, channel->AddTransfDst(group, "127.0.0.1"));
    channel->SetUnicast(false);
    ASSERT_EQ(0, channel->StartStreaming(PACKET_TYPE_RTP));
    CClientHost host;
    ASSERT_TRUE(host.Plays(Url(), RTP_OVER_UDP));
    EXPECT_TRUE(GiveUntil(source, [&] { return host.sink.Count() > 20; }));
    channel->StopStreaming(PACKET_TYPE_RTP);
}

}  // namespace
}  // namespace Kavio::Vidora
