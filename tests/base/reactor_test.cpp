#include "Tramel/Reactor.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "Tramel/SockStream.h"
#include "support/TestHandler.h"

namespace Kavio {
namespace Tests {
namespace {

using Tramel::CNetThread;
using Tramel::CReactor;
using Tramel::CSockStream;

TEST(Reactor, NotifyKeepsOrderAndNamesSender) {
    CPool pool;
    std::atomic<int> closed{0};
    std::atomic<int> received{0};
    CTestHandler* receiver = CTestHandler::Make(&closed);
    CTestHandler* sender = CTestHandler::Make(&closed);
    const long sender_id = sender->GetID();
    bool in_order = true;
    receiver->on_message = [&](long from, unsigned int msg, long param) {
        in_order = in_order && from == sender_id && msg == 7 && param == received.load();
        received.fetch_add(1);
        return -1;
    };
    for (int i = 0; i < 1000; ++i) {
        sender->Notify(receiver->GetID(), 7, i);
    }
    EXPECT_TRUE(WaitUntil([&] { return received.load() == 1000; }));
    EXPECT_TRUE(in_order);
    sender->Close();
    receiver->Close();
    EXPECT_TRUE(WaitUntil([&] { return closed.load() == 2; }));
}

}  // namespace
}  // namespace Tests
}  // namespace Kavio
