#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "RtspState.h"
#include "StateMachine.h"
#include "Vidora/Types.h"
#include "support/Capture.h"
#include "support/TestHandler.h"

namespace Kavio {
namespace Vidora {

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

// Roads to a state, as methods that are put with result 0.
const std::vector<int> TO_INIT = {};
const std::vector<int> TO_READY = {RTSP_METHOD_SETUP};
const std::vector<int> TO_PLAY = {RTSP_METHOD_SETUP, RTSP_METHOD_PLAY};

void go(COwner& owner, const std::vector<int>& road) {
    for (const int method : road) {
        EXPECT_TRUE(owner.Put(method));
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

TEST(StateMachine, Transitions) {
    const struct {
        const std::vector<int>& road;
        int method;
        const char* operation;  // empty: refused
        const char* done;       // state after result 0
        const char* later;      // after a positive result and a reply event with status 200
    } rows[] = {
        {TO_INIT, RTSP_METHOD_DESCRIBE, "describe", "init", "init"},
        {TO_INIT, RTSP_METHOD_SETUP, "setup", "ready", "ready"},
        {TO_INIT, RTSP_METHOD_PLAY, "", "", ""},
        {TO_INIT, RTSP_METHOD_PAUSE, "", "", ""},
        {TO_INIT, RTSP_METHOD_OPTIONS, "options", "init", "init"},
        {TO_READY, RTSP_METHOD_DESCRIBE, "", "", ""},
        {TO_READY, RTSP_METHOD_PAUSE, "", "", ""},
        {TO_READY, RTSP_METHOD_SETUP, "setup", "ready", "ready"},
        {TO_READY, RTSP_METHOD_PLAY, "play", "play", "play"},
        {TO_READY, RTSP_METHOD_TEARDOWN, "teardown", "init", "init"},
        {TO_READY, RTSP_METHOD_GET_PARAMETER, "get_parameter", "ready", "ready"},
        {TO_PLAY, RTSP_METHOD_DESCRIBE, "", "", ""},
        {TO_PLAY, RTSP_METHOD_SETUP, "setup", "play", "play"},
        {TO_PLAY, RTSP_METHOD_PLAY, "replay", "play", "play"},
        {TO_PLAY, RTSP_METHOD_PAUSE, "pause", "ready", "ready"},
        {TO_PLAY, RTSP_METHOD_TEARDOWN, "teardown", "init", "init"},
        {TO_PLAY, RTSP_METHOD_SET_PARAMETER, "set_parameter", "play", "play"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.road.size() << " then method " << row.method);
        const Support::CLogCapture log;
        COwner owner;
        go(owner, row.road);
        EXPECT_TRUE(owner.Put(row.method));
        if (row.operation[0] == '\0') {
            // Refused without a reply, and the machine waits for one: the next request gets nowhere.
            EXPECT_EQ(1, log.Count("Vidora::CStateMachine::execute exception occured!\n"));
            EXPECT_TRUE(owner.Put(RTSP_METHOD_OPTIONS));
            EXPECT_EQ(Calls{}, owner.Take());
            continue;
        }
        EXPECT_EQ(Calls{row.operation}, owner.Take());
        EXPECT_EQ(row.done, state_of(owner));

        COwner waiting;
        go(waiting, row.road);
        waiting.result = 1;
        EXPECT_TRUE(waiting.Put(row.method));
        EXPECT_TRUE(waiting.keeper->put_tx_event(3, "reply", 200, waiting.last_id));
        EXPECT_EQ((Calls{row.operation, "send reply"}), waiting.Take());
        EXPECT_EQ(row.later, state_of(waiting));

        COwner failing;
        go(failing, row.road);
        failing.result = -1;
        EXPECT_TRUE(failing.Put(row.method));
        EXPECT_TRUE(failing.Put(row.method));
        EXPECT_EQ(Calls{row.operation}, failing.Take());  // the second one waits
    }
}

TEST(StateMachine, AwaitedReplyHoldsBackAllElse) {
    const Support::CLogCapture log;
    COwner owner;
    owner.result = 1;
    EXPECT_TRUE(owner.Put(RTSP_METHOD_SETUP));
    const uint64_t id = owner.last_id;
    EXPECT_FALSE(owner.keeper->forget_events());
    EXPECT_TRUE(owner.Put(RTSP_METHOD_OPTIONS));
    EXPECT_TRUE(owner.keeper->put_tx_event(8, "other", 0, 0));
    EXPECT_EQ(Calls{"setup"}, owner.Take());
    owner.result = 0;
    EXPECT_TRUE(owner.keeper->put_tx_event(2, "reply", 404, id));  // a failure: the state stays
    EXPECT_EQ((Calls{"send reply", "options", "send other"}), owner.Take());
    EXPECT_EQ("init", state_of(owner));
}

TEST(StateMachine, ReplyFromInsideTheOperationRunsAfterIt) {
    COwner owner;
    owner.result = 1;
    owner.hook = [&](const std::string& name) {
        if (name == "setup") {
            owner.Put(RTSP_METHOD_OPTIONS);
            EXPECT_TRUE(owner.keeper->put_tx_event(2, "reply", 200, owner.last_id));
            owner.result = 0;
        }
    };
    EXPECT_TRUE(owner.Put(RTSP_METHOD_SETUP));
    EXPECT_EQ((Calls{"setup", "send reply", "options"}), owner.Take());
    EXPECT_EQ("ready", state_of(owner));
}

TEST(StateMachine, UnknownMethodCallsNothingAndHoldsNothing) {
    COwner owner;
    EXPECT_TRUE(owner.Put(RTSP_METHOD_UNKNOWN));
    EXPECT_TRUE(owner.Put(RTSP_METHOD_OPTIONS));
    EXPECT_EQ(Calls{"options"}, owner.Take());
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

// The source that a broken session closes answers with that session's identifier, from another thread, while the
// message that broke it still runs; a full pool mustn't make the answer look like a later message, which is shed.
TEST(StateMachine, AnswerToAFatalMessageIsKnownThoughThePoolWasFull) {
    COwner owner;
    describe_and_queue(owner, 9);
    owner.Take();
    owner.hook = [&](const std::string& name) {
        if (name == "asyn 8190") {
            owner.keeper->put_asyn_msg(MSG_SOURCE_CLOSED, owner.last_id);
        }
    };
    owner.keeper->put_asyn_msg(MSG_SESSION_BROKEN, 0);  // takes the last node
    EXPECT_EQ((Calls{"asyn 8190", "asyn 1"}), owner.Take());
}

TEST(StateMachine, AsynchronousMessageShutsTheDoor) {
    COwner owner;
    owner.keeper->put_asyn_msg(MSG_SRC_END, 0);
    EXPECT_EQ(Calls{"asyn 4112"}, owner.Take());
    EXPECT_TRUE(owner.Put(RTSP_METHOD_OPTIONS));
    EXPECT_TRUE(owner.keeper->put_tx_event(1, "reply", 200, owner.last_id));
    EXPECT_EQ(Calls{}, owner.Take());
    owner.keeper->put_asyn_msg(MSG_SESSION_BROKEN, 0);
    EXPECT_EQ(Calls{"asyn 8190"}, owner.Take());
    // After a fatal one later ones are shed, but for the answer to the one that ran last.
    const uint64_t last = owner.last_id;
    owner.keeper->put_asyn_msg(MSG_SRC_FAIL, 0);
    EXPECT_EQ(Calls{}, owner.Take());
    owner.keeper->put_asyn_msg(MSG_SOURCE_CLOSED, last);
    EXPECT_EQ(Calls{"asyn 1"}, owner.Take());
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

TEST(StateMachine, ClientRepliesEnterTheStateThatWaits) {
    const Support::CLogCapture log;
    COwner owner;
    owner.result = 1;
    EXPECT_TRUE(owner.Put(RTSP_METHOD_SETUP, 200));
    EXPECT_TRUE(owner.Put(RTSP_METHOD_PLAY, 200, owner.last_id));  // the state follows first, then its PLAY
    EXPECT_EQ((Calls{"setup", "play"}), owner.Take());
    EXPECT_TRUE(owner.Put(RTSP_METHOD_PLAY, 404, owner.last_id));
    EXPECT_EQ(1, log.Count("status:404\n"));
    EXPECT_TRUE(owner.Put(RTSP_METHOD_PLAY, 302, owner.last_id));
    EXPECT_EQ(1, log.Count("exception occured!"));
    EXPECT_EQ(Calls{}, owner.Take());

    COwner staying;
    staying.result = 1;
    EXPECT_TRUE(staying.Put(RTSP_METHOD_DESCRIBE, 200));  // there is no state to enter with the next reply
    EXPECT_TRUE(staying.Put(RTSP_METHOD_SETUP, 200, staying.last_id));
    EXPECT_EQ(Calls{"describe"}, staying.Take());
    EXPECT_EQ(2, log.Count("exception occured!"));
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

// With an empty pool every message goes through the spare event: neither the fatal one that waits there nor the
// message of the end may be lost to one that comes after it as the answer to the message that ran last.
TEST(StateMachine, MessagesOfTheEndAreNotOverwritten) {
    const Support::CLogCapture log;
    COwner owner;
    describe_and_queue(owner, 10);
    owner.hook = [&](const std::string& name) {
        for (int i = 0; name == "asyn 4096" && i < 10; ++i) {
            owner.keeper->put_asyn_msg(MSG_SRC_END, 0);  // these have the nodes of the dropped requests
        }
        if (name == "asyn 4096") {
            owner.keeper->put_asyn_msg(MSG_SESSION_BROKEN, 0);
            owner.keeper->put_asyn_msg(MSG_SOURCE_CLOSED, owner.last_id);
        }
    };
    owner.keeper->put_asyn_msg(MSG_SRC_FAIL, 0);  // in the spare event
    Calls expected = {"describe", "asyn 4096"};
    expected.insert(expected.end(), 10, "asyn 4112");
    expected.push_back("asyn 8190");
    EXPECT_EQ(expected, owner.Take());
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

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// Pages of the machine's block that are resident, by the kernel's count.
int resident_pages(const void* block, size_t size) {
    const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const uintptr_t begin = reinterpret_cast<uintptr_t>(block) / page * page;
    const uintptr_t end = reinterpret_cast<uintptr_t>(block) + size;
    std::vector<unsigned char> resident((end - begin + page - 1) / page);
    EXPECT_EQ(0, mincore(reinterpret_cast<void*>(begin), end - begin, resident.data()));
    int count = 0;
    for (const unsigned char flag : resident) {
        count += flag & 1;
    }
    return count;
}

TEST(StateMachine, OneRequestAtATimeKeepsTwoPagesResidentAndNoneWhenItIsQuiet) {
    CStateMachine* machine = new (std::nothrow) CStateMachine;
    ASSERT_NE(nullptr, machine);
    StateEvent* event = nullptr;  // always the pool's first
    for (int i = 0; i < 1000; ++i) {
        event = machine->GetEvent(STATE_EVENT_TX, 4096, 0);
        ASSERT_NE(nullptr, event);
        std::memset(event->text(), 'x', 4096 - 32);
        event->length = 0;
        event->status = 0;
        EXPECT_EQ(0, machine->deliver(event));
    }
    const long page = sysconf(_SC_PAGESIZE);
    EXPECT_LE(resident_pages(event, 10 * 4096), page >= 8192 ? 1 : 2);

    ASSERT_EQ(event, machine->GetEvent(STATE_EVENT_TX, 4096, 0));
    std::memset(event->text(), 'x', 4096 - 32);
    EXPECT_FALSE(machine->forget_events());
    EXPECT_EQ('x', event->text()[4000]);  // in flight
    event->length = 0;
    EXPECT_EQ(0, machine->deliver(event));
    EXPECT_TRUE(machine->forget_events());
    EXPECT_EQ(0, resident_pages(event, 10 * 4096));
    machine->destroy();
}

TEST(StateMachineDeathTest, WithoutMemoryEveryOperationFails) {
    const auto run = [] {
        const rlimit none = {1, 1};
        setrlimit(RLIMIT_AS, &none);
        CMachineKeeper keeper;
        keeper.put_asyn_msg(MSG_SRC_FAIL, 0);
        const bool refused = !keeper.valid() && !keeper.put_rx_event(rtsp_msg_info(), "a", 1, 0) &&
                             !keeper.put_tx_event(0, "a", 0, 0) && keeper.hold() == -1 &&
                             keeper.set_state_obj(0, nullptr) == -1 && keeper.set_state(0) == -1;
        _exit(refused ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}

#endif

}  // namespace
}  // namespace Vidora
}  // namespace Kavio
