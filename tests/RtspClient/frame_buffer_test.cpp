#include <gtest/gtest.h>

#include "RtspClient/DecoderParams.h"
#include "StreamTcpReceiver.h"
#include "StreamUdpReceiver.h"
#include "Tramel/SockStream.h"
#include "Vidora/KXFrame.h"
#include "Vidora/RtpFrameBuffer.h"
#include "Vidora/RtspClientBuffer.h"
#include "support/Capture.h"
#include "support/FrameBuilder.h"
#include "support/RtspText.h"
#include "support/SampleTable.h"
#include "support/TestHandler.h"
#include "support/TrackSender.h"
#include "support/UdpPeer.h"

using namespace Kavio::Vidora;
using namespace Kavio::Support;
namespace Flumen = Kavio::Flumen;

namespace {

const int VIDEO_CHANNEL = 4;
const int AUDIO_CHANNEL = 2;
const uint64_t FIRST_PTS = 1000;  // of the sender; what comes out begins at 0
const char TRACKS[] =
    "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:v\r\nm=audio 0 RTP/AVP 8\r\na=control:a\r\n";

// A session's view of a description: the first track is the video, the second the audio.
struct View {
    explicit View(const std::string& text, packet_type_t type = PACKET_TYPE_RTP) {
        EXPECT_EQ(sdp.Parse(text.c_str(), 0), 0);
        const sdp_info_track tracks[] = {{1, VIDEO_CHANNEL, false}, {2, AUDIO_CHANNEL, false}};
        EXPECT_EQ(CSdpInfoAccess::Fill(info, &sdp, tracks, sdp.get_media_count(), type), 0);
    }
    CSdpParser sdp;
    CSdpInfo info;
};

// A packet of a host's own class, without a shared frame.
class CHostPacket : public CMediaPacket {
public:
    explicit CHostPacket(const Bytes& bytes) : m_bytes(bytes) {}
    explicit CHostPacket(const std::string& bytes) : m_bytes(bytes.begin(), bytes.end()) {}
    unsigned char* GetData() override { return m_bytes.data(); }

private:
    Bytes m_bytes;
};

Flumen::CMediaFrame video_frame(int type, uint64_t pts, unsigned int size = 5000) {
    return BuildFrame({type, 0, FIRST_PTS + pts, H264Picture(type == 'I', size, 0x55)});
}

Flumen::CMediaFrame audio_frame(uint64_t pts) {
    return BuildFrame({'A', 0, FIRST_PTS + pts, std::string(160, 'a'), KX_AUDIO_PCMA});
}

int put(CRtpFrameBuffer& buffer, const Flumen::CMediaFrame& run) {
    CMediaFrame packet(run);
    return buffer.Put(&packet, static_cast<int>(run.size()));
}

// The packets of a run one by one, as a host might put them.
int put_single(CRtpFrameBuffer& buffer, const Flumen::CMediaFrame& run) {
    int result = 0;
    for (const std::string& unit : PacketsOf(run)) {
        CHostPacket packet(unit);
        result = buffer.Put(&packet, static_cast<int>(unit.size()));
    }
    return result;
}

}  // namespace

