#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <set>

#include "Protocol/RtspTables.h"
#include "RtspState.h"
#include "StateMachine.h"
#include "Vidora/NodePool.h"
#include "Vidora/SeqList.h"
#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/SampleTable.h"
#include "support/TestHandler.h"

namespace Kavio::Vidora {

namespace {

// An owner that notes every call, and gives the results that a test sets.
class COwner {
public:
    COwner() : keeper(new CMachineKeeper) { EXPECT_EQ(0, init_rtsp_states(*keeper, this)); }

    int on_describe(const StateEvent& event) { return note("describe", event); }
    int on_setup(const StateEvent& event) { return note("setup", event); }
    int on_play(const StateEvent& event) { return note("play", event); }
    int on_replay(const StateEvent& event) { return note("replay", event); }
    int on_pause(const StateEvent& event) { return note("pause", event); }
    int on_teardown(const StateEvent& event) { return note("teardown", event); }
    int on_options(const StateEvent& event) { return note("options", event); }
    int on_set_parameter(const StateEvent& event) { return note("set_parameter", event); }
    int on_get_parameter(const StateEvent& event) { return note("get_parameter", event); }
    int on_unsupported(const StateEvent& event) { return note("unsupported", event); }
    int send_data(const char* text, int length) {
        calls.push_back("send " + std::string(text, static_cast<size_t>(length)));
        return result;
    }
    void on_asyn_msg(const StateEvent& event) { note("asyn " + std::to_string(event.method), event); }

    bool Put(int method, int status = 0, uint64_t id = 0) {
        rtsp_msg_info info;
        info.method = method;
        info.status = status;
        info.cseq = 7;
        return keeper->put_rx_event(info, "text", 4, id);
    }
    std::vector<std::string> Take() { return std::move(calls); }

