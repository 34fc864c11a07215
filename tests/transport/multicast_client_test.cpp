// The multicast client over sockets of the loopback address, to which the stream comes by unicast.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <future>

#include "MulticastStreamClient.h"
#include "StreamParser/Frame2Ts.h"
#include "support/Capture.h"
#include "support/FrameBuilder.h"
#include "support/PackerUnits.h"
#include "support/TestClock.h"
#include "support/TestHandler.h"
#include "support/UdpPeer.h"

using namespace Kavio;
using namespace Kavio::Vidora;
using namespace Kavio::Support;

namespace {

const size_t TS_LEN = 188;
const char LOOPBACK[] = "127.0.0.1";

// The bare bytes of a picture, of `size` bytes in its slice, as they come out again.
std::string picture(int number, unsigned int size = 2000) {
    return H264Picture(true, size, static_cast<uint8_t>(number + 2));
}

// Pictures as TS packets, one string for each picture.
std::vector<std::string> transport_stream(int count) {
    CFrame2Ts packer;
    packer.SetTsInfo(STREAM_KIND_H264, STREAM_KIND_AUDIO, 1);
    std::vector<std::string> pictures;
    for (int i = 0; i < count; ++i) {
        const std::string bytes = picture(i);
        pictures.emplace_back();
        for (const Bytes& unit : Pack(packer, FromText(bytes), ENC_TYPE_H264, 40u + 40u * i)) {
            pictures.back() += ToText(unit);
        }
    }
    return pictures;
}

// A G.711 packet whose samples are all `number`.
std::string audio_packet(int number, uint8_t payload_type = 8) {
    const auto count = static_cast<uint16_t>(number);
    return ToText(MakeRtp({count, 160u * count, true, payload_type}, Bytes(160, static_cast<uint8_t>(number))));
}

multicast_track_info_t track_info(int encode) {
    multicast_track_info_t info;
    info.encode = encode;
    info.sample_rate = 8000;
    return info;
}

const multicast_track_info_t AUDIO = track_info(ENC_TYPE_AUDIO);
const multicast_track_info_t VIDEO = track_info(ENC_TYPE_H264);

// A client with what its callback was given, and the sender.
class CReceived {
public:
    explicit CReceived(ClientType type) : m_client(IMulticastStreamClient::Create(type)) {}
    ~CReceived() { Stop(); }

    // Receives at any free port, which it gives.
    int Start(const multicast_track_info_t* info = nullptr) {
        for (int attempt = 0; attempt < 50; ++attempt) {
            const int port = CUdpPeer().Port();
            if (StartAt(port, info) == 0) {
                return port;
            }
        }
        ADD_FAILURE() << "no port is free";
        return 0;
    }
    int StartAt(int port, const multicast_track_info_t* info = nullptr, const char* address = LOOPBACK) {
        return m_client.load()->Start(address, port, IMulticastStreamClient::frame_proc_t(this, &CReceived::on_frame),
                                      info);
    }
    void Stop() {
        IMulticastStreamClient* client = m_client.exchange(nullptr);
        if (client != nullptr) {
            client->Stop();
        }
    }
    void Send(const std::string& datagram, int port) { m_peer.Send(datagram, port); }
    // Whether so many frames in all come in time.
    bool Has(size_t count, int wait_ms) {
        return WaitUntil([&] { return m_frames.Size() >= count; }, wait_ms);
    }
    // Waits for so many frames in all; their bare bytes.
    std::vector<std::string> Frames(size_t count) {
        EXPECT_TRUE(Has(count, 20000));
        return m_frames.All();
    }
    CMulticastStreamClient* Client() { return static_cast<CMulticastStreamClient*>(m_client.load()); }

    std::function<void()> on_call;  // set before the first frame may come
    std::atomic<int> ends{0};
    std::atomic<int> returned{0};  // calls that have come to their end

private:
    void on_frame(const Flumen::CMediaFrame& frame) {
        if (frame.valid()) {
            m_frames.Add(BodyOf(frame));
        }
        ends += frame.valid() ? 0 : 1;
        if (on_call) {
            on_call();
        }
        ++returned;
    }

    std::atomic<IMulticastStreamClient*> m_client;
    CUdpPeer m_peer;
    CGuardedList<std::string> m_frames;
};

// The descriptor that is bound to a UDP port of the loopback address besides the caller's own; -1 if there is none.
int descriptor_at(int port) {
    for (int fd = 3; fd < 1024; ++fd) {
        sockaddr_in address = {};
        socklen_t length = sizeof(address);
        if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0 && address.sin_family == AF_INET &&
            ntohs(address.sin_port) == port) {
            return fd;
        }
    }
    return -1;
}

