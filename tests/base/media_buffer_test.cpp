#include "Vidora/Tramel/MediaBuffer.h"

#include <gtest/gtest.h>

#include <memory>

#include "Tramel/MediaCounters.h"
#include "Tramel/MediaStreamSender.h"
#include "Tramel/NumberedPacket.h"
#include "Tramel/PooledSink.h"
#include "Tramel/SinkEntry.h"
#include "Tramel/SockDgram.h"
#include "Tramel/SockStream.h"
#include "Vidora/Tramel/Level2Buffer.h"
#include "support/GuardedList.h"
#include "support/StreamPeer.h"
#include "support/TestClock.h"

using namespace Kavio::Tramel;
using namespace Kavio::Support;
using Kavio::Ostra::TFunction3;

namespace {

const int KEY = 1;
const int SKIPPABLE = 5;

// One client, with the numbers that its send procedure was given.
struct Sink : SendingEnd {
    explicit Sink(int buffer_bytes = 65536) : SendingEnd(buffer_bytes) {
        sender->Attach(&sock);
        sender->AttachSendProc(TFunction3<void, CMediaPacket*, int, int>(this, &Sink::OnInfo));
    }
    ~Sink() { sender->Detach(); }
    void OnInfo(CMediaPacket* packet, int length, int) {
        infos.Add(static_cast<unsigned int>(
            std::stoul(std::string(reinterpret_cast<char*>(packet->GetData()), static_cast<size_t>(length)))));
    }
    CGuardedList<unsigned int> infos;
};

void Put(CMediaBuffer& buffer, const std::string& bytes, int flag, int channel) {
    CountedPacket* packet = new CountedPacket(bytes);
    const int size = packet->Size();
    ASSERT_EQ(0, buffer.Put(packet, size, flag, channel));
}

// A unit of two packets: a header of six bytes and a frame.
void PutPair(CMediaBuffer& buffer, const std::string& bytes, int flag, int channel) {
    Put(buffer, bytes.substr(0, 6), 0, channel);
    Put(buffer, bytes.substr(6), flag, channel);
}

void PutFrame(CMediaBuffer& buffer, unsigned int number, bool key, size_t size, int track = 0) {
    CountedPacket* info = new CountedPacket(std::to_string(number));
    const int info_size = info->Size();
    ASSERT_EQ(0, buffer.PutFrameInfo(info, info_size));
    Put(buffer, MediaBytes(track * 2, number, key, size), 1, track << 24 | (key ? KEY : SKIPPABLE));
}

// Frames are put while two threads work.
template <typename Work>
void PutWhile(CMediaBuffer& buffer, Work work) {
    std::atomic<bool> stop{false};
    std::thread source([&] {
        for (unsigned int i = 0; !stop; ++i) {
            PutFrame(buffer, i, i % 5 == 0, 500);
            std::this_thread::yield();
        }
    });
    RunTogether(2, work);
    stop = true;
    source.join();
}

std::vector<unsigned int> Range(unsigned int first, unsigned int end) {
    std::vector<unsigned int> numbers;
    for (; first < end; ++first) {
        numbers.push_back(first);
    }
    return numbers;
}

// A level-2 sink that notes what it is called with, and by whom, and runs an action inside its calls.
template <typename Base>
struct RecordingSink : Base {
    int Put(CMediaPacket* packet, int length, int flag, int channel) override {
        const std::string bytes(reinterpret_cast<char*>(packet->GetData()), static_cast<size_t>(length));
        EXPECT_FALSE(inside.exchange(true)) << "one call at a time";
        callers.Add(std::this_thread::get_id());
        calls.Add(bytes.substr(0, 6) + ' ' + std::to_string(flag) + ' ' + std::to_string(channel));
        if (action) {
            action();
        }
        inside = false;
        return -1;  // which the buffer ignores
    }
    size_t Count() const { return calls.Size(); }
    CGuardedList<std::string> calls;
    CGuardedList<std::thread::id> callers;
    std::function<void()> action;
    std::atomic<bool> inside{false};
};

typedef RecordingSink<CLevel2Buffer_IF> Level2Sink;
typedef RecordingSink<CPooledSink> PooledSink;  // one of the library's own that sends datagrams

// A sink that leaves its socket in its entry, for channel 0 and track 0, and is called with what that can't send.
struct OutletSink : PooledSink {
    OutletSink() { EXPECT_TRUE(MakeDgramPair(sock, peer)); }
    void EnterPlace(CSinkEntry& entry) override {
        const CTurnGuard turn(entry.turn);
        entry.slots = 1;
        entry.outlets[0] = {out >= 0 ? out : sock.GetHandle(), static_cast<uint16_t>(sock.MaxSegment()), 0};
        entry.outlet_count = 1;
    }
    int PutRest(CMediaPacket* packet, int offset, int length, int tag) override {
        CountedPacket rest(
            std::string(reinterpret_cast<char*>(packet->GetData()) + offset, static_cast<size_t>(length - offset)));
        return PooledSink::Put(&rest, rest.Size(), offset, tag);
    }
    // The sizes of the datagrams that arrive, and then the calls; waits for as much as is expected.
    std::string Heard(const std::string& expected) {
        std::string heard;
        std::vector<char> room(65536);
        WaitUntil([&] {
            for (int size = 0; (size = peer.Recv(room.data(), 65536, nullptr)) > 0;) {
                heard += std::to_string(size) + ' ';
            }
            return heard.size() >= std::min(expected.size(), expected.find("call"));
        });
        for (const std::string& call : calls.Take()) {
            heard += "call" + call.substr(6) + ' ';
        }
        return heard;
    }
    CSockDgram sock, peer;
    int out = -1;  // in the place of the socket
};

class MediaBufferTest : public ::testing::TestWithParam<unsigned int> {
protected:
    void SetUp() override {
        if (GetParam() > 0) {
            m_pool = std::make_unique<CPool>(GetParam());
        }
        m_buffer = std::make_unique<CMediaBuffer>();
        m_buffer->EnableAutoSend();
    }
    void TearDown() override {
        m_buffer.reset();
        m_pool.reset();
        EXPECT_EQ(0, CountedPacket::Alive());
    }
    std::unique_ptr<CPool> m_pool;
    std::unique_ptr<CMediaBuffer> m_buffer;
};

}  // namespace