TEST(RtpFrameBuffer, MakesTheFramesOfBothTracks) {
    for (const int mode : {0, 1}) {
        for (const auto feed : {&put, &put_single}) {
            CRtpFrameBuffer buffer;
            buffer.SetFrameMode(mode);
            {
                View view(TRACKS);  // isn't needed behind Init
                ASSERT_EQ(buffer.Init(&view.info, 0, 0), 0);
            }
            CTrackSender video(ENC_TYPE_H264, 96, 90000, VIDEO_CHANNEL);
            CTrackSender audio(ENC_TYPE_AUDIO, 8, 8000, AUDIO_CHANNEL);
            uint64_t packets = 0;
            for (uint64_t i = 0; i < 10; ++i) {
                const Flumen::CMediaFrame in = video_frame(i == 0 ? 'I' : 'P', i * 40);
                const Flumen::CMediaFrame run = video.Make(in);
                packets += PacketsOf(run).size();
                ASSERT_EQ(feed(buffer, run), 1);
                const Flumen::CMediaFrame out = buffer.Get();
                EXPECT_EQ(BodyOf(out), BodyOf(in));
                EXPECT_EQ(out.getType(), i == 0 ? 'I' : 'P');
                EXPECT_EQ(out.getPts(Flumen::PTS_TYPE_MS), i * 40);
                EXPECT_EQ(out.getChannel(), VIDEO_CHANNEL);
                EXPECT_EQ(kx_has_magic(out.getBuffer(), out.size()), mode == 0);
                EXPECT_FALSE(buffer.Get().valid());
                ASSERT_EQ(feed(buffer, audio.Make(audio_frame(i * 20))), 1);
                EXPECT_EQ(BodyOf(buffer.Get()), std::string(160, 'a'));
            }
            TFrameBufferStatis video_statis;
            TFrameBufferStatis audio_statis;
            buffer.GetStatis(video_statis, audio_statis);
            EXPECT_EQ(audio_statis.received, 10u);
            EXPECT_EQ(video_statis.received, packets);
            EXPECT_EQ(video_statis.lost + audio_statis.lost, 0u);
        }
    }
}

TEST(RtpFrameBuffer, DropsDamagedFramesAndPassesOverOtherChannels) {
    View view(TRACKS);
    CRtpFrameBuffer buffer;
    ASSERT_EQ(buffer.Init(&view.info, 0, 0), 0);
    CTrackSender video(ENC_TYPE_H264, 96, 90000, VIDEO_CHANNEL);
    const CLogCapture log;
    int whole = 0;
    for (uint64_t i = 0; i < 20; ++i) {
        const Flumen::CMediaFrame in = video_frame('I', i * 40);
        Flumen::CMediaFrame run = video.Make(in);
        const bool cut = i % 5 == 2;
        if (cut) {  // the first packet is lost
            run = FrameOf(Part(BytesOf(run), PacketsOf(run)[0].size()));
        }
        CHostPacket stranger(Interleaved(9, Bytes(20, 1)));
        EXPECT_EQ(buffer.Put(&stranger, 24), -1);
        EXPECT_EQ(put(buffer, run), cut ? 0 : 1);
        for (Flumen::CMediaFrame out = buffer.Get(); out.valid(); out = buffer.Get()) {
            EXPECT_EQ(BodyOf(out), BodyOf(in));
            ++whole;
        }
    }
    EXPECT_EQ(whole, 16);
    EXPECT_EQ(log.Count("invalid channel id:9, audio_rtp_channel:2 video_rtp_channel:4"), 1);
    TFrameBufferStatis video_statis;
    TFrameBufferStatis audio_statis;
    buffer.GetStatis(video_statis, audio_statis);
    EXPECT_EQ(video_statis.lost, 4u * 2);
}

TEST(RtpFrameBuffer, HoldsTheFirstFramesUntilTheRateIsKnown) {
    const std::vector<size_t> outs[] = {{0, 0, 0, 1, 1, 1}, {0, 0, 0, 4, 1, 1}};
    for (const size_t most : {size_t{1}, size_t{9}}) {  // that are taken behind each put
        View view(TRACKS);
        CRtpFrameBuffer buffer;
        buffer.SetFramePolicy(0);
        ASSERT_EQ(buffer.Init(&view.info, 0, 0), 0);
        CTrackSender video(ENC_TYPE_H264, 96, 90000, VIDEO_CHANNEL);
        std::vector<size_t> out;
        uint64_t expected_pts = 0;
        for (uint64_t i = 0; i < 6; ++i) {
            ASSERT_EQ(put(buffer, video.Make(video_frame('I', i * 50))), 1);
            out.push_back(0);
            for (; out.back() < most; ++out.back(), expected_pts += 50) {
                const Flumen::CMediaFrame frame = buffer.Get();
                if (!frame.valid()) {
                    break;
                }
                EXPECT_EQ(frame.getPts(Flumen::PTS_TYPE_MS), expected_pts);
                EXPECT_EQ(frame.getBuffer()[27], 20);
            }
        }
        EXPECT_EQ(out, outs[most > 1]);
    }
}

