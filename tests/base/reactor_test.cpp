#include "Tramel/Reactor.h"

#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <random>

#include "support/TestHandler.h"

namespace Kavio::Tramel {
namespace {

using Support::CPool;
using Support::CTestHandler;
using Support::WaitUntil;

TEST(Reactor, MessagesOfOneSenderArriveInOrderAndNeverInsideTheCall) {
    CPool pool;
    std::atomic<int> closed{0}, received{0}, inside{0}, faults{0};
    CTestHandler* receiver = CTestHandler::Make(&closed);
    CTestHandler* sender = CTestHandler::Make(&closed);
    const long sender_id = sender->GetID();
    const long receiver_id = receiver->GetID();
    receiver->on_message = [&](long from, unsigned int msg, long param) {
        if (inside.fetch_add(1) != 0 || msg != 7 || (from == sender_id && param != received.load())) {
            faults.fetch_add(1);
        }
        if (from == sender_id) {
            received.fetch_add(1);
            receiver->Notify(receiver_id, 7, 0);
        }
        inside.fetch_sub(1);
        return -1;
    };
    for (int i = 0; i < 1000; ++i) {
        sender->Notify(receiver_id, 7, i);
    }
    EXPECT_TRUE(WaitUntil([&] { return received.load() == 1000; }));
    EXPECT_EQ(0, faults.load());
    sender->Close();
    receiver->Close();
    EXPECT_TRUE(WaitUntil([&] { return closed.load() == 2; }));
}

TEST(Reactor, CloseWaitsForTheRunningCallbackAndDropsWhatWaits) {
    CPool pool;
    const long alive = CReactor::Instance().CountHandlers();
    std::atomic<int> closed{0}, messages{0};
    std::atomic<bool> is_closing{false}, is_running{false}, was_running{false};
    CTestHandler* handler = CTestHandler::Make(&closed);
    const long id = handler->GetID();
    handler->on_message = [&](long, unsigned int, long) {
        messages.fetch_add(1);
        is_running.store(true);
        WaitUntil([&] { return is_closing.load(); });
        handler->Notify(id, 2, 0);
        is_running.store(false);
        return 0;
    };
    handler->on_close = [&] {
        was_running.store(is_running.load());
        EXPECT_EQ(0, handler->SetTimer(1000));
    };
    CReactor::Instance().Post(0, id, 1, 0);
    CReactor::Instance().Post(0, id, 2, 0);
    EXPECT_TRUE(WaitUntil([&] { return is_running.load(); }));
    handler->Close();
    handler->Close();
    EXPECT_EQ(0, closed.load());
    is_closing.store(true);
    EXPECT_TRUE(WaitUntil([&] { return closed == 1; }));
    CReactor::Instance().Post(0, id, 3, 0);
    EXPECT_FALSE(was_running.load());
    EXPECT_EQ(1, messages.load());
    EXPECT_EQ(alive, CReactor::Instance().CountHandlers());
    CTestHandler next;
    EXPECT_GT(next.GetID(), id);
}

TEST(Reactor, HandlerMayCloseOrDeleteItselfInACallback) {
    CPool pool;
    const long alive = CReactor::Instance().CountHandlers();
    std::atomic<int> closed{0};
    CTestHandler* closer = CTestHandler::Make(&closed);
    closer->on_message = [&](long, unsigned int, long) {
        closer->Close();
        return 0;
    };
    CTestHandler* deleter = CTestHandler::Make(&closed);
    CSockStream ends[2];
    ASSERT_TRUE(Support::MakeSockPair(ends[0], ends[1]));
    deleter->on_output = [&](int) {
        delete deleter;
        return 0;
    };
    deleter->RegisterSock(ends[0], SOCK_EVENT_READ | SOCK_EVENT_WRITE, 1000);
    CReactor::Instance().Post(0, closer->GetID(), 1, 0);
    EXPECT_TRUE(WaitUntil([&] { return CReactor::Instance().CountHandlers() == alive; }));
    EXPECT_EQ(1, closed.load());
    CTestHandler other;  // the socket is free for another
    EXPECT_EQ(0, other.RegisterSock(ends[0], SOCK_EVENT_READ, 0));
}

TEST(Reactor, TimerRepeatsWhateverItsResultUntilDestroyed) {
    CPool pool;
    std::atomic<int> closed{0};
    std::atomic<int> fired[2] = {{0}, {0}};
    std::atomic<long> ids[2] = {{0}, {0}};
    CTestHandler* handler = CTestHandler::Make(&closed);
    EXPECT_EQ(0, handler->SetTimer(0));
    handler->on_timeout = [&](long timer_id) {
        const int which = timer_id == ids[1].load() ? 1 : 0;
        if (fired[which].fetch_add(1) == 4) {
            handler->DestroyTimer(timer_id);
        }
        return which == 0 ? 0 : -1;
    };
    handler->on_message = [&](long, unsigned int, long) {
        ids[0].store(handler->SetTimer(1000));
        ids[1].store(handler->SetTimer(3000));
        return 0;
    };
    handler->Notify(handler->GetID(), 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return fired[0].load() == 5 && fired[1].load() == 5; }));
    EXPECT_NE(ids[0].load(), ids[1].load());
    EXPECT_EQ(CTimerQueue::NO_DEADLINE, CReactor::Instance().Timers().FirstDeadline());
    handler->SetTimer(1000);
    handler->Close();
    EXPECT_TRUE(WaitUntil([&] { return closed == 1; }));
    EXPECT_EQ(CTimerQueue::NO_DEADLINE, CReactor::Instance().Timers().FirstDeadline());
}