// Without a pool (0 threads) the putting thread writes.
INSTANTIATE_TEST_SUITE_P(Threads, MediaBufferTest, ::testing::Values(0u, 3u));

TEST_P(MediaBufferTest, SinkThatJoinsGetsWholeUnitsPutSince) {
    Sink early, late;
    m_buffer->AddSender(early.sender);
    m_buffer->AddSender(early.sender);
    Put(*m_buffer, MediaBytes(0, 0, true, 100), 1, KEY);
    const std::string pair = MediaBytes(0, 1, false, 100);
    Put(*m_buffer, pair.substr(0, 6), 0, SKIPPABLE);
    m_buffer->AddSender(late.sender);  // between a header and its frame
    Put(*m_buffer, pair.substr(6), 1, SKIPPABLE);
    PutPair(*m_buffer, MediaBytes(4, 2, false, 50), 0, 2 << 24 | SKIPPABLE);  // side data: both with flag 0
    Put(*m_buffer, pair.substr(0, 6), 0, SKIPPABLE);                          // whose frame never comes
    PutPair(*m_buffer, MediaBytes(0, 3, false, 100), 1, SKIPPABLE);
    EXPECT_TRUE(early.Gets(4) && late.Gets(2));
    EXPECT_EQ((std::vector<unsigned int>{0, 1, 3}), early.reader.Numbers(0));
    EXPECT_EQ((std::vector<unsigned int>{3}), late.reader.Numbers(0));
    EXPECT_EQ((std::vector<unsigned int>{2}), late.reader.Numbers(4));
    m_buffer->DelSender(early.sender);
    m_buffer->DelSender(late.sender);
    Put(*m_buffer, MediaBytes(0, 4, true, 100), 1, KEY);
    EXPECT_EQ(0, CountedPacket::Alive()) << "nobody is left to hold it";
}