TEST(RtpFrameBuffer, TakesPrivateFramesAsTheyAre) {
    View view(TRACKS, PACKET_TYPE_KX);
    CRtpFrameBuffer buffer;
    ASSERT_EQ(buffer.Init(&view.info, 0, 0), 0);
    const auto put_bytes = [&](const Bytes& bytes) {
        CHostPacket packet(bytes);
        return buffer.Put(&packet, static_cast<int>(bytes.size()));
    };
    EXPECT_EQ(put_bytes(FromHex("240000000064")), 0);
    EXPECT_EQ(put_bytes(FromHex("2400000000")), -1);
    EXPECT_EQ(put_bytes(Bytes(40, 1)), -1);
    const Flumen::CMediaFrame key = video_frame('I', 1234);
    const Bytes key_bytes = BytesOf(key);
    EXPECT_EQ(put_bytes(Part(key_bytes, 0, 31)), -1);
    EXPECT_FALSE(buffer.Get().valid());
    EXPECT_EQ(put_bytes(key_bytes), 1);
    const Flumen::CMediaFrame out = buffer.Get();
    EXPECT_EQ(BytesOf(out), key_bytes);
    EXPECT_EQ(out.getType(), 'I');
    EXPECT_EQ(out.getPts(Flumen::PTS_TYPE_MS) & 0xFFFF, FIRST_PTS + 1234);
    EXPECT_FALSE(buffer.Get().valid());
}

TEST(RtpFrameBuffer, SharesItsContentsWithCopies) {
    CRtpFrameBuffer second;
    {
        View view(TRACKS);
        CRtpFrameBuffer first;
        ASSERT_EQ(first.Init(&view.info, 0, 0), 0);
        second = first;
        const CRtpFrameBuffer& same = second;
        second = same;
        const CRtpFrameBuffer third(second);
    }
    CTrackSender audio(ENC_TYPE_AUDIO, 8, 8000, AUDIO_CHANNEL);
    EXPECT_EQ(put(second, audio.Make(audio_frame(0))), 1);
    EXPECT_TRUE(second.Get().valid());
}

TEST(RtpFrameBuffer, ReadsTheDescription) {
    const CLogCapture log;
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/frames.txt", "descriptions", 5)) {
        SCOPED_TRACE(row[0]);
        View view("m=video 0 RTP/AVP 97\r\na=control:v\r\na=rtpmap:97 " + Crlf(row[0]) + "\r\n");
        CDecoderParams params;
        ASSERT_EQ(params.Read(view.info), 0);
        const CDecoderParams::Track& video = params.Get(CDecoderParams::TRACK_VIDEO);
        EXPECT_EQ(video.channel, VIDEO_CHANNEL);
        EXPECT_EQ(video.param.payload_type, 97);
        EXPECT_EQ(std::to_string(video.param.enc_type), row[1]);
        EXPECT_EQ(std::to_string(video.param.kx_encode_type), row[2]);
        const auto hex = [](const unsigned char* data, int size) { return ToHex(Bytes(data, data + size)); };
        EXPECT_EQ(hex(video.param.config1, video.param.config1_len), row[3]);
        EXPECT_EQ(hex(video.param.config2, video.param.config2_len), row[4]);
    }
    EXPECT_EQ(log.Count(":Not Support Video ForMat:H265"), 1);

    View audio("m=application 0 RTP/AVP 0\r\nm=audio 0 RTP/AVP 97\r\na=control:a\r\na=rtpmap:97 L16/24000/2\r\n");
    CDecoderParams params;
    ASSERT_EQ(params.Read(audio.info), 0);
    EXPECT_EQ(params.Get(CDecoderParams::TRACK_VIDEO).channel, -1);
    EXPECT_EQ(params.Get(CDecoderParams::TRACK_AUDIO).param.clock_rate, 24000u);
    EXPECT_EQ(params.Get(CDecoderParams::TRACK_AUDIO).param.rate_or_channels, 2);

    View none("m=application 0 RTP/AVP 107\r\n");
    CRtpFrameBuffer buffer;
    EXPECT_EQ(buffer.Init(&none.info, 0, 0), -1);
    EXPECT_EQ(log.Count("no Media info"), 1);
}