TEST(Reactor, PoolMayBeCreatedAndDestroyedInAnyOrder) {
    EXPECT_EQ(-1, CNetThread::DestroyThreadPool());
    EXPECT_EQ(-1, CNetThread::CreateThreadPool(0, false));
    EXPECT_EQ(-1, CNetThread::CreateThreadPool(257, false));
    std::atomic<int> closed{0}, events{0};
    CTestHandler* handler = CTestHandler::Make(&closed);
    CSockStream ends[2];
    ASSERT_TRUE(Support::MakeSockPair(ends[0], ends[1]));
    handler->on_input = [&](int) {
        char byte = 0;
        events.fetch_add(ends[0].Recv(&byte, 1));
        return 0;
    };
    handler->on_message = [&](long, unsigned int, long) {
        EXPECT_EQ(-1, CNetThread::DestroyThreadPool());
        return events.fetch_add(1);
    };
    EXPECT_EQ(-1, handler->RegisterSock(ends[0], SOCK_EVENT_READ, 0));
    EXPECT_EQ(0, handler->SetTimer(1000));
    handler->Notify(handler->GetID(), 0, 0);  // waits for the first pool
    for (int round = 1; round <= 20; ++round) {
        EXPECT_EQ(0, CNetThread::CreateThreadPool(static_cast<unsigned int>(round % 4 + 1), false));
        EXPECT_EQ(0, CNetThread::CreateThreadPool(3, false));
        if (round == 1) {
            EXPECT_EQ(0, handler->RegisterSock(ends[0], SOCK_EVENT_READ, 0));
        }
        EXPECT_TRUE(WaitUntil([&] { return events.load() == 2 * round - 1; }));
        EXPECT_EQ(1, ends[1].Send("x", 1));
        EXPECT_TRUE(WaitUntil([&] { return events.load() == 2 * round; }));
        EXPECT_EQ(0, CNetThread::DestroyThreadPool());
        handler->Notify(handler->GetID(), 0, 0);
    }
    // By several threads at once, as hosts with two parts do that know nothing of each other.
    Support::RunTogether(3, [&] {
        for (int i = 0; i < 50; ++i) {
            CNetThread::CreateThreadPool(2, false);
            handler->Notify(handler->GetID(), 0, 0);
            CNetThread::DestroyThreadPool();
        }
    });
    CPool pool;
    handler->Close();
    EXPECT_TRUE(WaitUntil([&] { return closed == 1; }));
}