TEST_P(MediaBufferTest, DisabledTracksAndSidePackets) {
    Sink all, some;
    some.sender->DisableSendChannel(0);
    some.sender->DisableSendChannel(8);  // not a switch
    m_buffer->AddSender(all.sender);
    m_buffer->AddSender(some.sender);
    for (unsigned int i = 0; i < 40; ++i) {
        PutFrame(*m_buffer, i, i == 0, 200, static_cast<int>(i % 2));
        Put(*m_buffer, MediaBytes(20, i, false, 60), 1, 10 << 24 | SKIPPABLE);
    }
    EXPECT_TRUE(all.Gets(80) && some.Gets(60));
    EXPECT_TRUE(WaitUntil([&] { return all.infos.Size() == 40 && some.infos.Size() == 20; }));
    EXPECT_EQ(Range(0, 40), all.infos.All());
    EXPECT_EQ(some.reader.Numbers(2), some.infos.All()) << "information goes with its packet";
    EXPECT_TRUE(some.reader.Numbers(0).empty());
    EXPECT_EQ(Range(0, 40), some.reader.Numbers(20));
    m_buffer->DelSender(all.sender);
    m_buffer->DelSender(some.sender);
}

namespace {

struct Numbered : CNumberedPacket {
    Numbered(unsigned int frame_track, unsigned int frame_number) : track(frame_track), number(frame_number) {}
    unsigned char* GetData() override { return reinterpret_cast<unsigned char*>(&number); }
    uint32_t FrameTrack() const override { return track; }
    uint32_t FrameNumber() const override { return number; }
    uint32_t track, number;
};

// A sink that hears of gaps alone.
struct GapSink : Sink {
    GapSink() { sender->AttachSendProc(TFunction3<void, CMediaPacket*, int, int>(this, &GapSink::OnGap), TOLD_GAPS); }
    void OnGap(CMediaPacket* packet, int, int before) {
        told.Add(std::to_string(before) + '>' + std::to_string(static_cast<Numbered*>(packet)->number));
    }
    CGuardedList<std::string> told;
};

}  // namespace

TEST_P(MediaBufferTest, OnlyGapsInTheNumbersOfFramesThatASinkTookAreTold) {
    GapSink sink;
    m_buffer->AddSender(sink.sender);
    size_t units = 0;
    const auto put_only = [&](unsigned int track, unsigned int number) {
        ASSERT_EQ(0, m_buffer->PutFrameInfo(new Numbered(track, number), 4));
        Put(*m_buffer, MediaBytes(static_cast<int>(track) * 2, number, false, 50), 1, static_cast<int>(track << 24));
        EXPECT_TRUE(WaitUntil([&] { return m_buffer->IsIdle(); }));
    };
    const auto put = [&](unsigned int track, unsigned int number, bool taken = true) {
        put_only(track, number);
        units += taken ? 1 : 0;
        EXPECT_TRUE(sink.Gets(units));
    };
    put(0, 5);
    put(1, 90);
    put(0, 6);
    put(0, 8);  // of the source's own
    put(1, 91);
    sink.sender->DisableSendChannel(0);
    put(0, 9, false);
    sink.sender->SetSendChannel(0);
    put(0, 11);  // what it didn't ask for is no gap
    m_buffer->DelSender(sink.sender);
    put(0, 12, false);
    m_buffer->AddSender(sink.sender);
    put(0, 14);
    CMediaStreamSender::TellAll(true);
    put(0, 15);
    CMediaStreamSender::TellAll(false);
    put(0, 16);
    // A socket that takes nothing more: what is dropped, at once or when it has grown old, is a gap when it goes on.
    sink.sender->SetQueueLimit(1, 0);
    const auto put_all_full = [&](std::vector<unsigned int> numbers) {
        sink.Say(TextBytes(1 + numbers[0], 4 << 20));
        for (const unsigned int number : numbers) {
            put_only(0, number);
            AdvanceClock(numbers.size() == 2 ? 20000 : 0);
        }
        units += 2;  // the text, and the one that the queue takes
        EXPECT_TRUE(WaitUntil([&] {
            sink.sender->handle_output(0);  // as a pool would
            sink.Read();
            return sink.reader.Count() >= units;
        }));
    };
    put_all_full({17, 18, 19});
    put(0, 20);
    put_all_full({21, 22});
    put(0, 23);
    EXPECT_EQ((std::vector<std::string>{"6>8", "14>15", "17>20", "20>22"}), sink.told.All());
    m_buffer->DelSender(sink.sender);
}