// A receiver over a real socket, whose frames are counted, also at the moments when reports are told.
class CEndOfTrack {
public:
    std::atomic<int> frames{0};
    std::atomic<int> reports{0};
    std::vector<int> at_report;  // frames, by the report; read it when the receiver has gone
    std::atomic<int> failed{0};

    void Run(CStreamReceiver* receiver, const std::function<void()>& done) {
        View view(TRACKS);
        CRtspClientBuffer sink([](auto, auto, void* user) { ++static_cast<CEndOfTrack*>(user)->frames; }, nullptr,
                               this);
        ASSERT_EQ(sink.GetFrameBuffer().Init(&view.info, 0, 0), 0);
        CMediaBuffer buffer;
        buffer.AddLevel2Buffer(&sink);
        m_receiver = receiver;
        receiver_tracks_t tracks;
        tracks.count = 1;
        tracks.tracks[0].rtp_channel = AUDIO_CHANNEL;
        tracks.tracks[0].rtcp_channel = AUDIO_CHANNEL + 1;
        ASSERT_EQ(receiver->SetTracks(tracks), 0);
        receiver->SetMediaBuffer(&buffer);
        receiver->SetProcs({this, &CEndOfTrack::on_rtcp}, {});
        receiver->WaitException(m_owner->GetID());
        receiver->SetNotifyId(m_owner->GetID());
        ASSERT_EQ(receiver->Start(0, 1.0F), 0);
        done();
        receiver->Close();
        EXPECT_TRUE(WaitUntil([this] { return m_closed.load() == 1; }));
        buffer.DelLevel2Buffer(&sink);
        m_owner->Close();
    }

private:
    CTestHandler* make_owner() {
        CTestHandler* owner = CTestHandler::Make();
        owner->on_message = [this](long, unsigned int msg, long) {
            (msg == 1 ? m_closed : failed).fetch_add(1);
            return 0;
        };
        return owner;
    }
    void on_rtcp(const rtcp_digest_t&, int) {
        EXPECT_EQ(m_receiver->GetStats(AUDIO_CHANNEL, false).packets, 4u);  // whoever judges a BYE must know the media
        at_report.push_back(frames.load());
        ++reports;
    }

    CPool m_pool;
    CStreamReceiver* m_receiver = nullptr;
    std::atomic<int> m_closed{0};
    CTestHandler* m_owner = make_owner();
};

