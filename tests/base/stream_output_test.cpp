#include "Tramel/StreamOutput.h"

#include <gtest/gtest.h>

#include "Tramel/MediaCounters.h"
#include "Tramel/MediaStreamSender.h"
#include "Tramel/SockDetail.h"
#include "Tramel/SockStream.h"
#include "Tramel/StreamSender.h"
#include "support/SampleTable.h"
#include "support/StreamPeer.h"
#include "support/TestClock.h"

using namespace Kavio::Tramel;
using namespace Kavio::Support;

namespace {

// A face without a reactor: it counts what the queue asks of it.
struct FakeFace : COutputFace {
    int WatchWrite(int) override {
        ++watches;
        return 0;
    }
    void PostFailure(long target) override { failures.push_back(target); }
    long StartTimer(int64_t) override { return has_pool ? ++timers : 0; }
    void StopTimer(long) override { ++stopped_timers; }

    bool has_pool = true;
    int watches = 0;
    long timers = 0;
    int stopped_timers = 0;
    std::vector<long> failures;
};

// A queue on a socket that has been filled up with one long text.
class QueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0, m_queue.Attach(&m_face, true, 7));
        ASSERT_EQ(0, SendText(TextBytes(0, 200000)));
        ASSERT_EQ(1, m_face.watches);
    }

    int SendText(const std::string& text) {
        return m_queue.SendText(text.data(), static_cast<unsigned int>(text.size()));
    }

    // Puts a frame: 'V' a key frame of the video track, 'v' another one, 'a' audio. Whether it was taken.
    bool Put(char kind, uint64_t time_ms = 1) {
        const unsigned int size = 1000;
        const bool key = kind == 'V';
        const int track = kind == 'a' ? 1 : 0;
        const int channel = track << 24 | (key ? 1 : 5);
        m_key_tracks |= key ? 1 << track : 0;
        COutputUnit* unit = COutputUnit::CreateMedia(channel, 1, time_ms);
        CountedPacket* packet = new CountedPacket(MediaBytes(track, m_number++, key, size - 4));
        unit->AddPacket(packet, size, 1, channel);
        if ((m_key_tracks & (1 << track)) != 0) {
            unit->MarkKeyTrack();
        }
        return Send(unit);
    }
    // Whether the unit, which it releases, was taken.
    bool Send(COutputUnit* unit) {
        CUnitBatch batch;
        batch.Add(unit);
        const bool taken = m_queue.SendMedia(batch, 0) == 1;
        unit->Release();
        return taken;
    }

    // Puts frames, written as "V500+": the kind, the time if it isn't 1, and whether it is taken.
    void Expect(const std::string& frames) {
        for (const std::string& frame : SplitText(frames, ' ')) {
            const std::string time = frame.substr(1, frame.size() - 2);
            EXPECT_EQ(frame.back() == '+', Put(frame[0], time.empty() ? 1 : std::stoull(time))) << frame;
        }
    }

    // Lets the peer read until it has that many units, and no more are there.
    void Drain(size_t units) {
        ASSERT_TRUE(WaitUntil([&] {
            m_reader.Read(m_pair.far_fd);
            m_queue.OnWritable();
            return m_reader.Count() >= units;
        }));
        ASSERT_FALSE(m_reader.Broken());
        ASSERT_FALSE(m_reader.Partial());
    }

    TcpPair m_pair;
    CSockStream m_sock;
    FakeFace m_face;
    std::shared_ptr<CStreamOutput> m_output = (m_sock.Attach(m_pair.near_fd), m_sock.GetOutput());
    CStreamOutput& m_queue = *m_output;
    WireReader m_reader;
    unsigned int m_number = 0;
    int m_key_tracks = 0;
};

const unsigned int COST = 1000 + CStreamOutput::UNIT_COST;

}  // namespace

TEST_F(QueueTest, FullQueueDropsATrackUntilItsKeyFrame) {
    m_queue.SetLimit(3 * COST, 0);
    Expect("V+ v+ a+ v-");  // no room: video waits for a key frame
    Expect("V- a-");        // which needs room as well; audio never carried one
    Drain(4);
    Expect("a+ v- V+ v+");
    Drain(7);
    EXPECT_EQ((std::vector<unsigned int>{0, 1, 8, 9}), m_reader.Numbers(0));
    EXPECT_EQ((std::vector<unsigned int>{2, 6}), m_reader.Numbers(1));
    EXPECT_EQ(0, CountedPacket::Alive());
}