TEST_P(MediaBufferTest, Level2SinksGetEverythingAsItWasPutAndMayRemoveAnySink) {
    CMediaBuffer manual;  // without auto-send
    Sink sink;
    Level2Sink first, second, third;
    manual.AddSender(sink.sender);
    manual.AddLevel2Buffer(&first);
    manual.AddLevel2Buffer(&second);
    manual.AddLevel2Buffer(&first);
    first.action = [&] {
        manual.DelLevel2Buffer(&first);
        manual.DelLevel2Buffer(&second);
        manual.AddLevel2Buffer(&third);
    };
    Put(manual, "header", 0, 9);
    Put(manual, "data", 1, 1 << 24 | KEY);
    EXPECT_EQ(std::vector<std::string>{"header 0 9"}, first.calls.All());
    EXPECT_TRUE(second.calls.Size() == 0);
    EXPECT_EQ(std::vector<std::string>{"data 1 " + std::to_string(1 << 24 | KEY)}, third.calls.All());
    CountedPacket refused("x");
    EXPECT_EQ(-1, manual.Put(&refused, 0, 1, 0));
    EXPECT_EQ(-1, manual.Put(nullptr, 1, 1, 0));
    sink.Read();
    EXPECT_EQ(0u, sink.reader.Count());
    manual.DelSender(sink.sender);
    // One that is slow: the senders have the packet nevertheless.
    m_buffer->AddSender(sink.sender);
    m_buffer->AddLevel2Buffer(&third);
    third.action = [&] { EXPECT_TRUE(sink.Gets(1)); };
    PutFrame(*m_buffer, 0, true, 100);
    EXPECT_EQ(2u, third.Count());
    m_buffer->DelLevel2Buffer(&third);
    m_buffer->DelSender(sink.sender);
}

TEST_P(MediaBufferTest, PooledSinksGetAllThatIsPutInOrderAndOnThePutThreadOnlyIfTheyAreFewOrThereIsNoPool) {
    for (const size_t count : {3u, 40u}) {
        CMediaBuffer buffer;
        PooledSink early;
        buffer.AddLevel2Buffer(&early);  // before auto-send: called inside the put, and once
        buffer.EnableAutoSend();
        buffer.AddLevel2Buffer(&early);
        std::vector<PooledSink> sinks(count);
        for (PooledSink& sink : sinks) {
            buffer.AddLevel2Buffer(&sink);
        }
        std::vector<std::string> expected;
        for (int i = 0; i < 30; ++i) {
            const std::string number = std::to_string(100000 + i);
            Put(buffer, "$header", 0, 7);
            Put(buffer, number, 1, i << 24 | KEY);
            expected.push_back("$heade 0 7");
            expected.push_back(number + " 1 " + std::to_string(i << 24 | KEY));
            EXPECT_EQ(expected.size(), early.Count());
        }
        for (PooledSink& sink : sinks) {
            EXPECT_TRUE(WaitUntil([&] { return sink.Count() >= expected.size(); }));
            buffer.DelLevel2Buffer(&sink);
            EXPECT_EQ(expected, sink.calls.All());
            EXPECT_EQ(GetParam() == 0 || count == 3, sink.callers.Count(std::this_thread::get_id()) != 0);
        }
        EXPECT_EQ(expected, early.calls.All());
    }
}