// Sound whose packets don't mark where a frame ends: the last frames come out with the end of their track, and before
// that is told. Over UDP others may say BYE as well: whoever leaves a group, and whoever can forge an address.
TEST(RtspClientBuffer, GetsTheLastFramesOfATrackAtItsEnd) {
    const Bytes bye = FromHex("80c9000111223344 81cb000111223344");
    const Bytes others_bye = FromHex("80c9000100000005 81cb000100000005");
    std::vector<Bytes> sound;
    for (uint16_t i = 1; i <= 4; ++i) {
        sound.push_back(MakeRtp({i, i * 320u, false, 8}, Bytes(320, 0xd5)));
    }
    {
        SCOPED_TRACE("BYE over UDP, in front of the media");
        CEndOfTrack end;
        const CSockAddrIPv4 any("127.0.0.1", 0);
        udp_receiver_socks_t socks;
        socks.count = 1;
        CUdpPeer server;
        const auto open = [&](const std::vector<Bytes>& datagrams) {
            auto sock = std::make_shared<CSockDgram>();
            CSockAddrStorage local;
            EXPECT_TRUE(sock->Open(&any) == 0 && sock->GetLocalAddr(&local) == 0);
            for (const Bytes& datagram : datagrams) {
                server.Send(ToText(datagram), local.GetPort());
            }
            return sock;
        };
        socks.tracks[0].rtcp_sock = open({others_bye, bye});
        socks.tracks[0].rtp_sock = open(sound);
        socks.tracks[0].source = CSockAddrStorage("127.0.0.1", 1);
        end.Run(CStreamUdpReceiver::Create(socks, 0), [&] { WaitUntil([&] { return end.reports.load() == 2; }); });
        EXPECT_EQ(end.at_report, (std::vector<int>{2, 4}));
    }
    for (const bool with_bye : {true, false}) {
        SCOPED_TRACE(with_bye ? "BYE over TCP" : "end of the connection");
        CEndOfTrack end;
        CSockStream peer;
        auto sock = std::make_shared<CSockStream>();
        ASSERT_TRUE(MakeSockPair(peer, *sock));
        Bytes stream;
        for (const Bytes& packet : sound) {
            stream = stream + Interleaved(AUDIO_CHANNEL, packet);
        }
        stream = with_bye ? stream + Interleaved(AUDIO_CHANNEL + 1, bye) : stream;
        const unsigned int size = static_cast<unsigned int>(stream.size());
        ASSERT_EQ(peer.Send(reinterpret_cast<const char*>(stream.data()), size), static_cast<int>(size));
        peer.Close();
        end.Run(CStreamTcpReceiver::Create(sock, 0, RECEIVER_PROTOCOL_RTP),
                [&] { EXPECT_TRUE(WaitUntil([&] { return end.failed.load() == 1; })); });
        EXPECT_EQ(end.frames.load(), 4);
        EXPECT_EQ(end.at_report, with_bye ? std::vector<int>{4} : std::vector<int>());
    }
}

TEST(RtspClientBuffer, GivesFramesAndTellsOfDamageOnly) {
    struct Host {
        int frames = 0;
        int errors = 0;
        CRtspClientBuffer* stop = nullptr;
        static void OnFrame(const unsigned char*, unsigned int, void* user) {
            Host* host = static_cast<Host*>(user);
            ++host->frames;
            if (host->stop != nullptr) {
                host->stop->Stop();
            }
        }
        static void OnError(int code, void* user) {
            EXPECT_EQ(code, 0);
            ++static_cast<Host*>(user)->errors;
        }
    };
    const CLogCapture log;
    Host host;
    View view(TRACKS);
    CRtspClientBuffer sink(&Host::OnFrame, &Host::OnError, &host);
    sink.GetFrameBuffer().SetFramePolicy(0);  // four frames come out at once
    ASSERT_EQ(sink.GetFrameBuffer().Init(&view.info, 0, 0), 0);
    CTrackSender video(ENC_TYPE_H264, 96, 90000, VIDEO_CHANNEL);
    const auto put_run = [&](const Flumen::CMediaFrame& run) {
        CMediaFrame packet(run);
        return sink.Put(&packet, static_cast<int>(run.size()), 1, 0);
    };
    EXPECT_EQ(sink.Put(nullptr, 1, 1, 0), -1);
    CHostPacket stranger(Interleaved(9, Bytes(20, 1)));
    EXPECT_EQ(sink.Put(&stranger, -1, 1, 0), -1);
    EXPECT_EQ(host.errors, 2);
    EXPECT_EQ(sink.Put(&stranger, 24, 1, 0), 0);
    EXPECT_EQ(host.errors, 2);
    for (uint64_t i = 0; i < 3; ++i) {
        EXPECT_EQ(put_run(video.Make(video_frame('I', i * 40))), 0);
    }
    CHostPacket garbage(Bytes(20, 1));
    EXPECT_EQ(sink.Put(&garbage, 20, 1, 0), 0);
    EXPECT_EQ(host.errors, 3);
    EXPECT_EQ(host.frames, 0);
    host.stop = &sink;
    EXPECT_EQ(put_run(video.Make(video_frame('I', 120))), 0);
    EXPECT_EQ(host.frames, 1);
}