    int result = 0;
    uint64_t last_id = 0;
    std::function<void(const std::string&)> hook;  // runs inside the operations
    std::vector<std::string> calls;
    std::unique_ptr<CMachineKeeper> keeper;

private:
    int note(const std::string& name, const StateEvent& event) {
        calls.push_back(name);
        last_id = event.id;
        const int given = result;  // the hook may end the owner
        if (hook) {
            hook(name);
        }
        return given;
    }
};

typedef std::vector<std::string> Calls;

const char TABLES[] = VIDORA_TEST_DATA "/machine.txt";

// Puts methods, parted by blanks, with result 0.
void go(COwner& owner, const std::string& road) {
    for (const std::string& method : Support::SplitText(road, ' ')) {
        EXPECT_TRUE(method.empty() || owner.Put(RtspMethodOf(method.c_str())));
    }
    owner.Take();
}

// A request that runs on, so that its node is free again, and others that wait for it.
void describe_and_queue(COwner& owner, int waiting) {
    owner.result = 1;
    EXPECT_TRUE(owner.Put(RTSP_METHOD_DESCRIBE));
    for (int i = 0; i < waiting; ++i) {
        EXPECT_TRUE(owner.Put(RTSP_METHOD_OPTIONS));
    }
}

// The state, by the operations that PLAY and PAUSE lead to: a refused method ends the machine's work, so each probe is
// the machine's last request.
std::string state_of(COwner& owner) {
    owner.result = 0;
    owner.Put(RTSP_METHOD_PLAY);
    const Calls calls = owner.Take();
    if (calls == Calls{"play"}) {
        return "ready";
    }
    return calls == Calls{"replay"} ? "play" : calls.empty() ? "init" : "?";
}

// Every method in every state: refused, or its operation, the state after result 0, and the one after a positive result
// and a reply event with status 200.
TEST(StateMachine, Transitions) {
    for (const auto& row : Support::ReadTable(TABLES, "transitions", 5)) {
        SCOPED_TRACE(row[0] + " " + row[1]);
        const Support::CLogCapture log;
        COwner owner;
        go(owner, row[0]);
        EXPECT_TRUE(owner.Put(RtspMethodOf(row[1].c_str())));
        if (row[2] == "refused") {
            // Without a reply, and the machine waits for one: the next request gets nowhere.
            EXPECT_EQ(1, log.Count("Vidora::CStateMachine::execute exception occured!\n"));
            EXPECT_TRUE(owner.Put(RTSP_METHOD_OPTIONS));
            EXPECT_EQ(Calls{}, owner.Take());
            continue;
        }
        EXPECT_EQ(Calls{row[2]}, owner.Take());
        EXPECT_EQ(row[3], state_of(owner));

        for (const int result : {1, -1}) {
            COwner other;
            go(other, row[0]);
            other.result = result;
            EXPECT_TRUE(other.Put(RtspMethodOf(row[1].c_str())));
            EXPECT_EQ(Calls{row[2]}, other.Take());
            if (result > 0) {
                EXPECT_TRUE(other.keeper->put_tx_event(3, "reply", 200, other.last_id));
                EXPECT_EQ(Calls{"send reply"}, other.Take());
                EXPECT_EQ(row[4], state_of(other));
            } else {
                EXPECT_TRUE(other.Put(RTSP_METHOD_OPTIONS));
                EXPECT_EQ(Calls{}, other.Take());  // it waits
            }
        }
    }
}

// Puts in what the steps say.
void run_steps(COwner& owner, const std::string& steps) {
    for (const std::string& step : Support::SplitText(steps, ' ')) {
        const std::string name = step.substr(0, step.find(':'));
        const int number = step == name ? 0 : std::stoi(step.substr(name.size() + 1));
        if (name == "result") {
            owner.result = number;
        } else if (name == "message") {
            owner.keeper->put_asyn_msg(static_cast<unsigned int>(number), number == 1 ? owner.last_id : 0);
        } else if (name == "reply" || name == "other") {
            EXPECT_TRUE(owner.keeper->put_tx_event(5, name.c_str(), number, name == "reply" ? owner.last_id : 0));
        } else {
            EXPECT_TRUE(owner.Put(RtspMethodOf(name.c_str()), number, number > 0 ? owner.last_id : 0));
        }
    }
}

// What is put in, also from inside a call, and what is called.
TEST(StateMachine, ConversationsOfATable) {
    const Support::CLogCapture log;
    for (const auto& row : Support::ReadTable(TABLES, "conversations", 5)) {
        SCOPED_TRACE(row[0]);
        COwner owner;
        owner.hook = [&](const std::string& call) {
            if (call == row[2]) {
                EXPECT_FALSE(owner.keeper->idle());
                run_steps(owner, row[3]);
            }
        };
        run_steps(owner, row[1]);
        EXPECT_EQ(Support::SplitText(row[4], ','), owner.Take());
    }
}

TEST(StateMachine, EleventhWaitingRequestEndsTheSession) {
    const Support::CLogCapture log;
    COwner owner;
    describe_and_queue(owner, 10);
    EXPECT_EQ(Calls{"describe"}, owner.Take());
    EXPECT_FALSE(owner.Put(RTSP_METHOD_OPTIONS));
    EXPECT_EQ(Calls{"asyn 4096"}, owner.Take());
    EXPECT_EQ(1, log.Count("Vidora::CStateMachine::GetEvent:"));
    EXPECT_EQ(1, log.Count("too many message, invalid rtsp flow!\n"));
    EXPECT_EQ(0x2011u, owner.last_id);  // the spare event's, since the pool was empty
    // It didn't go to the pool, and the requests that wait are dropped: the next messages find nodes.
    for (int i = 0; i < 20; ++i) {
        owner.keeper->put_asyn_msg(MSG_SRC_END, 0);
        EXPECT_EQ(Calls{"asyn 4112"}, owner.Take());
        EXPECT_LT(0x2012u, owner.last_id);
    }
    EXPECT_TRUE(owner.keeper->put_tx_event(1, "reply", 200, owner.last_id));  // dropped without a word
    EXPECT_EQ(1, log.Count("too many message"));
    EXPECT_EQ(Calls{}, owner.Take());
}

// While an operation runs, a message that finds the pool empty waits in the spare event, and later ones take its place:
// the last one arrives, and the list of messages doesn't overflow.
TEST(StateMachine, MessagesArriveThoughThePoolIsEmptyAndAnOperationRuns) {
    const Support::CLogCapture log;
    COwner owner;
    owner.hook = [&](const std::string& name) {
        for (int i = 0; name == "describe" && i < 12; ++i) {
            owner.Put(RTSP_METHOD_OPTIONS);
        }
        for (int i = 0; name == "describe" && i < 30; ++i) {
            owner.keeper->put_asyn_msg(i < 29 ? MSG_SRC_FAIL : MSG_SESSION_BROKEN, 0);
        }
    };
    EXPECT_TRUE(owner.Put(RTSP_METHOD_DESCRIBE));
    Calls expected = {"describe", "asyn 8190"};  // the tenth request's message was the first to wait
    expected.insert(expected.end(), 9, "asyn 4096");
    EXPECT_EQ(expected, owner.Take());
    EXPECT_EQ(0, log.Count("list size isn't enough"));
}

TEST(StateMachine, HoldKeepsMessagesBackUntilRelease) {
    COwner owner;
    {
        const CMachineGuard guard(owner.keeper.get());
        ASSERT_TRUE(guard.held());
        const CMachineGuard inner(owner.keeper.get());
        owner.keeper->put_asyn_msg(MSG_SRC_END, 0);
        const CMachineGuard late(owner.keeper.get());
        EXPECT_FALSE(late.held());
        EXPECT_EQ(Calls{}, owner.Take());
    }
    EXPECT_EQ(Calls{"asyn 4112"}, owner.Take());
    COwner ending;
    {
        const CMachineGuard guard(ending.keeper.get());
        ending.keeper->put_asyn_msg(MSG_SRC_END, 0);
        ending.keeper.reset();  // the machine lives on until the guard ends, and calls nothing any more
    }
    EXPECT_EQ(Calls{}, ending.Take());
    const Support::CAssertCapture asserts;
    EXPECT_FALSE(CMachineGuard(nullptr).held());
    EXPECT_EQ(Calls{"machine_keeper"}, asserts.Texts());
}

TEST(StateMachine, MessageSizes) {
    const Support::CLogCapture log;
    COwner owner;
    rtsp_msg_info info;
    info.method = RTSP_METHOD_OPTIONS;
    const std::string text(5000, 'x');
    EXPECT_FALSE(owner.keeper->put_rx_event(info, nullptr, 1, 0));
    EXPECT_FALSE(owner.keeper->put_rx_event(info, text.data(), 4097, 0));
    EXPECT_FALSE(owner.keeper->put_tx_event(1, nullptr, 0, 0));
    EXPECT_FALSE(owner.keeper->put_tx_event(1, text.c_str(), 0, 0));
    EXPECT_EQ(Calls{}, owner.Take());
    EXPECT_TRUE(owner.keeper->put_rx_event(info, text.data(), 4096, 0));
    EXPECT_EQ(Calls{"options"}, owner.Take());
}

TEST(StateMachine, RecordsOfAWrongSizeAreDropped) {
    const Support::CLogCapture log;
    const Support::CAssertCapture asserts;
    COwner owner;
    CStateMachine* machine = new (std::nothrow) CStateMachine;
    for (const int type : {STATE_EVENT_RX, STATE_EVENT_TX}) {
        EXPECT_EQ(0, machine->deliver(machine->GetEvent(type, 31, 0)));
    }
    EXPECT_EQ(0, machine->deliver_asyn(machine->GetEvent(STATE_EVENT_ASYN, 23, 0), MSG_SRC_FAIL));
    EXPECT_EQ(3, log.Count("exception occured!"));
    EXPECT_EQ(nullptr, machine->GetEvent(STATE_EVENT_RX, 4129, 0));
    EXPECT_EQ(Calls{"event_size <= MAX_EVT_SIZE"}, asserts.Texts());
    EXPECT_EQ(0, machine->deliver(nullptr));
    EXPECT_EQ(-1, machine->set_state(5));
    // Answers to the spare event have its identifier, and are released all the same.
    StateEvent* event = nullptr;
    for (int i = 0; i < 11; ++i) {
        event = machine->GetEvent(STATE_EVENT_ASYN, STATE_EVENT_ASYN_SIZE, 0x2011);
        machine->deliver_asyn(event, MSG_SOURCE_CLOSED);
    }
    event = machine->GetEvent(STATE_EVENT_RX, STATE_EVENT_TEXT_OFFSET, 0);
    EXPECT_NE(nullptr, event);
    machine->deliver(event);
    machine->destroy();
}

TEST(StateMachine, OwnerMayEndInsideItsOwnOperation) {
    auto owner = std::make_unique<COwner>();
    owner->hook = [&](const std::string& name) {
        if (name == "asyn 4096") {
            owner->keeper->put_asyn_msg(MSG_SOURCE_CLOSED, owner->last_id);  // must not reach the owner any more
            owner->hook = nullptr;
            owner->keeper.reset();
        }
    };
    CMachineKeeper* keeper = owner->keeper.get();
    keeper->put_asyn_msg(MSG_SRC_FAIL, 0);
    EXPECT_EQ(Calls{"asyn 4096"}, owner->Take());
}

TEST(StateMachine, DestructionWaitsForTheOperationThatRunsAndForWhatIsQueued) {
    COwner owner;
    CMachineKeeper* keeper = owner.keeper.get();
    std::promise<void> entered;
    std::promise<void> go_on;
    owner.hook = [&](const std::string& name) {
        if (name == "options") {
            keeper->put_asyn_msg(MSG_SRC_FAIL, 0);
            entered.set_value();
            go_on.get_future().wait();
            keeper->put_asyn_msg(MSG_SRC_END, 0);  // runs unless the message of the end is there already
        }
    };
    std::thread runner([&] { owner.Put(RTSP_METHOD_OPTIONS); });
    entered.get_future().wait();
    std::thread ender([&] {
        owner.keeper.reset();
        Calls calls = owner.Take();
        calls.resize(2);
        EXPECT_EQ((Calls{"options", "asyn 4096"}), calls);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(5));  // gives a wrong destructor the time to return
    go_on.set_value();
    runner.join();
    ender.join();
}

// The one who holds the machine destroys its keeper while another thread is inside an operation: the destructor waits
// for that operation alone, and what was held back never runs.
TEST(StateMachine, DestructionInsideAHoldWaitsForTheOperationThatRunsAndForNothingElse) {
    COwner owner;
    CMachineKeeper* keeper = owner.keeper.get();
    std::promise<void> entered, go_on;
    std::atomic<bool> inside{false};
    owner.hook = [&](const std::string&) {
        inside = true;
        entered.set_value();
        go_on.get_future().wait();
        inside = false;
    };
    std::thread runner([&] { keeper->put_rx_event({RTSP_METHOD_OPTIONS, 0, 1}, "text", 4, 0); });
    entered.get_future().wait();
    {
        const CMachineGuard guard(keeper);
        ASSERT_TRUE(guard.held());
        keeper->put_asyn_msg(MSG_SRC_FAIL, 0);
        std::thread opener([&] { go_on.set_value(); });
        owner.keeper.reset();
        EXPECT_FALSE(inside);
        opener.join();
    }
    runner.join();
    EXPECT_EQ(Calls{"options"}, owner.Take());
}

TEST(StateMachine, OperationsNeverOverlapAndNothingIsLost) {
    COwner owner;
    std::atomic<int> inside{0}, overlaps{0}, in_flight{0};
    owner.hook = [&](const std::string&) {
        overlaps += ++inside == 1 ? 0 : 1;
        --inside;
        --in_flight;
    };
    std::atomic<int> taken{0};
    Support::RunTogether(4, [&] {
        for (int i = 0; i < 2000; ++i) {
            while (++in_flight > 8) {  // below the ten events that the machine holds
                --in_flight;
                std::this_thread::yield();
            }
            taken += owner.Put(RTSP_METHOD_OPTIONS) ? 1 : 0;
        }
    });
    EXPECT_EQ(0, overlaps);
    EXPECT_EQ(8000, taken);
    EXPECT_EQ(8000u, owner.Take().size());
}

TEST(SeqList, KeepsOrderRoundTheRingAndDropsWhenFull) {
    const Support::CLogCapture log;
    const Support::CAssertCapture asserts;
    int values[40];
    int* nodes[4];
    SeqList<int> list;
    EXPECT_EQ(-1, list.Push(&values[0]) & list.Init(nullptr, 4));
    ASSERT_EQ(0, list.Init(nodes, 4));
    EXPECT_EQ(-1, list.Push(nullptr));
    EXPECT_EQ(nullptr, list.Pop());
    int pushed = 0;
    int popped = 0;
    for (int round = 0; round < 9; ++round) {  // each leaves the ring's pointers at another place
        while (list.Push(&values[pushed]) == 0) {
            ++pushed;
        }
        EXPECT_EQ(4, pushed - popped);  // the front slot and three entries
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(&values[popped++], list.Pop());
        }
    }
    EXPECT_EQ(9, log.Count("list size isn't enough!And max number is 3 \n"));
    EXPECT_EQ(&values[popped], list.Pop());
    EXPECT_TRUE(list.Empty());
}

TEST(NodePool, GivesEachNodeOnceAndTheLastOneBackFirst) {
    const Support::CLogCapture log;
    const Support::CAssertCapture asserts;
    alignas(8) unsigned char memory[3 * 16];
    NodePool pool;
    EXPECT_EQ(-1, pool.Init(nullptr, 1, 16) & pool.Init(memory, 1, 4));
    EXPECT_EQ(nullptr, pool.Get());
    ASSERT_EQ(0, pool.Init(memory, 3, 16));
    pool.Put(nullptr);
    pool.Put(memory);  // full already
    EXPECT_EQ(3, pool.FreeCount());
    const std::set<void*> all = {pool.Get(), pool.Get(), pool.Get()};
    EXPECT_EQ(3u, all.size());
    EXPECT_EQ(nullptr, pool.Get());
    EXPECT_EQ(2, log.Count("node isn't enough!And minus number is 0 \n"));
    for (void* node : all) {
        pool.Put(node);
    }
    EXPECT_EQ(*all.rbegin(), pool.Get());
    EXPECT_EQ(2, pool.FreeCount());
    EXPECT_EQ(0, pool.MinFreeCount());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

TEST(StateMachineDeathTest, WithoutMemoryEveryOperationFails) {
    const auto run = [] {
        const rlimit none = {1, 1};
        setrlimit(RLIMIT_AS, &none);
        while (::operator new(64, std::nothrow) != nullptr) {
        }
        CMachineKeeper keeper;
        keeper.put_asyn_msg(MSG_SRC_FAIL, 0);
        const bool refused = !keeper.valid() && !keeper.put_rx_event(rtsp_msg_info(), "a", 1, 0) &&
                             !keeper.put_tx_event(0, "a", 0, 0) && !keeper.hold() &&
                             keeper.set_state_obj(0, nullptr) == -1 && keeper.set_state(0) == -1;
        _exit(refused ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

#endif

}  // namespace
}  // namespace Kavio::Vidora