TEST(MediaBufferOutlets, ASinkIsCalledOnlyWithWhatItsSocketCannotSendAndLosesOnlyWhatFindsNoRoom) {
    CMediaBuffer buffer;
    buffer.EnableAutoSend();
    OutletSink first, second;
    buffer.AddLevel2Buffer(&first);
    buffer.AddLevel2Buffer(&second);
    const auto packets = [](int count, size_t size, int channel = 0) {
        std::string run;
        for (int i = 0; i < count; ++i) {
            run += Interleaved(channel, std::string(size, 'p'));
        }
        return run;
    };
    const int track_1 = 1 << 24 | KEY;
    const struct {
        std::string run;
        int tag;
        std::string heard;
    } rows[] = {
        {packets(3, 100) + packets(1, 50) + packets(1, 70), KEY, "100 100 100 50 70 "},
        {packets(1, 10), track_1, ""},                                      // the track is off
        {packets(1, 10, 2), KEY, "call 1 1 "},                              // no socket has the channel
        {packets(2, 10).substr(0, 20), KEY, "call 1 1 "},                   // cut short
        {packets(2, 100) + packets(1, 65508), KEY, "100 100 call 208 1 "},  // from where it failed
        {packets(520, 20), KEY, "call 1 1 "},                               // more than is laid out
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.heard.substr(0, 30));
        Put(buffer, row.run, 1, row.tag);
        EXPECT_EQ(row.heard, first.Heard(row.heard));
        EXPECT_EQ(row.heard, second.Heard(row.heard));
    }
    // The kernel refuses to cut for one of them.
    const int on = 1;
    ::setsockopt(first.sock.GetHandle(), SOL_SOCKET, SO_NO_CHECK, &on, sizeof(on));
    Put(buffer, packets(1, 100) + packets(2, 1000), 1, KEY);
    EXPECT_EQ("100 call 104 1 ", first.Heard("100 call 104 1 "));
    EXPECT_EQ("100 1000 1000 ", second.Heard("100 1000 1000 "));
    // A socket without room; a local one is full while its peer doesn't read.
    int fds[2];
    ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fds));
    OutletSink full;
    full.out = fds[0];
    buffer.AddLevel2Buffer(&full);
    const CMediaCounters& counters = CMediaCounters::Instance();
    const uint64_t sent = counters.Packets();
    const uint64_t dropped = counters.Dropped();
    char room[2000];
    const auto arrived = [&] {
        uint64_t count = 0;
        for (; ::recv(fds[1], room, sizeof(room), 0) > 0; ++count) {
        }
        return count;
    };
    const uint64_t puts = 2000;
    for (uint64_t i = 0; i < puts; ++i) {
        Put(buffer, packets(1, 1000), 1, SKIPPABLE);
        EXPECT_EQ("1000 ", first.Heard("1000 "));
        EXPECT_EQ("1000 ", second.Heard("1000 "));
    }
    const uint64_t taken = arrived();
    EXPECT_LT(taken, puts);
    EXPECT_EQ(2 * puts + taken, counters.Packets() - sent);
    EXPECT_EQ(puts - taken, counters.Dropped() - dropped);
    Put(buffer, packets(1, 30), 1, SKIPPABLE);
    EXPECT_EQ(1, arrived());
    EXPECT_EQ("", full.Heard(""));
    buffer.DelLevel2Buffer(&full);
    ::close(fds[0]);
    ::close(fds[1]);
    EXPECT_EQ("30 ", first.Heard("30 "));
    EXPECT_EQ("30 ", second.Heard("30 "));
    buffer.DelLevel2Buffer(&first);
    Put(buffer, packets(1, 31), 1, KEY);
    EXPECT_EQ("", first.Heard(""));
    EXPECT_EQ("31 ", second.Heard("31 "));
    buffer.DelLevel2Buffer(&second);
}