class MulticastClient : public testing::Test {
protected:
    CPool m_pool;
};

TEST_F(MulticastClient, RefusesWhatItCannotReceive) {
    CReceived ts(ClientType_TS);
    CReceived rtp(ClientType_RTP);
    const IMulticastStreamClient::frame_proc_t proc([](const Flumen::CMediaFrame&) {});
    for (const auto& row : ReadTable(VIDORA_TEST_DATA "/transport.txt", "multicast starts", 5)) {
        SCOPED_TRACE(row[4]);
        const CLogCapture log;
        const multicast_track_info_t info = track_info(row[3].empty() ? 0 : std::stoi(row[3]));
        IMulticastStreamClient* client = row[0] == "ts" ? ts.Client() : rtp.Client();
        EXPECT_EQ(client->Start(row[1].c_str(), std::stoi(row[2]), proc, row[3].empty() ? nullptr : &info), -1);
        EXPECT_EQ(log.Count(row[4]), 1);
    }
    const CLogCapture log;
    EXPECT_EQ(ts.Client()->Start(nullptr, 5000, proc, nullptr), -1);
    EXPECT_EQ(ts.Client()->Start(LOOPBACK, 5000, IMulticastStreamClient::frame_proc_t(), nullptr), -1);
    EXPECT_EQ(log.Count(" Param error \n"), 2);
}

// Sends the stream to a new client, between foreign datagrams; the pictures that came out.
std::vector<std::string> pass_transport_stream() {
    CReceived received(ClientType_TS);
    const int port = received.Start();
    size_t count = 0;  // sent in steps, so that the socket's room is enough
    for (const std::string& packets : transport_stream(6)) {
        for (size_t at = 0; at < packets.size(); at += 2 * TS_LEN) {
            for (int again = 0; again < 2; ++again) {
                received.Send(packets.substr(at, 2 * TS_LEN) + std::string(at % 100, 'G'), port);
            }
            received.Send(audio_packet(1), port);
            received.Send(std::string(TS_LEN, '\0'), port);
            received.Send(std::string(), port);
        }
        received.Send("G", port);
        received.Has(count++, 3000);  // the last is out when the next begins
    }
    EXPECT_EQ(received.ends, 0);
    return received.Has(5, 3000) ? received.Frames(5) : std::vector<std::string>();
}

// Foreign datagrams between its own cost the stream nothing, and of a cut one the whole packets count. A loopback that
// other programs flood loses some: then it is tried again.
TEST_F(MulticastClient, ReceivesATransportStreamBesideStrangers) {
    std::vector<std::string> frames;
    for (int attempt = 0; attempt < 5 && frames.empty(); ++attempt) {
        frames = pass_transport_stream();
    }
    ASSERT_EQ(frames.size(), 5u);
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(frames.at(static_cast<size_t>(i)), picture(i));
    }
}

TEST_F(MulticastClient, ReceivesBothTracksOfRtpBesideStrangers) {
    CReceived received(ClientType_RTP);
    const int audio_port = received.Start(&AUDIO);
    const int video_port = received.Start(&VIDEO);
    for (int i = 1; i <= 4; ++i) {
        received.Send(audio_packet(i), audio_port);
        received.Send(audio_packet(100, 96), audio_port);
        received.Send("\x80", audio_port);
        received.Send(std::string("$\0\0\x4zzzz", 8), audio_port);
        received.Send(std::string(65507, '\xff'), audio_port);
        received.Frames(static_cast<size_t>(i));
    }
    const std::vector<std::string> frames = received.Frames(4);
    ASSERT_EQ(frames.size(), 4u);
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(frames.at(static_cast<size_t>(i - 1)), std::string(160, static_cast<char>(i)));
    }
    const Bytes slice = {0x65, 0x88, 0x80, 0x10};
    received.Send(ToText(MakeRtp({1, 3600, true}, slice)), video_port);
    EXPECT_NE(received.Frames(5).at(4).find(ToText(slice)), std::string::npos);
}

TEST_F(MulticastClient, LossRepetitionAndSilenceEndNothing) {
    CReceived received(ClientType_RTP);
    const int port = received.Start(&AUDIO);
    for (const int number : {1, 2, 2, 5, 5, 6}) {
        received.Send(audio_packet(number), port);
        AdvanceClock(3600000);
    }
    const std::vector<std::string> frames = received.Frames(4);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames.at(3), std::string(160, '\6'));
    EXPECT_EQ(received.ends, 0);
}