// A handler that closes another one from its handle_close, as owners do, needs all of them delivered; a handler that is
// busy with messages for ever must not hold the pool's end up.
TEST(Reactor, DestroyDeliversTheClosesThatAreDue) {
    const long alive = CReactor::Instance().CountHandlers();
    std::atomic<int> closed{0};
    CTestHandler busy;
    busy.on_message = [&](long, unsigned int, long) {
        busy.Notify(busy.GetID(), 0, 0);
        return 0;
    };
    EXPECT_EQ(0, CNetThread::CreateThreadPool(2, false));
    busy.Notify(busy.GetID(), 0, 0);
    CTestHandler* next = nullptr;
    for (int i = 0; i < 100; ++i) {
        CTestHandler* handler = CTestHandler::Make(&closed);
        handler->on_close = [next] {
            if (next != nullptr) {
                next->Close();
            }
        };
        next = handler;
    }
    next->Close();
    EXPECT_EQ(0, CNetThread::DestroyThreadPool());
    EXPECT_EQ(100, closed.load());
    EXPECT_EQ(alive + 1, CReactor::Instance().CountHandlers());
}

// A handler with one end of a pair of sockets, which reads a byte at a time.
class CReader {
public:
    explicit CReader(std::atomic<int>* closed) : m_handler(CTestHandler::Make(closed)) {
        Support::MakeSockPair(m_ends[0], m_ends[1]);
    }
    void Start(std::function<void()> on_byte) {
        m_handler->on_input = [this, on_byte](int) {
            char byte = 0;
            if (m_ends[0].Recv(&byte, 1) == 1) {
                on_byte();
            }
            return 0;
        };
        m_handler->RegisterSock(m_ends[0], SOCK_EVENT_READ, 0);
    }
    void Send() { m_ends[1].Send("x", 1); }
    CTestHandler& Handler() { return *m_handler; }
    CSockStream& End() { return m_ends[0]; }

private:
    CTestHandler* const m_handler;
    CSockStream m_ends[2];
};

// Handlers of a host that hang, more than the pool has threads: others' sockets, timers and messages go on, on spare
// threads, which leave when they aren't needed any more; the end of the pool waits for all that hang.
TEST(Reactor, HandlersThatHangOnAllThreadsHoldUpNobody) {
    constexpr int HANGING = 4;
    std::atomic<int> closed{0}, hung{0}, bytes{0}, ticks{0}, messages{0};
    std::atomic<bool> is_over{false};
    std::vector<std::unique_ptr<CReader>> readers;
    auto pool = std::make_unique<CPool>(2);
    for (int i = 0; i <= HANGING; ++i) {
        readers.push_back(std::make_unique<CReader>(&closed));
        readers.back()->Start([&, i] {
            if (i == HANGING) {
                bytes.fetch_add(1);
                return;
            }
            hung.fetch_add(1);
            EXPECT_TRUE(CReactor::IsPoolThread());
            WaitUntil([&] { return is_over.load(); }, 60000);
            hung.fetch_sub(1);
        });
    }
    const auto hang_all = [&] {
        is_over.store(false);
        for (const auto& reader : readers) {
            reader->Send();
        }
        EXPECT_TRUE(WaitUntil([&] { return hung.load() == HANGING; }));
    };
    hang_all();
    readers.back()->Send();
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 2; }));
    CTestHandler& other = readers.back()->Handler();
    other.on_message = [&](long, unsigned int, long) { return messages.fetch_add(1); };
    other.on_timeout = [&](long) { return ticks.fetch_add(1); };
    other.SetTimer(1000);
    CReactor::Instance().Post(0, other.GetID(), 0, 0);
    EXPECT_TRUE(WaitUntil([&] { return ticks.load() > 2 && messages.load() == 1; }));
    EXPECT_GT(CReactor::Instance().Spares(), 1U);
    is_over.store(true);
    EXPECT_TRUE(WaitUntil([&] { return hung.load() == 0 && CReactor::Instance().Spares() == 0; }));
    hang_all();
    for (const auto& reader : readers) {
        reader->Handler().Close();
    }
    std::thread releaser([&] {
        EXPECT_TRUE(WaitUntil([&] { return CReactor::Instance().IsStopping(); }));
        EXPECT_EQ(-1, CNetThread::CreateThreadPool(1, false));
        EXPECT_EQ(-1, CNetThread::DestroyThreadPool());
        is_over.store(true);
    });
    pool.reset();
    EXPECT_EQ(0, hung.load());
    EXPECT_EQ(HANGING + 1, closed.load());
    EXPECT_EQ(0U, CReactor::Instance().Spares());
    releaser.join();
}