TEST_P(MediaBufferTest, PooledSinksLeaveFromAnyThreadAndInsideTheirOwnCallWhileOthersAreWritten) {
    std::vector<PooledSink> others(30);
    for (PooledSink& other : others) {
        m_buffer->AddLevel2Buffer(&other);
    }
    PutWhile(*m_buffer, [&] {
        for (int round = 0; round < 60; ++round) {
            auto sink = std::make_unique<PooledSink>();
            std::atomic<bool> left{false};
            if (round % 2 == 0) {
                sink->action = [&] {
                    m_buffer->DelLevel2Buffer(sink.get());
                    left = true;
                };
            }
            m_buffer->AddLevel2Buffer(sink.get());
            EXPECT_TRUE(WaitUntil([&] { return round % 2 == 0 ? left.load() : sink->Count() > 1; }));
            m_buffer->DelLevel2Buffer(sink.get());
            EXPECT_FALSE(sink->inside) << "the removal waits";
            EXPECT_TRUE(round % 2 != 0 || sink->Count() == 1) << "none begins behind it";
        }
    });
    m_buffer.reset();
}

TEST(MediaBufferPool, APutWaitsForNoPooledSinkAndWhatWaitsForOneIsBounded) {
    const CPool pool(2);
    CMediaBuffer buffer;
    buffer.EnableAutoSend();
    std::vector<PooledSink> sinks(40);
    std::atomic<bool> blocked{false}, goes_on{false};
    sinks[0].action = [&] {
        blocked = true;
        WaitUntil([&] { return goes_on.load(); });
    };
    for (PooledSink& sink : sinks) {
        buffer.AddLevel2Buffer(&sink);
    }
    const size_t size = 1 << 20;  // 8 of them fill a group
    int small = 0;
    const auto put_until = [&](const std::function<bool()>& done) {
        return WaitUntil([&] { return (++small, Put(buffer, "small!", 1, KEY), done()); });
    };
    EXPECT_TRUE(put_until([&] { return blocked.load(); }));
    for (int large = 1; large <= 40; ++large) {
        Put(buffer, std::string(size, 'x'), 1, KEY);
        const size_t puts = static_cast<size_t>(small + large);
        EXPECT_TRUE(put_until([&] { return sinks[39].Count() >= puts; })) << "its group isn't held up";
        EXPECT_GE(small + 20, CountedPacket::Alive());
    }
    goes_on = true;
    EXPECT_TRUE(WaitUntil([&] { return CountedPacket::Alive() == 0; }));
    EXPECT_GT(sinks[39].Count(), sinks[0].Count()) << "only the blocked one's group has lost some";
    for (PooledSink& sink : sinks) {
        buffer.DelLevel2Buffer(&sink);
    }
}

TEST_P(MediaBufferTest, DeletingTheBufferInsideItsOwnCallIsSafe) {
    CMediaBuffer* buffer = new CMediaBuffer;
    Level2Sink sink;
    sink.action = [&] { delete buffer; };
    buffer->AddLevel2Buffer(&sink);
    Put(*buffer, "data", 1, KEY);
    EXPECT_EQ(1u, sink.Count());
}

