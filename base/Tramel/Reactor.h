#ifndef VIDORA_TRAMEL_REACTOR_H
#define VIDORA_TRAMEL_REACTOR_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "Tramel/EpollPoller.h"
#include "Tramel/HandlerRegistry.h"
#include "Tramel/SockTable.h"
#include "Tramel/Strand.h"
#include "Tramel/TimerQueue.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CNetHandler;

// CReactor: the pool of threads and all that it runs.
//
// The threads are alike. Each takes the next strand (see CStrand) that has a turn due and runs it; one that finds none
// waits in the poller, with any number of others. An event wakes one thread, which itself runs the callback: nothing is
// handed over. A handler is a strand (CHandlerCore), so that
//   - two callbacks of one handler never run at once, those of different handlers do;
//   - a handler that blocks holds one thread and nobody else, as long as another thread is free.
//
// Answers:
//   1. Which thread runs a callback? Whichever is free, without a lock of the reactor. Never the caller's inside a
//      call.
//   2. What if a callback removes sockets, timers or handlers that have events due? What is due is looked up again just
//      before each callback and skipped if it has gone. The number of a closed descriptor may be used again at once:
//      each registration has a serial of its own.
//   3. Does removal wait for a callback that runs on another thread? No: callers hold locks that it may want. No
//      callback starts after the removal has returned (one whose turn has come at that moment counts as running).
//   4. When does a handler end? After Close(): once the callback that runs has returned, handle_close runs, and the
//      reactor doesn't touch the handler again.
//
// The reactor is made at first use and never destroyed, so that handlers of static lifetime may outlast main.
//
// THREADING  All operations: any thread, but Start and Stop: one thread, not one of the pool's.
class CReactor {
public:
    static constexpr unsigned int MAX_THREADS = 256;

    static CReactor& Instance();

    // CNetThread::CreateThreadPool and DestroyThreadPool.
    int Start(unsigned int threads);
    int Stop();
    bool IsRunning() const { return m_running.load(); }
    // Stop waits: only handlers that close get their turn.
    bool IsStopping() const { return m_stopping.load(); }
    // Handlers may register. Those whose callback runs into a Stop may as well: it holds for the next pool.
    bool TakesHandlers() const { return m_stopping.load() || m_running.load(); }
    // Whether the caller runs on a thread of the pool.
    static bool IsPoolThread();

    // Posts a message to the handler `target_id` on behalf of `sender_id`, any number; dropped if the target has gone
    // or closes. It runs there later as handle_message(sender_id, msg, param).
    void Post(long sender_id, long target_id, unsigned int msg, long param);

    // handle_output(fd) of `owner` runs once on its strand as soon as `fd` can be written; calls before that are one.
    // Independent of what the owner has registered itself, and no time-out comes of it. RemoveSock ends it. The caller
    // sees to it that the owner lives. 0 or -1.
    int RequestOutput(CNetHandler& owner, int fd);
    // Rest: `fd` stays registered by `owner`, but the events of `mask` aren't told until it registers the socket again,
    // or Resume, which ends that for all its sockets. 0, or -1 if it isn't registered.
    int Rest(CNetHandler& owner, int fd, unsigned int mask);
    void Resume(CNetHandler& owner);
    // `owner` has begun its end and waits for others that close: while Stop waits it counts as closing, so that it gets
    // their messages.
    static void CountAsEnding(CNetHandler& owner);

    // `fd` is about to be closed: takes it out for all who watch it.
    void Forget(int fd) { m_socks.Forget(fd); }

    // Handlers that exist: constructed and not yet destroyed.
    long CountHandlers() const { return m_handler_count.load(); }

    CSockTable& Socks() { return m_socks; }
    CTimerQueue& Timers() { return m_timers; }
    CHandlerRegistry& Handlers() { return m_handlers; }

private:
    friend class CStrand;
    friend class CNetHandler;

    CReactor();
    ~CReactor() = delete;

    void Enqueue(std::shared_ptr<CStrand> strand);
    void set_poller(const std::shared_ptr<CEpollPoller>& poller);
    int start_threads(unsigned int threads, const std::shared_ptr<CEpollPoller>& poller);
    void work(const std::shared_ptr<CEpollPoller>& poller);
    std::shared_ptr<CStrand> take_strand(CEpollPoller& poller, bool& sleeps);
    std::shared_ptr<CStrand> take_ending_strand();
    void poll(CEpollPoller& poller, bool sleeps);
    void run_deadlines(uint64_t now);
    void push_locked(std::shared_ptr<CStrand> strand) VIDORA_REQUIRES(m_mutex);
    bool claim_wake_locked() VIDORA_REQUIRES(m_mutex);

    CTimerQueue m_timers;
    CSockTable m_socks;
    CHandlerRegistry m_handlers;
    std::atomic<long> m_handler_count{0};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopping{false};

    std::vector<std::thread> m_threads;  // of the thread that starts and stops

    Ostra::CMutex m_mutex;
    std::shared_ptr<CEpollPoller> m_poller VIDORA_GUARDED_BY(m_mutex);
    std::shared_ptr<CStrand> m_head VIDORA_GUARDED_BY(m_mutex);  // strands with a turn due, first come first served
    CStrand* m_tail VIDORA_GUARDED_BY(m_mutex) = nullptr;
    unsigned int m_idle VIDORA_GUARDED_BY(m_mutex) = 0;   // threads that wait in the poller, or are about to
    bool m_wake_sent VIDORA_GUARDED_BY(m_mutex) = false;  // a wake-up that no thread has taken yet
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_REACTOR_H
