// What the item RTSP_SVR_CONFIG_CONFORMANCE changes in a conversation; what it leaves is in conversation_test.
#include <set>

#include "Vidora/Ostra/ByteReader.h"
#include "server/ServerFixture.h"
#include "support/Descriptors.h"
#include "support/TestClock.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {
namespace {

class Conformance : public CServerTest {
protected:
    Conformance() { Set(RTSP_SVR_CONFIG_CONFORMANCE, 1); }
    void CheckTimes(const std::string& content, size_t pictures);
};

// Gives a key frame of that second of a recording.
bool GiveAt(CFakeStreamSource* source, unsigned int second) {
    FrameSpec fields = {'I', 0, second * 1000, H264Picture(true, 100, 0)};
    fields.utc += second;
    return source->Give(BuildFrame(fields));
}

// The RTP times of the media that come until none does for some time.
std::set<std::string> TimesOf(CRtspTestClient& client, int first_wait_ms = 200) {
    std::set<std::string> times;
    for (RtspFrame frame = client.Frame(first_wait_ms); frame.channel >= 0; frame = client.Frame(200)) {
        times.insert(frame.channel == 0 ? frame.data.substr(4, 4) : "");
    }
    times.erase("");
    return times;
}

TEST_F(Conformance, ALiveSessionPausesAndGoesOnWithAKeyFrame) {
    CFakeStreamSource* source = StartWithChannel();
    CRtspTestClient other(m_port);
    PlayInterleaved(other);
    // The client stands in the channel shortly after the reply to PLAY.
    const auto first_packet = [source](CRtspTestClient& client) {
        RtspFrame frame;
        WaitUntil([&] {
            Give(source, 11);  // of no use without a key frame
            Give(source, 20);
            frame = client.Frame(50);
            return frame.channel == 0;
        });
        return frame.data.size() > 12 ? frame.data[12] & 31 : 0;
    };
    first_packet(other);
    for (const std::string& url : {Url(), Url() + "/trackID=0"}) {
        SCOPED_TRACE(url);
        CRtspTestClient client(m_port);
        PlayInterleaved(client);
        first_packet(client);
        EXPECT_EQ(200, client.Ask("PAUSE", url).status);
        TimesOf(client);
        ASSERT_TRUE(Give(source, 20));
        EXPECT_TRUE(TimesOf(client, 100).empty());
        const RtspReply reply = client.Ask("PLAY", url, "Scale: 2\r\n");
        EXPECT_EQ(200, reply.status);
        EXPECT_EQ("1.000", reply.Header("Scale"));
        EXPECT_EQ(7, first_packet(client)) << "no parameter set";
    }
    EXPECT_EQ(1, source->CountCalls("Start"));
    EXPECT_EQ(0, source->CountCalls("Stop"));
}

// Of a recording by its name or by a token, whose host keeps the range by itself.
TEST_F(Conformance, ARangeEndsAndNoTimeComesTwice) {
    StartServer();
    for (const bool is_token : {false, true}) {
        SCOPED_TRACE(is_token);
        const src_type_t type = is_token ? SRC_TYPE_TOKEN : SRC_TYPE_FILE;
        CFakeStreamSource::SetNext(CFakeStreamSource::LiveVideo([type](auto& settings) { settings.type = type; }));
        CheckTimes(is_token ? "cam/playback?token=abc" : FILE_CONTENT, is_token ? 3 : 2);
    }
}

void Conformance::CheckTimes(const std::string& content, size_t pictures) {
    CRtspTestClient client(m_port);
    Prepare(client, INTERLEAVED, content);
    std::set<std::string> seen;
    int resumes = 0;
    for (const char* range : {"Range: npt=3-5\r\n", "Range: npt=1-5\r\n", "Range: npt=5-4\r\nScale: -1\r\n"}) {
        SCOPED_TRACE(range);
        EXPECT_EQ(200, client.Ask("PLAY", Url(content), range).status);
        // The second one resumes the source, shortly after the reply.
        ASSERT_TRUE(WaitUntil([=] { return CFakeStreamSource::Last()->CountCalls("Resume") == resumes; }));
        ++resumes;
        for (const unsigned int second : {3u, 4u, 5u}) {
            ASSERT_TRUE(WaitUntil([=] { return GiveAt(CFakeStreamSource::Last(), second); }));
        }
        std::set<std::string> times = TimesOf(client, 10000);
        EXPECT_EQ(pictures, times.size());  // the second 5 is outside, or 3 backwards
        seen.merge(times);
        EXPECT_TRUE(times.empty()) << "a time came twice";
    }
}

// The fields of a sender report (RFC 3550 6.4.1).
struct Report {
    uint64_t ntp = 0;
    uint32_t rtp_time = 0;
    uint32_t packets = 0;
    uint32_t octets = 0;
    bool bye = false;
};

// The next report that the client gets; `media` counts the packets and payload before it.
Report NextReport(CRtspTestClient& client, Report& media) {
    RtspFrame frame = client.Frame();
    for (; frame.channel == 0; frame = client.Frame()) {
        ++media.packets;
        media.octets += static_cast<uint32_t>(frame.data.size()) - 12;
        media.rtp_time = CByteReader(frame.data.data() + 4, 4).ReadU32();
    }
    Report report;
    CByteReader reader(frame.data.data(), frame.data.size());
    reader.Skip(8);
    report.ntp = uint64_t{reader.ReadU32()} << 32;
    report.ntp |= reader.ReadU32();
    report.rtp_time = reader.ReadU32();
    report.packets = reader.ReadU32();
    report.octets = reader.ReadU32();
    report.bye = frame.data.find("End of Stream") != std::string::npos;
    EXPECT_TRUE(reader.Ok());
    return report;
}

TEST_F(Conformance, ReportsFollowTheFirstMediaAndNeverStep) {
    StartServer();
    CFakeStreamSource::SetNext(CFakeStreamSource::FileVideo());
    CRtspTestClient client(m_port);
    PlayInterleaved(client, FILE_CONTENT);
    CFakeStreamSource* source = CFakeStreamSource::Last();
    Report media;
    ASSERT_TRUE(WaitUntil([=] { return GiveAt(source, 3); }));
    const Report first = NextReport(client, media);
    EXPECT_EQ(media.rtp_time, first.rtp_time);
    EXPECT_EQ(media.packets, first.packets);
    EXPECT_EQ(media.octets, first.octets);
    const uint64_t unix_s = (first.ntp >> 32) - 2208988800U;
    EXPECT_NEAR(static_cast<double>(CTime::getCurrentTime().makeTime()), static_cast<double>(unix_s), 60);
    ASSERT_TRUE(GiveAt(source, 5));
    AdvanceClock(5100);
    const Report second = NextReport(client, media);
    EXPECT_EQ(180000u, second.rtp_time - first.rtp_time);
    EXPECT_NEAR(2.0, static_cast<double>(second.ntp - first.ntp) / 4294967296.0, 0.000001);
    EXPECT_FALSE(first.bye || second.bye);
    const auto end = [&] {
        source->SetPacketState(PACKET_STATE_END);
        GiveAt(source, 6);
        EXPECT_TRUE(NextReport(client, media).bye);
    };
    end();
    // The client that has been told may go back.
    source->SetPacketState(PACKET_STATE_RUNS);
    EXPECT_EQ(200, client.Ask("PLAY", Url(FILE_CONTENT), "Range: npt=3-\r\n").status);
    ASSERT_TRUE(Support::WaitUntil([=] { return source->CountCalls("Resume") == 1; }));
    ASSERT_TRUE(GiveAt(source, 4));
    EXPECT_FALSE(NextReport(client, media).bye);
    end();
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
    Support::AdvanceClock(5100);
    EXPECT_TRUE(client.Closed());

    // A live channel that is withdrawn lets its viewers take leave, the host's end doesn't.
    for (const bool is_withdrawn : {true, false}) {
        CFakeStreamSource* live = AddChannel();
        CRtspTestClient viewer(m_port);
        PlayInterleaved(viewer);
        ASSERT_TRUE(Give(live, 10));
        EXPECT_FALSE(NextReport(viewer, media).bye);
        if (!is_withdrawn) {
            m_svr->EndSessions(0);
            EXPECT_TRUE(NextReport(viewer, media).bye);
        } else {
            EXPECT_EQ(0, m_live_svr->DelLiveChannel(LIVE_NAME));
            EXPECT_TRUE(NextReport(viewer, media).bye);
            EXPECT_EQ(455, viewer.Ask("PLAY", Url()).status);
            AdvanceClock(5100);
        }
        EXPECT_TRUE(viewer.Closed());
    }
}

// As where the route to the client is away for a while.
TEST_F(Conformance, ReportThatCannotBeSentEndsNoSession) {
    CFakeStreamSource* source = StartWithChannel();
    CUdpPeer viewer;
    CRtspTestClient client(m_port);
    shutdown(UdpSocketAt(ServerPort(Play(client, UdpTransport(viewer.Port()))) + 1), SHUT_WR);
    const CLogCapture log;
    ASSERT_TRUE(Give(source, 10));
    EXPECT_TRUE(WaitUntil([&] { return log.Count("udp media send") > 0; }));
    EXPECT_EQ(200, client.Ask("OPTIONS", "*").status);
}

}  // namespace
}  // namespace Kavio::Vidora
