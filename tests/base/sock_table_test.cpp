#include "Tramel/SockTable.h"

#include <gtest/gtest.h>

#include "Tramel/HandlerCore.h"
#include "support/StreamPeer.h"

namespace Kavio::Tramel {
namespace {

// What a reader that drains had no chance to read is told again: before a rest, by another one that has gone, what lies
// behind urgent data (RFC 793), and the end; but neither urgent data alone, nor the end to one who awaits errors.
TEST(SockTable, DrainedInputOutlivesRestsOtherReadersAndUrgentData) {
    constexpr int LIMIT_MS = 20000;
    Support::TcpPair pair;
    CSockStream sock;
    ASSERT_EQ(0, sock.Attach(pair.near_fd));
    CTimerQueue timers;
    CSockTable table(timers);
    const auto poller = std::make_shared<CEpollPoller>();
    ASSERT_EQ(0, poller->Open());
    table.SetPoller(poller);
    const std::shared_ptr<CHandlerCore> core = CHandlerCore::Create(nullptr), other = CHandlerCore::Create(nullptr);
    const int fd = pair.near_fd;
    const auto told = [&](int limit_ms = 0) {
        CPollBatch batch;
        table.BeginPoll();
        poller->Wait(batch, limit_ms);
        for (int i = 0; i < batch.count; ++i) {
            EXPECT_TRUE(table.OnEvent(batch.events[i], 0));
        }
        return batch.count;
    };
    const auto deliver = [&](
                             const std::shared_ptr<CHandlerCore>& to, int bytes,
                             const std::function<void()>& code = [] {}) {
        const unsigned int events = table.Begin(to.get(), fd, 0).events;
        char room[64];
        EXPECT_EQ(bytes, bytes > 0 ? sock.Recv(room, sizeof(room)) : 0);
        code();
        table.End(to.get(), fd, 0, events);
        return events;
    };
    for (const auto& drainer : {core, other}) {
        EXPECT_EQ(0, table.Watch(drainer, fd, SOCK_EVENT_READ, 0));
        EXPECT_EQ(0, table.Drain(drainer.get(), fd));
    }
    ::send(pair.far_fd, "ab", 2, 0);
    EXPECT_EQ(1, told(LIMIT_MS));
    deliver(other, 0);
    deliver(core, 0, [&] { table.Rest(core.get(), fd, SOCK_EVENT_READ); });
    EXPECT_EQ(0, told());
    table.Resume(core.get(), fd);
    EXPECT_EQ(1, told());
    deliver(other, 2);
    deliver(core, 0, [&] {
        ::send(pair.far_fd, "c", 1, 0);
        EXPECT_EQ(1, told(LIMIT_MS));
        table.Remove(other.get(), fd);
    });
    EXPECT_EQ(1, told());
    deliver(core, 1);
    ::send(pair.far_fd, "du", 2, MSG_OOB);  // the last byte is the urgent one
    ::send(pair.far_fd, "ef", 2, 0);
    for (const int bytes : {1, 2}) {
        EXPECT_EQ(1, told(LIMIT_MS));
        EXPECT_EQ(0U + SOCK_EVENT_READ, deliver(core, bytes));
    }
    ::send(pair.far_fd, "u", 1, MSG_OOB);
    told(LIMIT_MS);
    EXPECT_EQ(0U, deliver(core, 0));
    EXPECT_EQ(0, told());
    pair.CloseFar();
    EXPECT_EQ(1, told(LIMIT_MS));
    deliver(core, 0);
    EXPECT_EQ(1, told());
    deliver(core, 0, [&] { table.Unwatch(core.get(), fd, SOCK_EVENT_READ); });
    EXPECT_EQ(0, table.Watch(core, fd, SOCK_EVENT_EXCEPTION, 0));
    EXPECT_EQ(0, told());
}

}  // namespace
}  // namespace Kavio::Tramel
