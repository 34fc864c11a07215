#ifndef VIDORA_TESTS_SUPPORT_TESTHANDLER_H
#define VIDORA_TESTS_SUPPORT_TESTHANDLER_H

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <thread>
#include <vector>

#include "Tramel/SockDgram.h"
#include "Tramel/SockStream.h"
#include "Vidora/Tramel/NetHandler.h"
#include "Vidora/Tramel/NetThread.h"

namespace Kavio::Support {

// Waits until `done` holds; false when it doesn't within `limit_ms`, which is long enough for a slow sanitizer build.
template <typename TCondition>
bool WaitUntil(TCondition done, int limit_ms = 20000) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs `code` on that many threads at once, and waits for their ends.
template <typename TCode>
void RunTogether(int count, TCode code) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(code);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

// A pool of threads for a scope.
class CPool {
public:
    explicit CPool(unsigned int threads = 4) { Tramel::CNetThread::CreateThreadPool(threads, false); }
    ~CPool() { Tramel::CNetThread::DestroyThreadPool(); }
};

// CTestHandler: a handler whose callbacks are functions that the test sets before the events can come; one that isn't
// set does nothing and gives 0. It counts handle_close in `closed`, and deletes itself there if it came from Make.
class CTestHandler : public Tramel::CNetHandler {
public:
    typedef std::function<int(int fd)> sock_function_t;

    // On the heap; ends with Close(). `closed` may be null and must outlive it.
    static CTestHandler* Make(std::atomic<int>* closed = nullptr) {
        CTestHandler* handler = new CTestHandler;
        handler->m_is_heap = true;
        handler->m_closed = closed;
        return handler;
    }

    sock_function_t on_input, on_output, on_exception, on_input_timeout, on_output_timeout;
    std::function<int64_t(long timer_id)> on_timeout;
    std::function<int(long sender_id, unsigned int msg, long param)> on_message;
    std::function<void()> on_close;

    using CNetHandler::DestroyTimer;
    using CNetHandler::Notify;
    using CNetHandler::RegisterSock;
    using CNetHandler::RemoveSock;
    using CNetHandler::SetTimer;
    using CNetHandler::UnregisterSock;

    int handle_input(int fd) override { return on_input ? on_input(fd) : 0; }
    int handle_output(int fd) override { return on_output ? on_output(fd) : 0; }
    int handle_exception(int fd) override { return on_exception ? on_exception(fd) : 0; }
    int handle_input_timeout(int fd) override { return on_input_timeout ? on_input_timeout(fd) : 0; }
    int handle_output_timeout(int fd) override { return on_output_timeout ? on_output_timeout(fd) : 0; }
    int64_t handle_timeout(long timer_id) override { return on_timeout ? on_timeout(timer_id) : 0; }
    int handle_message(long sender_id, unsigned int msg, long param) override {
        return on_message ? on_message(sender_id, msg, param) : 0;
    }
    int handle_close(CNetHandler*) override {
        if (on_close) {
            on_close();
        }
        std::atomic<int>* closed = m_closed;
        if (m_is_heap) {
            delete this;
        }
        if (closed != nullptr) {
            closed->fetch_add(1);
        }
        return 0;
    }

private:
    bool m_is_heap = false;
    std::atomic<int>* m_closed = nullptr;
};

// A sender that is connected to a receiver, both on loopback UDP; true on success.
inline bool MakeDgramPair(Tramel::CSockDgram& sender, Tramel::CSockDgram& receiver) {
    const Tramel::CSockAddrIPv4 local("127.0.0.1", 0);
    Tramel::CSockAddrStorage to;
    return sender.Open(&local) == 0 && receiver.Open(&local) == 0 && receiver.GetLocalAddr(&to) == 0 &&
           sender.SetRemote(&to) == 0;
}

// Two connected local stream sockets; true on success.
inline bool MakeSockPair(Tramel::CSockStream& one, Tramel::CSockStream& other) {
    int fds[2];
    return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0 && one.Attach(fds[0]) == 0 &&
           other.Attach(fds[1]) == 0;
}

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_TESTHANDLER_H