TEST_F(QueueTest, BatchThatTheSocketTakesInPartGoesOnWhereItStopped) {
    Drain(1);
    CUnitBatch batch;
    std::vector<unsigned int> numbers;
    while (!batch.Full()) {
        numbers.push_back(batch.Count());
        COutputUnit* unit = COutputUnit::CreateMedia(1, 1, 1);
        CountedPacket* packet = new CountedPacket(MediaBytes(0, batch.Count(), true, 3000));
        unit->AddPacket(packet, static_cast<unsigned int>(packet->Size()), 1, 1);
        batch.Add(unit);
    }
    EXPECT_EQ(~uint64_t{0}, m_queue.SendMedia(batch, 0));
    for (unsigned int i = 0; i < batch.Count(); ++i) {
        batch.Unit(i)->Release();
    }
    Drain(1 + numbers.size());
    EXPECT_EQ(numbers, m_reader.Numbers(0));
}

TEST_F(QueueTest, AgedMediaGoesUpToAKeyFrameAndTextStays) {
    m_queue.SetLimit(0, 1000);
    Expect("V0+ v500+");
    EXPECT_EQ(0, SendText(TextBytes(1)));
    Expect("a600+ v900+ V1000+ v1400+ v1550+");  // units up to 500 are too old now, and 900 can't be shown without them
    Drain(6);
    EXPECT_EQ((std::vector<unsigned int>{4, 5, 6}), m_reader.Numbers(0));
    EXPECT_EQ((std::vector<unsigned int>{2}), m_reader.Numbers(1));
    EXPECT_EQ((std::vector<unsigned int>{0, 1}), m_reader.Numbers(-1));
}

TEST_F(QueueTest, AllGoneWithAgeTheTrackWaitsAndTheSocketStillCountsAsFull) {
    m_queue.SetLimit(0, 1000);
    Expect("V0+ v5000-");
    EXPECT_EQ(1, m_face.watches) << "no second watch while the first one stands";
    Drain(1);
    Expect("v5000- V5000+");
}

TEST_F(QueueTest, DetachedMediaGoesButTextAndTheBegunUnitStay) {
    Expect("V+");
    FakeFace control;
    ASSERT_EQ(0, m_queue.Attach(&control, false, 8));
    FakeFace second;
    EXPECT_EQ(-1, m_queue.Attach(&second, true, 9)) << "one media sender a socket";
    m_queue.Detach(&m_face);
    EXPECT_EQ(1, control.watches) << "the other face watches on";
    Drain(1);
    EXPECT_EQ((std::vector<unsigned int>{0}), m_reader.Numbers(-1));
    EXPECT_TRUE(m_reader.Numbers(0).empty());
}

TEST_F(QueueTest, ClearedTextLeavesTheBegunOneWhole) {
    EXPECT_EQ(0, SendText(TextBytes(1)));
    Expect("V+");
    m_queue.ClearText();
    Drain(2);
    EXPECT_EQ((std::vector<unsigned int>{0}), m_reader.Numbers(-1));
    EXPECT_EQ((std::vector<unsigned int>{0}), m_reader.Numbers(0));
}

TEST_F(QueueTest, UnreadTextIsBoundedAndFailureIsToldOncePerHandler) {
    FakeFace control;
    ASSERT_EQ(0, m_queue.Attach(&control, false, 7));
    const std::string text = TextBytes(1);  // short ones cost more memory than their bytes
    int results = 0;
    for (unsigned int i = 0; i < CStreamOutput::MAX_TEXT_BYTES / CStreamOutput::UNIT_COST; ++i) {
        results += SendText(text);
    }
    EXPECT_LT(results, 0);
    EXPECT_EQ(1u, m_face.failures.size() + control.failures.size()) << "both name the same handler";
    m_queue.SetExceptionId(&control, 8);
    m_queue.SetExceptionId(&control, 8);
    EXPECT_EQ((std::vector<long>{8}), control.failures) << "one that asks late is told at once";
    Expect("V-");
    EXPECT_EQ(-1, m_queue.SendText("x", 1));
}

// Nothing is handed to the socket meanwhile: what the peer's system acknowledges is progress. The system's own
// time-out, which would cut such a peer, rests until all is out.
TEST_F(QueueTest, APeerThatReadsSlowlyGoesOnAndOneThatStopsIsCut) {
    const auto user_timeout = [this] { return GetOption(m_sock.GetHandle(), IPPROTO_TCP, TCP_USER_TIMEOUT); };
    ASSERT_EQ(0, m_sock.WatchPeer(60, true));
    ASSERT_EQ(0, m_sock.SetSockSendBuf(100000));
    m_queue.OnWritable();  // some 200 kB are in the socket now
    ASSERT_EQ(0, SendText(TextBytes(1, 400000)));
    m_queue.SetSendTimeout(60);
    EXPECT_EQ(0, user_timeout());
    const auto wait_a_while = [this] {
        AdvanceClock(50000);
        m_queue.OnTimer(m_face.timers);
    };
    std::vector<char> bytes(8192);
    for (int i = 0; i < 4; ++i) {
        const uint64_t unsent = m_queue.Unsent();
        ASSERT_TRUE(WaitUntil([&] {
            recv(m_pair.far_fd, bytes.data(), bytes.size() / 8, MSG_DONTWAIT);
            return m_queue.Unsent() < unsent;
        }));
        wait_a_while();
        ASSERT_TRUE(m_face.failures.empty()) << i;
    }
    wait_a_while();
    EXPECT_TRUE(m_face.failures.empty());
    wait_a_while();
    EXPECT_EQ((std::vector<long>{7}), m_face.failures);
}

