#include <gtest/gtest.h>

#include "Protocol/SdpParser.h"
#include "StreamSource/AudioTable.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "support/Capture.h"
#include "support/CollectingSink.h"
#include "support/FakeStreamSource.h"
#include "support/FrameBuilder.h"
#include "support/SampleTable.h"
#include "support/TestHandler.h"

namespace Kavio::Vidora {
namespace {

using namespace Support;

const packet_type_t ALL_TYPES[] = {PACKET_TYPE_RTP, PACKET_TYPE_KX, PACKET_TYPE_TS};

TEST(AudioTable, ByTheStandardsAlone) {
    AudioMap map;
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/sources.txt", "audio", 5)) {
        SCOPED_TRACE(row[0]);
        ASSERT_TRUE(MapAudio(std::stoi(row[1]), std::stoi(row[2]), true, map));
        EXPECT_EQ(row[0], map.name);
        EXPECT_EQ(row[3], std::to_string(map.payload_type));
        EXPECT_EQ(row[4], std::to_string(map.clock_rate));
    }
    for (const int unplayable : {STREAM_AUDIO_PCM8, STREAM_AUDIO_MS_ADPCM, STREAM_AUDIO_AMR, STREAM_AUDIO_AAC}) {
        EXPECT_FALSE(MapAudio(unplayable, 8000, true, map));
        EXPECT_TRUE(MapAudio(unplayable, 8000, false, map));
    }
}

// One data source over a fake host source, with the messages that its holder gets.
class KXDataTest : public testing::Test {
protected:
    void Open(const CFakeStreamSource::Settings& settings,
              const char* content = "cam/realmonitor?channel=1&subtype=0") {
        CFakeStreamSource::SetNext(settings);
        CRtspSvrConfig config;
        config.SetSrcFunc(&CFakeStreamSource::Factory);
        config.SetConformance(m_conformance);
        m_holder = CTestHandler::Make();
        m_holder->on_message = [this](long, unsigned int msg, long) {
            m_messages.Add(msg);
            return 0;
        };
        m_source = CDataSource::Create(content);
        ASSERT_NE(nullptr, m_source);
        m_source->SetConfig(config);
        m_init_result = m_source->Init(m_holder->GetID(), 0);
        for (int i = 0; i < 3; ++i) {
            m_buffer[i].EnableAutoSend();
            m_buffer[i].AddLevel2Buffer(&m_sink[i]);
        }
    }

    void OpenReady(const CFakeStreamSource::Settings& settings = CFakeStreamSource::LiveVideo(),
                   const char* content = "cam/realmonitor?channel=1&subtype=0") {
        Open(settings, content);
        ASSERT_TRUE(WaitFor(MSG_SRC_READY));
    }

    void TearDown() override {
        if (m_source != nullptr) {
            m_source->Close();
            EXPECT_TRUE(WaitUntil([this] { return Count(MSG_SOURCE_CLOSED) == 1; }));
            m_holder->Close();
        }
        EXPECT_TRUE(WaitUntil([] { return CFakeStreamSource::LiveCount() == 0; }));
        for (int i = 0; i < 3; ++i) {
            m_buffer[i].DelLevel2Buffer(&m_sink[i]);
        }
    }

    int Count(unsigned int msg) const { return m_messages.Count(msg); }
    bool WaitFor(unsigned int msg, int count = 1) {
        return WaitUntil([=] { return Count(msg) >= count; });
    }
    // What the buffer of a type has given so far.
    std::vector<CCollectingSink::Item> Given(packet_type_t type) const { return m_sink[type].Items(); }
    std::string Sdp() {
        CSdpParser sdp;
        return m_source->GetSdp(sdp) == 0 ? sdp.get_stream() : "";
    }
    CFakeStreamSource& Host() { return *CFakeStreamSource::Last(); }
    int Start(packet_type_t type) { return m_source->StartStreaming(type, &m_buffer[type], 7); }

    // The next picture of the running stream.
    Flumen::CMediaFrame Picture(bool key, unsigned int size, int new_format = 0) {
        Flumen::CMediaFrame frame = BuildPicture(key, size, ++m_sequence);
        frame.setNewFormat(new_format);
        return frame;
    }