// The pool's threads sleep when there is nothing to do: also with a byte that nobody reads, before a handler that
// rests, and on a descriptor that its owner closed while the file lives on.
TEST(Reactor, WithNothingToDoNoThreadRuns) {
    const auto processor_ns = [] {
        timespec used = {};
        ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
        return used.tv_sec * 1000000000L + used.tv_nsec;
    };
    const auto goes_quiet = [&] {
        return WaitUntil([&] {
            const long before = processor_ns();
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            return processor_ns() - before < 10000000;
        });
    };
    CPool pool(3);
    std::atomic<int> closed{0}, bytes{0};
    CReader reader(&closed), unread(&closed), stale(&closed);
    for (CReader* one : {&reader, &unread, &stale}) {
        one->Start([&] { bytes.fetch_add(1); });
        one->Send();
    }
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 3; }));
    EXPECT_TRUE(goes_quiet());
    CReactor::Instance().Rest(unread.Handler(), unread.End().GetHandle(), SOCK_EVENT_READ);
    const int kept = ::dup(stale.End().GetHandle());
    const int number = stale.End().GetHandle();
    ::close(number);
    unread.Send();
    stale.Send();
    reader.Send();
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 4; }));
    CReactor::Instance().Forget(number);
    EXPECT_TRUE(goes_quiet());
    reader.Send();
    CReactor::Instance().Resume(unread.Handler());
    EXPECT_TRUE(WaitUntil([&] { return bytes.load() == 6; }));
    EXPECT_EQ(number, ::dup2(kept, number));
    ::close(kept);
    for (CReader* one : {&reader, &unread, &stale}) {
        one->Handler().Close();
    }
    EXPECT_TRUE(WaitUntil([&] { return closed.load() == 3; }));
}

// A strand counts to a number that many threads ask for: no turn may be lost, no two may run at once.
TEST(Strand, EachScheduleIsFollowedByATurn) {
    class CCounter : public CStrand {
    public:
        std::atomic<int> asked{0}, seen{0}, inside{0}, faults{0};

    private:
        bool RunTurn() override {
            faults.fetch_add(inside.fetch_add(1));
            seen.store(asked.load());
            inside.fetch_sub(1);
            return false;
        }
    };
    CPool pool;
    const auto counter = std::make_shared<CCounter>();
    Support::RunTogether(3, [counter] {
        for (int turn = 0; turn < 5000; ++turn) {
            counter->asked.fetch_add(1);
            counter->Schedule();
        }
    });
    EXPECT_TRUE(WaitUntil([&] { return counter->seen.load() == 15000; }));
    EXPECT_EQ(0, counter->faults.load());
}