TEST_F(QueueTest, TheTimerFollowsWhatTheSocketWasFullOf) {
    ASSERT_EQ(0, m_sock.WatchPeer(60, true));
    m_face.has_pool = false;
    m_queue.SetSendTimeout(60);
    m_face.has_pool = true;
    m_queue.OnWritable();
    EXPECT_EQ(1, m_face.timers) << "the socket was full before there was a pool";
    Drain(1);
    ASSERT_TRUE(WaitUntil([&] { return m_queue.Unsent() == 0; }));
    m_queue.OnTimer(m_face.timers);
    EXPECT_EQ(1, m_face.stopped_timers);
    EXPECT_EQ(60000, GetOption(m_sock.GetHandle(), IPPROTO_TCP, TCP_USER_TIMEOUT));
}

// A merged frame of three packets counts as three, once it is out; what is dropped on the way counts as units.
TEST_F(QueueTest, CountersTellWhatWentOutWholeAndWhatWasDropped) {
    struct Figures {
        uint64_t packets = CMediaCounters::Instance().Packets();
        uint64_t bytes = CMediaCounters::Instance().Bytes();
        uint64_t dropped = CMediaCounters::Instance().Dropped();
    };
    const auto since = [](const Figures& start) {
        const Figures now;
        return std::vector<uint64_t>{now.packets - start.packets, now.bytes - start.bytes, now.dropped - start.dropped};
    };
    const Figures start;
    m_queue.SetLimit(2 * COST, 1000);
    Expect("V+ v+ v- V-");
    EXPECT_EQ((std::vector<uint64_t>{0, 0, 2}), since(start)) << "what waits isn't sent";
    Drain(3);
    EXPECT_EQ((std::vector<uint64_t>{2, 2000, 2}), since(start)) << "text doesn't count";
    Expect("v-");  // on an idle socket as well: its track waits
    EXPECT_EQ((std::vector<uint64_t>{2, 2000, 3}), since(start));
    const std::string one = MediaBytes(0, m_number++, true, 96);
    for (const bool pair : {false, true}) {
        const std::string bytes = pair ? one : one + one + one;
        COutputUnit* unit = COutputUnit::CreateMedia(1, 1, 1);
        const unsigned int first = pair ? 6 : static_cast<unsigned int>(bytes.size());
        unit->AddPacket(new CountedPacket(bytes.substr(0, first)), first, 0, 1);
        if (pair) {
            unit->AddPacket(new CountedPacket(bytes.substr(first)), 94, 1, 1);
        }
        EXPECT_TRUE(Send(unit));
    }
    EXPECT_EQ((std::vector<uint64_t>{6, 2400, 3}), since(start));
}

TEST_F(QueueTest, GoneSocketIsNotTouched) {
    Expect("V+");
    m_queue.OnSockGone();
    EXPECT_EQ(-1, m_queue.SendText("x", 1));
    m_queue.OnWritable();
    EXPECT_TRUE(m_face.failures.empty()) << "its owner knows";
    EXPECT_EQ(0, CountedPacket::Alive());
    FakeFace late;
    EXPECT_EQ(-1, m_queue.Attach(&late, false, 1));
}

namespace {

// A session's way: it forwards its own handle_output.
class Owner : public MessageCounter {
public:
    CStreamSender* m_sender = CStreamSender::Create();
    int handle_output(int fd) override { return m_sender->handle_output(fd); }
    int handle_close(CNetHandler*) override {
        delete this;
        return 0;
    }
    using CNetHandler::RegisterSock;
    using CNetHandler::RemoveSock;

private:
    ~Owner() override { m_sender->Close(); }
};

int put(CStreamSender* sender, const std::string& text) {
    return sender->Put(text.data(), static_cast<unsigned int>(text.size()));
}

// A socket for both of a session's senders.
struct Session : SendingEnd {
    Session() : SendingEnd(4096) {}
    ~Session() { owner->Close(); }

    Owner* owner = new Owner;
};

}  // namespace