    CPool m_pool;
    CTestHandler* m_holder = nullptr;
    CDataSource* m_source = nullptr;
    bool m_conformance = false;
    int m_init_result = 0;
    CMediaBuffer m_buffer[3];
    CCollectingSink m_sink[3];
    CGuardedList<unsigned int> m_messages;
    uint32_t m_sequence = 0;
};

// RFC 2250: units behind RTP headers of payload type 33, sound among them; all as the first track.
TEST_F(KXDataTest, ATransportStreamIsRtpByTheStandards) {
    CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
    settings.has_audio = true;
    settings.audio = {STREAM_AUDIO_MPEG, 44100};
    m_conformance = true;
    OpenReady(settings);
    ASSERT_EQ(0, Start(PACKET_TYPE_TS));
    ASSERT_TRUE(Host().Give(Picture(true, 3000)));
    ASSERT_TRUE(Host().Give(BuildFrame({'A', 0, 60, std::string(400, 'a')})));
    ASSERT_EQ(2u, Given(PACKET_TYPE_TS).size());
    int last = -1;
    unsigned int packets = 0;
    for (const CCollectingSink::Item& item : Given(PACKET_TYPE_TS)) {
        EXPECT_EQ(0, item.channel >> 8);
        for (size_t at = 0; at < item.bytes.size(); ++packets) {
            const uint8_t* unit = item.bytes.data() + at;
            const int length = unit[2] << 8 | unit[3];
            EXPECT_EQ((Bytes{'$', 0}), (Bytes{unit[0], unit[1]}));
            EXPECT_EQ((Bytes{0x80, 33}), (Bytes{unit[4], unit[5]}));
            EXPECT_EQ(0x47, unit[16]);
            EXPECT_EQ(0, (length - 12) % 188);
            const int sequence = unit[6] << 8 | unit[7];
            EXPECT_TRUE(last < 0 || sequence == (last + 1) % 65536);
            last = sequence;
            at += static_cast<size_t>(length) + 4;
        }
    }
    SrcInfo info;
    CSdpParser sdp;
    ASSERT_EQ(0, m_source->GetSdp(sdp));
    ASSERT_EQ(0, m_source->GetSrcInfo(info, sdp.get_track_id(0)));
    EXPECT_EQ(packets, info.rtp_packets);
    EXPECT_EQ((last + 1) % 65536, info.seq);
}

TEST_F(KXDataTest, OneFrameFeedsAllThreeForms) {
    OpenReady();
    for (const packet_type_t type : ALL_TYPES) {
        ASSERT_EQ(0, Start(type));
    }
    EXPECT_EQ(2, Host().CountCalls("SetIFrame"));
    const Flumen::CMediaFrame frame = Picture(true, 3000);
    ASSERT_TRUE(Host().Give(frame));

    // RTP: one merged packet, each piece behind its interleave header, key frame of track 0.
    ASSERT_EQ(1u, Given(PACKET_TYPE_RTP).size());
    const CCollectingSink::Item rtp = Given(PACKET_TYPE_RTP)[0];
    EXPECT_EQ(1, rtp.flag);
    EXPECT_EQ(1, rtp.channel);
    EXPECT_EQ((Bytes{'$', 0}), Part(rtp.bytes, 0, 2));
    EXPECT_EQ(0x80, rtp.bytes[4]);
    EXPECT_EQ(96, rtp.bytes[5] & 0x7F);
    // Private: a header of six bytes and the frame as it is.
    ASSERT_EQ(2u, Given(PACKET_TYPE_KX).size());
    const std::vector<CCollectingSink::Item> kx = Given(PACKET_TYPE_KX);
    EXPECT_EQ(0, kx[0].flag);
    EXPECT_EQ((Bytes{'$', 0, 0, 0, static_cast<uint8_t>(frame.size() >> 8), static_cast<uint8_t>(frame.size())}),
              kx[0].bytes);
    EXPECT_EQ(BytesOf(frame), kx[1].bytes);
    EXPECT_EQ(1, kx[1].flag);
    EXPECT_FALSE(Given(PACKET_TYPE_TS).empty());

    Host().Give(Picture(false, 100));
    EXPECT_EQ(5, Given(PACKET_TYPE_RTP).back().channel & 0xFF);

    SrcInfo info;
    CSdpParser sdp;
    ASSERT_EQ(0, m_source->GetSdp(sdp));
    const int track = sdp.get_track_id(0);
    ASSERT_EQ(0, m_source->GetSrcInfo(info, track));
    EXPECT_EQ(track, info.track_id);
    EXPECT_EQ(Given(PACKET_TYPE_RTP)[0].bytes.size() + Given(PACKET_TYPE_RTP)[1].bytes.size(), info.octets);
    EXPECT_NE(0u, m_source->GetSSRC(track));
    EXPECT_EQ(-1, m_source->GetSrcInfo(info, 99));

    EXPECT_EQ(-1, m_source->StopStreaming(PACKET_TYPE_RTP));  // others are left
    EXPECT_EQ(-1, m_source->StopStreaming(PACKET_TYPE_KX));
    EXPECT_EQ(0, m_source->StopStreaming(PACKET_TYPE_TS));
    EXPECT_EQ(1, Host().CountCalls("Stop"));
}

TEST_F(KXDataTest, BuffersMayEndBeforeTheSourceLetsGoOfThem) {
    OpenReady();
    for (const packet_type_t type : ALL_TYPES) {
        CMediaBuffer of_a_channel;
        of_a_channel.EnableAutoSend();
        of_a_channel.AddLevel2Buffer(&m_sink[type]);
        ASSERT_EQ(0, m_source->StartStreaming(type, &of_a_channel, -1));
    }
    for (int i = 0; i < 6; ++i) {  // more side packets than a buffer keeps
        Host().Give(Picture(true, 1000));
    }
    for (const packet_type_t type : ALL_TYPES) {
        EXPECT_TRUE(Given(type).empty());
        ASSERT_EQ(0, Start(type));
    }
    Flumen::CMediaFrame empty(16);
    empty.resize(0);
    empty.setType('I');
    Host().Give(empty);
    Host().Give(Picture(true, 1000));
    for (const packet_type_t type : ALL_TYPES) {
        EXPECT_FALSE(Given(type).empty());
    }
}

TEST_F(KXDataTest, FramesBeforeTheFormatGoNowhere) {
    Open(CFakeStreamSource::LiveVideo([](auto& settings) { settings.tells_info = false; }));
    ASSERT_EQ(0, Start(PACKET_TYPE_KX));
    Host().Give(Picture(true, 10));
    EXPECT_TRUE(Given(PACKET_TYPE_KX).empty());
    EXPECT_EQ("", Sdp());
    Host().Tell(MSG_STREAM_INFO);
    ASSERT_TRUE(WaitFor(MSG_SRC_READY));
    Host().Give(Picture(true, 10));
    EXPECT_EQ(2u, Given(PACKET_TYPE_KX).size());
}

TEST_F(KXDataTest, AssistFramesNeedAClientThatWantsThem) {
    OpenReady();
    ASSERT_EQ(0, Start(PACKET_TYPE_KX));
    const FrameSpec fields = {'W', 0, 0, "side data"};
    Host().Give(BuildFrame(fields));
    EXPECT_TRUE(Given(PACKET_TYPE_KX).empty());
    m_source->EnableStreamTrack(STREAM_TRACK_ASSIST);
    Host().Give(BuildFrame(fields));
    ASSERT_EQ(2u, Given(PACKET_TYPE_KX).size());
    EXPECT_EQ(1, Given(PACKET_TYPE_KX)[1].channel >> 24);  // behind the only medium
    EXPECT_EQ(0, Given(PACKET_TYPE_KX)[1].flag);
    CSdpParser sdp;
    ASSERT_EQ(0, m_source->GetSdp(sdp, 1));
    ASSERT_EQ(2, sdp.get_media_count());
    EXPECT_EQ(2, m_source->GetTcpChannel(sdp.get_track_id(1)));
    EXPECT_EQ(0, m_source->GetTcpChannel(99));  // an unknown track has the channel of the first
    EXPECT_EQ(-1, m_source->GetSdp(sdp, 2));
    m_source->DisableStreamTrack(STREAM_TRACK_ASSIST);
    Host().Give(BuildFrame(fields));
    EXPECT_EQ(2u, Given(PACKET_TYPE_KX).size());
}

TEST_F(KXDataTest, ChangeOfFormatHoldsTheKeyFrameBackAndUpdatesTheSdp) {
    OpenReady();
    ASSERT_EQ(0, Start(PACKET_TYPE_RTP));
    ASSERT_EQ(0, Start(PACKET_TYPE_KX));
    StreamVideoFormat wider = CFakeStreamSource::LiveVideo().video;
    wider.width = 128;
    wider.frame_rate = 50;
    Host().SetVideo(wider);
    Host().Give(Picture(false, 10, 1));  // flagged, but only a key frame shows the change
    EXPECT_EQ(1u, Given(PACKET_TYPE_RTP).size());
    Host().Give(Picture(true, 10));
    EXPECT_EQ(1u, Given(PACKET_TYPE_RTP).size());
    EXPECT_EQ(4u, Given(PACKET_TYPE_KX).size());  // private frames describe themselves
    ASSERT_TRUE(WaitFor(MSG_SDP_UPDATE));
    EXPECT_NE(std::string::npos, Sdp().find("a=framerate:50.000000\r\n"));
    Host().Give(Picture(true, 10));
    EXPECT_EQ(2u, Given(PACKET_TYPE_RTP).size());
    // The rate by itself is no change.
    wider.frame_rate = 10;
    Host().SetVideo(wider);
    Host().Tell(MSG_STREAM_INFO);
    Host().Tell(MSG_STREAM_FAIL);
    ASSERT_TRUE(WaitFor(MSG_SRC_FAIL));
    EXPECT_EQ(1, Count(MSG_SDP_UPDATE));
    // Asked for anew, the source answers as at the start.
    EXPECT_EQ(0, m_source->UpdataDataSrc(0));
    EXPECT_TRUE(WaitFor(MSG_SRC_READY, 2));
}

TEST_F(KXDataTest, FilePlaysInsideItsWindow) {
    OpenReady(CFakeStreamSource::FileVideo(), "clip.kav");
    EXPECT_NE(std::string::npos, Sdp().find("a=range:npt=0-12.500000\r\n"));
    ASSERT_EQ(0, m_source->Play(uint64_t{3000000}, uint64_t{6999999}, 1.0F, false));
    ASSERT_TRUE(WaitFor(MSG_PLAY_READY));
    EXPECT_EQ(1, Host().CountCalls("Seek 1600000003"));
    uint64_t start = 0;
    uint64_t end = 0;
    ASSERT_EQ(0, m_source->GetPlayRange(start, end));
    EXPECT_EQ(3000000u, start);
    EXPECT_EQ(6000000u, end);
    ASSERT_EQ(0, Start(PACKET_TYPE_KX));
    const struct {
        double utc;
        bool sent;
    } frames[] = {{1600000002.9, false}, {1600000003.0, true}, {1600000006.9, true}, {1600000007.0, false}};
    for (const auto& row : frames) {
        m_sink[PACKET_TYPE_KX].Clear();
        Flumen::CMediaFrame frame = Picture(true, 10);
        frame.setUtc(row.utc);
        Host().Give(frame);
        EXPECT_EQ(row.sent, !Given(PACKET_TYPE_KX).empty()) << row.utc;
    }
    // Pause keeps the count, so that one stop is enough after a resume.
    EXPECT_EQ(0, m_source->Pause());
    EXPECT_EQ(0, Start(PACKET_TYPE_KX));
    EXPECT_EQ(1, Host().CountCalls("Resume"));
    EXPECT_EQ(0, m_source->StopStreaming(PACKET_TYPE_KX));
    EXPECT_EQ(0, Host().CountCalls("Stop"));  // a file is only paused
    // Backwards without an end: from where it stands, no seek.
    const size_t calls = Host().Calls().size();
    EXPECT_EQ(0, m_source->Play(TIME_NOT_GIVEN, TIME_NOT_GIVEN, -1.0F, true));
    EXPECT_EQ(calls + 1, Host().Calls().size());
    EXPECT_EQ("SetSpeed -1.000000", Host().Calls().back());
    EXPECT_EQ(-1, m_source->Play(TIME_NOT_GIVEN, TIME_NOT_GIVEN, 0.0F, false));
    EXPECT_EQ(-1, m_source->Play(uint64_t{20000000}, TIME_NOT_GIVEN, 1.0F, false));  // behind the end
    ASSERT_EQ(0, m_source->Play(uint64_t{0}, TIME_NOT_GIVEN, 1.0F, false));
    ASSERT_EQ(0, Start(PACKET_TYPE_KX));
    m_sink[PACKET_TYPE_KX].Clear();
    Host().SetPacketState(1);
    Host().Give(Picture(true, 10));
    EXPECT_TRUE(WaitFor(MSG_SRC_END));
    EXPECT_TRUE(Given(PACKET_TYPE_KX).empty());  // the frame that tells the end isn't sent
}

TEST_F(KXDataTest, AFailedSeekLeavesTheOtherBoundOfTheWindow) {
    OpenReady(CFakeStreamSource::FileVideo([](auto& settings) { settings.seek_fails = true; }), "clip.kav");
    const struct {
        float speed;
        uint64_t start;
        uint64_t end;
    } rows[] = {{1.0F, 3000000, 12000000}, {-1.0F, 3000000, 6000000}};
    for (const auto& row : rows) {
        EXPECT_EQ(-1, m_source->Play(uint64_t{3000000}, uint64_t{6000000}, row.speed, false));
        uint64_t start = 0;
        uint64_t end = 0;
        ASSERT_EQ(0, m_source->GetPlayRange(start, end));
        EXPECT_EQ(row.start, start);
        EXPECT_EQ(row.end, end);
    }
}

TEST_F(KXDataTest, TokenStreamCarriesTheReplayExtension) {
    OpenReady(CFakeStreamSource::LiveVideo([](auto& settings) { settings.type = SRC_TYPE_TOKEN; }),
              "cam/playback?token=abc");
    ASSERT_EQ(0, Start(PACKET_TYPE_RTP));
    Host().Give(Picture(true, 10));
    Host().Give(Picture(false, 10));
    ASSERT_EQ(2u, Given(PACKET_TYPE_RTP).size());
    const Bytes first = Given(PACKET_TYPE_RTP)[0].bytes;
    EXPECT_EQ(0x90, first[4]);  // extension bit
    // 1600000000 in NTP seconds, clean point and discontinuity, CSeq 7.
    EXPECT_EQ(FromHex("abac0003 e3088e80 00000000 a0070000"), Part(first, 16, 16));
    EXPECT_EQ(0, Given(PACKET_TYPE_RTP)[1].bytes[28]);

    // Behind a pause it goes on where the reply to the next PLAY says, from whatever place in the recording.
    ASSERT_EQ(0, m_source->Pause());
    SrcInfo info;
    CSdpParser sdp;
    ASSERT_EQ(0, m_source->GetSdp(sdp));
    ASSERT_EQ(0, m_source->GetSrcInfo(info, sdp.get_track_id(0)));
    Flumen::CMediaFrame other = Picture(true, 10);
    other.setPts(other.getPts(Flumen::PTS_TYPE_MS) + 3600000, Flumen::PTS_TYPE_MS);
    ASSERT_EQ(0, Start(PACKET_TYPE_RTP));
    Host().Give(other);
    const Bytes next = Given(PACKET_TYPE_RTP).back().bytes;
    EXPECT_EQ(0x90, next[4]);
    EXPECT_EQ(info.timestamp, uint32_t{next[8]} << 24 | next[9] << 16 | next[10] << 8 | next[11]);
}

TEST_F(KXDataTest, ASecondInitLeavesTheFirstStreamAsItIs) {
    OpenReady();
    EXPECT_EQ(-1, m_source->Init(m_holder->GetID(), 0));
    EXPECT_EQ(1, CFakeStreamSource::LiveCount());
}

// As of a recording whose file is damaged while it plays.
TEST_F(KXDataTest, FramesOfNoUseCauseALineASecond) {
    OpenReady();
    ASSERT_EQ(0, Start(PACKET_TYPE_RTP));
    const CLogCapture log(Ostra::LOG_LEVEL_ERROR);
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(Host().Give(BuildFrame(FrameSpec())));  // without a start code
    }
    EXPECT_GT(log.Count("MediaFrame Input fail"), 0);
    EXPECT_LT(log.Lines().size(), 15u);
}