// Another thread's Stop returns when the callback has, also when that has ended its track by a Start that failed, and
// none comes after it.
TEST_F(MulticastClient, StopWaitsForACallbackOfAnotherThread) {
    for (const bool has_track : {true, false}) {
        std::promise<void> entered, go_on;
        std::atomic<int> calls{0};
        std::atomic<bool> done{false};
        CReceived received(ClientType_RTP);
        received.on_call = [&] {
            if (++calls == 1) {
                EXPECT_EQ(has_track ? 0 : -1, has_track ? 0 : received.StartAt(5000, &AUDIO, "192.0.2.1"));
                entered.set_value();
                go_on.get_future().wait();
                done = true;
            }
        };
        const int port = received.Start(&AUDIO);
        for (int i = 1; i <= 100; ++i) {
            received.Send(audio_packet(i), port);
        }
        entered.get_future().wait();
        std::future<bool> stopped = std::async(std::launch::async, [&] {
            received.Stop();
            return done.load();
        });
        EXPECT_EQ(stopped.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        go_on.set_value();
        EXPECT_TRUE(stopped.get());
        EXPECT_EQ(calls, 1);
    }
}

// Start inside the callback while another thread stops.
TEST_F(MulticastClient, StartsMeetAStop) {
    for (int round = 0; round < 50; ++round) {
        std::atomic<int> port{0};
        std::atomic<bool> entered{false};
        CReceived received(ClientType_RTP);
        IMulticastStreamClient* client = received.Client();
        const IMulticastStreamClient::frame_proc_t proc([](const Flumen::CMediaFrame&) {});
        received.on_call = [&] {
            entered = true;
            client->Start(LOOPBACK, port, proc, &AUDIO);
        };
        port = received.Start(&AUDIO);
        received.Send(audio_packet(1), port);
        ASSERT_TRUE(WaitUntil([&] { return entered.load(); }));
        received.Stop();
        EXPECT_EQ(1, received.returned);
        EXPECT_LT(descriptor_at(port), 0);
    }
}

// Also inside the callback, and at the port of the first.
TEST_F(MulticastClient, AnotherStartReplacesTheTrack) {
    std::atomic<int> port{0}, restarted{-1}, calls{0};
    CReceived received(ClientType_RTP);
    received.on_call = [&] {
        if (++calls == 1) {
            restarted = received.StartAt(port, &AUDIO);
        }
    };
    port = received.Start(&AUDIO);
    received.Send(audio_packet(1), port);
    ASSERT_TRUE(WaitUntil([&] { return restarted != -1; }));
    received.Send(audio_packet(2), port);
    EXPECT_EQ(received.Frames(2).at(1), std::string(160, '\2'));
    const int other = received.Start(&AUDIO);
    EXPECT_LT(descriptor_at(port), 0);
    received.Send(audio_packet(3), other);
    EXPECT_EQ(received.Frames(3).at(2), std::string(160, '\3'));
}

// Each track gets one empty frame; a Stop inside the first takes the second's away.
TEST_F(MulticastClient, TellsTheEndWhenASocketFails) {
    for (const bool stops : {false, true}) {
        std::atomic<bool> fails{false};
        CReceived received(ClientType_RTP);
        received.on_call = [&] {
            if (fails && stops) {
                received.Stop();
            }
        };
        const int port = received.Start(&AUDIO);
        received.Start(&VIDEO);
        // A pipe can't be received from; the socket that the reactor watches lives on in another descriptor.
        const int fd = descriptor_at(port);
        ASSERT_GE(fd, 0);
        const int watched = ::dup(fd);
        int pipe_ends[2];
        ASSERT_EQ(::pipe2(pipe_ends, O_CLOEXEC), 0);
        ASSERT_EQ(::dup2(pipe_ends[0], fd), fd);
        fails = true;
        received.Send(audio_packet(1), port);
        const int calls = stops ? 1 : 2;
        EXPECT_TRUE(WaitUntil([&] { return received.returned == calls; }));
        EXPECT_EQ(received.ends, calls);
        ::close(watched);
        if (!stops) {
            received.Start(&AUDIO);  // it can begin anew
        }
        ::close(pipe_ends[0]);
        ::close(pipe_ends[1]);
    }
}

}  // namespace