TEST(Senders, TextOfBothFacesStaysWholeOnASocketThatIsAlwaysFull) {
    const CPool pool(2);
    Session session;
    CStreamSender* control = session.owner->m_sender;
    ASSERT_EQ(-1, control->Put("x", 1)) << "nothing attached";
    ASSERT_EQ(0, control->Attach(session.owner, &session.sock));
    ASSERT_EQ(0, session.sender->Attach(&session.sock));
    const unsigned int count = 300;
    std::thread writer([&] {
        for (unsigned int i = 0; i < count; ++i) {
            session.Say(TextBytes(count + i, i * 7 % 3000));
        }
    });
    for (unsigned int i = 0; i < count; ++i) {
        ASSERT_EQ(0, put(control, TextBytes(i, i * 11 % 3000)));
    }
    EXPECT_TRUE(session.Gets(2 * count));
    writer.join();
    EXPECT_FALSE(session.reader.Broken());
    unsigned int next[2] = {0, count};
    for (unsigned int number : session.reader.Numbers(-1)) {
        EXPECT_EQ(next[number / count]++, number) << "order of one sender";
    }
    EXPECT_EQ(&session.sock, session.sender->Detach());
    EXPECT_EQ(&session.sock, control->Detach());
    EXPECT_EQ(nullptr, session.sender->Detach());
}

TEST(Senders, TextGoesOnAfterTheOwnerTookTheSocketOutOfTheReactorAndPutItBack) {
    const CPool pool(2);
    Session session;
    Owner* owner = session.owner;
    ASSERT_EQ(0, owner->m_sender->Attach(owner, &session.sock));
    ASSERT_EQ(0, owner->RegisterSock(session.sock, SOCK_EVENT_READ, 0));
    ASSERT_EQ(0, put(owner->m_sender, TextBytes(0, 300000)));
    ASSERT_EQ(0, owner->RemoveSock(session.sock));
    ASSERT_EQ(0, owner->RegisterSock(session.sock, SOCK_EVENT_READ, 0));
    EXPECT_TRUE(session.Gets(1));
    owner->m_sender->Detach();
    owner->RemoveSock(session.sock);
}

// The number of a closed descriptor is given out again at once. What was queued for the old connection, and a sender
// that nobody told, must not write to the new one; nor may the old one's end be the new one's.
TEST(Senders, ReusedSocketObjectBeginsWithAQueueOfItsOwn) {
    const CPool pool(2);
    CStreamSender* left = CStreamSender::Create();
    MessageCounter owner;
    {
        SendingEnd end(4096);
        const int number = end.pair.near_fd;
        ASSERT_EQ(0, left->Attach(&owner, &end.sock));
        left->WaitException(owner.GetID());
        ASSERT_EQ(0, put(left, TextBytes(1, 300000)));
        end.sock.Close();
        TcpPair second(4096);
        ASSERT_TRUE(second.near_fd == number || second.far_fd == number);
        std::swap(end.pair.far_fd, second.far_fd);
        end.sock.Attach(second.near_fd);
        left->handle_output(second.near_fd);
        EXPECT_EQ(-1, left->Put("x", 1));
        ASSERT_EQ(0, end.sender->Attach(&end.sock));
        end.Say(TextBytes(2));
        EXPECT_TRUE(end.Gets(1));
        EXPECT_EQ((std::vector<unsigned int>{2}), end.reader.Numbers(-1));
        EXPECT_FALSE(end.reader.Broken() || end.reader.Partial());
        end.sender->Detach();
    }
    left->Close();
    EXPECT_EQ(0, owner.Failures()) << "who closes the socket knows";
}

TEST(Senders, BrokenAndStalledSocketsPostTheMessageOnce) {
    const CPool pool(2);
    for (const bool stalled : {false, true}) {
        Session session;
        Owner* owner = session.owner;
        owner->m_sender->WaitException(owner->GetID());
        session.sender->WaitException(owner->GetID());
        session.sender->SetSendTimeout(1);
        ASSERT_EQ(0, owner->m_sender->Attach(owner, &session.sock));
        ASSERT_EQ(0, session.sender->Attach(&session.sock));
        if (!stalled) {
            session.pair.CloseFar();
        }
        int result = put(owner->m_sender, TextBytes(1, 100000));
        EXPECT_TRUE(WaitUntil([&] {
            result = !stalled && result == 0 ? put(owner->m_sender, "x") : result;
            AdvanceClock(stalled ? 100 : 0);
            return owner->Failures() > 0;
        })) << stalled;
        EXPECT_EQ(-1, owner->m_sender->Put("x", 1));
        EXPECT_EQ(1, owner->Failures());
        owner->m_sender->Detach();
    }
}