TEST_F(KXDataTest, ParameterSetsWithoutStartCodeFailTheSource) {
    Open(CFakeStreamSource::LiveVideo([](auto& settings) { settings.specific_info = "no start code"; }));
    EXPECT_TRUE(WaitFor(MSG_SRC_FAIL));
    EXPECT_EQ(0, m_source->Play(TIME_NOT_GIVEN, TIME_NOT_GIVEN, 1.0F, false));  // nothing to do for a live source
    EXPECT_EQ(-1, m_source->Pause());
}

TEST(DataSource, ContentDecidesTheClass) {
    CLogCapture log;
    EXPECT_EQ(nullptr, CDataSource::Create("nothing known"));
    EXPECT_EQ(1, log.Count("nonsupport this source type["));
    EXPECT_EQ(nullptr, CDataSource::Create(nullptr));
    EXPECT_EQ(1, log.Count("content parse fail!"));
}

// As of two channels that share the source.
TEST_F(KXDataTest, EveryBufferGetsEveryFrameUntilItsOwnLastClientLeaves) {
    OpenReady();
    CMediaBuffer others[3];
    CCollectingSink sinks[3];
    for (const packet_type_t type : ALL_TYPES) {
        others[type].EnableAutoSend();
        others[type].AddLevel2Buffer(&sinks[type]);
        ASSERT_EQ(0, Start(type));
        ASSERT_EQ(0, m_source->StartStreaming(type, &others[type], -1));
    }
    ASSERT_TRUE(Host().Give(Picture(true, 3000)));
    for (const packet_type_t type : ALL_TYPES) {
        ASSERT_FALSE(Given(type).empty()) << type;
        ASSERT_EQ(Given(type).size(), sinks[type].Count()) << type;
        EXPECT_EQ(Given(type).back().bytes, sinks[type].Items().back().bytes) << type;
        EXPECT_EQ(-1, m_source->StopFeeding(type, &m_buffer[type])) << type;  // the other one is left
        m_sink[type].Clear();
    }
    ASSERT_TRUE(Host().Give(Picture(false, 100)));
    for (const packet_type_t type : ALL_TYPES) {
        EXPECT_TRUE(Given(type).empty()) << type;
        EXPECT_GT(sinks[type].Count(), 1u) << type;
        EXPECT_EQ(0, Host().CountCalls("Stop"));
        EXPECT_EQ(type == ALL_TYPES[2] ? 0 : -1, m_source->StopFeeding(type, &others[type])) << type;
    }
    EXPECT_EQ(1, Host().CountCalls("Stop"));
}