TEST_P(MediaBufferTest, RemovalWaitsForACallOnAnotherThread) {
    std::atomic<bool> inside{false}, removing{false}, left{false};
    Level2Sink slow;
    slow.action = [&] {
        inside = true;
        WaitUntil([&] { return removing.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // gives a removal that doesn't wait its chance
        left = true;
    };
    m_buffer->AddLevel2Buffer(&slow);
    std::thread putter([&] { Put(*m_buffer, "data", 1, KEY); });
    EXPECT_TRUE(WaitUntil([&] { return inside.load(); }));
    Level2Sink other;
    m_buffer->AddLevel2Buffer(&other);
    m_buffer->DelLevel2Buffer(&other);  // isn't held up by the slow one
    EXPECT_FALSE(left);
    removing = true;
    m_buffer->DelLevel2Buffer(&slow);
    EXPECT_TRUE(left);
    putter.join();
}

namespace {

// A send procedure that does what the test wants.
struct Proc {
    std::function<void()> act;
    std::atomic<int> calls{0};
    void Call(CMediaPacket*, int, int) { (++calls, act()); }
};

}  // namespace

TEST_P(MediaBufferTest, SendProcedureMayLeaveAndRemovalWaitsForIt) {
    Sink sink;
    Proc proc;
    proc.act = [&] { m_buffer->DelSender(sink.sender); };
    sink.sender->AttachSendProc(TFunction3<void, CMediaPacket*, int, int>(&proc, &Proc::Call));
    m_buffer->AddSender(sink.sender);
    CountedPacket* infos[2] = {new CountedPacket("0"), new CountedPacket("1")};
    m_buffer->PutFrameInfo(infos[0], 1);
    m_buffer->PutFrameInfo(infos[1], 1);
    Put(*m_buffer, MediaBytes(0, 0, true, 100), 1, KEY);
    EXPECT_TRUE(WaitUntil([&] { return proc.calls == 1 && CountedPacket::Alive() == 0; }));
    EXPECT_EQ(1, proc.calls) << "the second one comes after it left";

    std::atomic<bool> removing{false}, left{false};
    proc.act = [&] {
        WaitUntil([&] { return removing.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        left = true;
    };
    m_buffer->AddSender(sink.sender);
    std::thread putter([&] { PutFrame(*m_buffer, 1, true, 100); });
    EXPECT_TRUE(WaitUntil([&] { return proc.calls == 2; }));
    removing = true;
    m_buffer->DelSender(sink.sender);
    EXPECT_TRUE(left);
    putter.join();
}

// What a group's turn writes by itself and what others do with the same senders meanwhile.
TEST_P(MediaBufferTest, SendersAreTalkedOnSwitchedMovedAndCutWhileTheyAreWritten) {
    std::atomic<bool> stop{false};
    std::vector<std::unique_ptr<Sink>> sinks;
    for (int i = 0; i < 20; ++i) {
        sinks.push_back(std::make_unique<Sink>(i % 2 == 0 ? 4096 : 65536));
        m_buffer->AddSender(sinks.back()->sender);
    }
    std::atomic<unsigned int> frames{0}, next{0};
    std::thread source([&] {
        for (; !stop; ++frames) {
            PutFrame(*m_buffer, frames, frames % 5 == 0, 700, static_cast<int>(frames % 2));
            std::this_thread::yield();
        }
    });
    RunTogether(2, [&] {
        const size_t half = next++ * 10;
        for (unsigned int step = 0; step < 600; ++step) {
            EXPECT_TRUE(WaitUntil([&] { return frames >= step; }));
            Sink& sink = *sinks[half + step % 10];
            const std::function<void()> acts[] = {
                [&] { sink.Say(TextBytes(step, step * 10)); },
                [&] { sink.sender->PauseSendChannel(1); },
                [&] { sink.sender->SetSendChannel(1); },
                [&] { (m_buffer->DelSender(sink.sender), m_buffer->AddSender(sink.sender)); },
                [&] { sink.sender->Attach(sink.sender->Detach()); },  // while it is in the buffer
                [&] { EXPECT_GE(uint64_t{1} << 40, sink.sender->Unsent()); }};
            acts[step / 10 % std::size(acts)]();
            sink.Read();
        }
        sinks[half]->sock.Close();  // the group doesn't touch it again
    });
    for (size_t i = 0; i < sinks.size(); ++i) {
        Sink& sink = *sinks[i];
        const size_t units = sink.reader.Count();
        EXPECT_TRUE(i % 10 == 0 || sink.Gets(units + 3)) << "it plays on";
        EXPECT_FALSE(sink.reader.Broken());
    }
    stop = true;
    source.join();
    for (const auto& sink : sinks) {
        m_buffer->DelSender(sink->sender);
    }
}