// Handlers come, talk, register, remove and go on all threads at once, while host threads post to any identifier.
TEST(Reactor, StressOfEverythingAtOnce) {
    const long alive = CReactor::Instance().CountHandlers();
    CPool pool;
    constexpr int HANDLERS = 200;
    constexpr int HOSTS = 3;
    std::atomic<long> ids[HANDLERS] = {};  // of those that are whole
    std::atomic<int> made{0}, closed{0}, faults{0};
    struct CParty {
        std::atomic<int> inside{0};
        std::unique_ptr<CSockStream> socks[2];
        int steps = 0;
        long timer = 0;
    };
    const auto begin = [&](CTestHandler* handler) {
        const auto party = std::make_shared<CParty>();
        const auto step = [&faults, &ids, handler, party] {
            faults.fetch_add(party->inside.fetch_add(1));
            const long id = handler->GetID();
            CReactor::Instance().Post(id, ids[id * 7 % HANDLERS].load(), 1, 0);
            if (party->socks[0] == nullptr || ++party->steps % 3 == 0) {
                if (party->socks[0] != nullptr && party->steps % 2 == 0) {
                    handler->RemoveSock(*party->socks[0]);
                }
                party->socks[0] = std::make_unique<CSockStream>();
                party->socks[1] = std::make_unique<CSockStream>();
                Support::MakeSockPair(*party->socks[0], *party->socks[1]);
                handler->RegisterSock(*party->socks[0], SOCK_EVENT_READ, 500);
            }
            party->socks[1]->Send("x", 1);
            handler->DestroyTimer(party->timer);
            party->timer = handler->SetTimer(300);
            if (party->steps == 60) {
                handler->Close();
            }
            party->inside.fetch_sub(1);
            return 0;
        };
        handler->on_input = [step, party](int fd) {
            char byte = 0;
            return party->socks[0]->GetHandle() == fd ? static_cast<void>(party->socks[0]->Recv(&byte, 1)), step() : 0;
        };
        handler->on_message = [step](long, unsigned int, long) { return step(); };
        handler->on_timeout = [step](long) { return step(); };
        handler->on_input_timeout = [step](int) { return step(); };
        handler->on_close = [&faults, party] { faults.fetch_add(party->inside.load()); };
        CReactor::Instance().Post(0, handler->GetID(), 1, 0);
    };
    Support::RunTogether(HOSTS, [&] {
        for (int i = 0; i < HANDLERS / HOSTS; ++i) {
            CTestHandler* handler = CTestHandler::Make(&closed);
            const long id = handler->GetID();
            begin(handler);
            ids[made.fetch_add(1)].store(id);
            CReactor::Instance().Post(0, id, 1, 0);
            CReactor::Instance().Post(0, ids[i].load(), 1, 0);
        }
    });
    EXPECT_TRUE(WaitUntil([&] { return closed.load() == HANDLERS / HOSTS * HOSTS; }, 60000));
    EXPECT_EQ(0, faults.load());
    EXPECT_EQ(alive, CReactor::Instance().CountHandlers());
    EXPECT_EQ(CTimerQueue::NO_DEADLINE, CReactor::Instance().Timers().FirstDeadline());
}

// Against an ordered map: every deadline comes once, in order, unless moved or cancelled; handles of the dead are dead.
TEST(TimerQueue, BehavesLikeAnOrderedMap) {
    CTimerQueue queue;
    std::mt19937 random(7);
    std::map<uint64_t, std::pair<uint64_t, uint64_t>> alive;  // serial to handle and deadline
    std::vector<uint64_t> dead;
    uint64_t now = 0;
    uint64_t next_serial = 1;
    for (int step = 0; step < 20000; ++step) {
        const unsigned int what = random() % 8;
        auto some = alive.lower_bound(next_serial == 1 ? 0 : random() % next_serial);
        if (what < 3 || some == alive.end()) {
            const uint64_t deadline = now + random() % 1000;
            const uint64_t handle = queue.Add(deadline, CTimerTarget{nullptr, -1, next_serial});
            ASSERT_NE(0U, handle);
            alive[next_serial++] = {handle, deadline};
        } else if (what < 5) {
            some->second.second = now + random() % 1000;
            ASSERT_TRUE(queue.Rearm(some->second.first, some->second.second));
        } else if (what < 6) {
            ASSERT_TRUE(queue.Cancel(some->second.first));
            dead.push_back(some->second.first);
            alive.erase(some);
        } else {
            now += random() % 100;
            CTimerTarget due[16];
            uint64_t last = 0;
            const size_t count = queue.TakeDue(now, due, 16);
            for (size_t i = 0; i < count; ++i) {
                auto& taken = alive.at(due[i].serial);
                ASSERT_LE(taken.second, now);
                ASSERT_LE(last, taken.second);
                last = taken.second;
                taken.second = now + 1 + random() % 1000;
                ASSERT_TRUE(queue.Rearm(taken.first, taken.second));
            }
            uint64_t first = CTimerQueue::NO_DEADLINE;
            for (const auto& entry : alive) {
                first = std::min(first, entry.second.second);
            }
            ASSERT_EQ(first, queue.FirstDeadline());
        }
    }
    for (const uint64_t handle : dead) {
        ASSERT_FALSE(queue.Cancel(handle));
        ASSERT_FALSE(queue.Rearm(handle, 0));
    }
}

}  // namespace
}  // namespace Kavio::Tramel