TEST_F(KXDataTest, AStartThatFailedIsNeitherCountedNorStopped) {
    OpenReady(CFakeStreamSource::LiveVideo([](auto& settings) { settings.start_fails = true; }));
    EXPECT_EQ(-1, Start(PACKET_TYPE_RTP));
    EXPECT_EQ(0, m_source->StopStreaming(PACKET_TYPE_RTP));
    EXPECT_EQ(-1, Start(PACKET_TYPE_KX));
    EXPECT_EQ(2, Host().CountCalls("Start"));
    EXPECT_EQ(0, Host().CountCalls("Stop"));
}

TEST_F(KXDataTest, AHostMayCloseTheSourceInsideItsOwnStart) {
    CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
    settings.in_start = [this] { m_source->Close(); };
    OpenReady(settings);
    EXPECT_EQ(-1, Start(PACKET_TYPE_RTP));
    EXPECT_TRUE(WaitFor(MSG_SOURCE_CLOSED));
    m_source = nullptr;
    m_holder->Close();
}

// Neither its clients nor those who come want to hear of it.
TEST_F(KXDataTest, AFormatThatCannotBeReadAnewIsAsItWas) {
    OpenReady(CFakeStreamSource::LiveVideo([](auto& settings) { settings.update_fails = true; }));
    CLiveChannel* channel = CLiveChannel::Create();
    channel->Init("channel", 0, TRANSF_TYPE_RTP);
    channel->AddDataSrc(m_source, 0);
    ASSERT_EQ(0, channel->Enter(&m_sink[PACKET_TYPE_TS], PACKET_TYPE_RTP));
    EXPECT_EQ(-1, channel->UpdataLiveChannel(0));
    CSdpParser sdp;
    EXPECT_EQ(0, channel->GetSdp(sdp));
    ASSERT_TRUE(Host().Give(Picture(true, 10)));
    EXPECT_EQ(1u, Given(PACKET_TYPE_TS).size());
    channel->Leave(&m_sink[PACKET_TYPE_TS], PACKET_TYPE_RTP);
    channel->Close();
}

TEST_F(KXDataTest, AFormatThatCannotBeDescribedBringsNoEmptyDescription) {
    const StreamVideoFormat good = CFakeStreamSource::LiveVideo().video;
    StreamVideoFormat unknown = good;
    unknown.encode_type = 77;
    CFakeStreamSource::Settings settings = CFakeStreamSource::LiveVideo();
    settings.video = unknown;
    Open(settings);
    CSdpParser sdp;
    ASSERT_TRUE(WaitFor(MSG_SRC_FAIL));
    EXPECT_EQ(-1, m_source->GetSdp(sdp));
    EXPECT_EQ(-1, m_source->GetSdp(sdp, 1));
    Host().SetVideo(good);
    Host().Tell(MSG_STREAM_INFO);
    ASSERT_TRUE(WaitFor(MSG_SDP_UPDATE));
    ASSERT_EQ(0, m_source->GetSdp(sdp));
    Host().SetVideo(unknown);
    Host().Tell(MSG_STREAM_INFO);
    ASSERT_TRUE(WaitFor(MSG_SRC_FAIL, 2));
    ASSERT_EQ(0, m_source->GetSdp(sdp));  // the one that it had
    EXPECT_EQ(1, sdp.get_media_count());
}

}  // namespace
}  // namespace Kavio::Vidora
