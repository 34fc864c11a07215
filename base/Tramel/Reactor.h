#ifndef VIDORA_TRAMEL_REACTOR_H
#define VIDORA_TRAMEL_REACTOR_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <thread>

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
// The threads are alike. Each takes the next strand (see CStrand) that has a turn due and runs it. Of those that find
// none one polls: it waits in the poller for the sockets' events, the timers' deadlines and the strands of other
// threads. The others rest. What has come the thread that polled handles by itself, one after the other, and polls
// again: so the state of the handlers stays in one processor's cache, and nobody is woken for what is done in a moment.
// While it is out and nobody polls, an alarm is set, which calls one that rests to its help: it then takes turns from
// the same queue, polls when that is empty, and rests again once another thread polls. A handler is a strand
// (CHandlerCore), so that
//   - two callbacks of one handler never run at once, those of different handlers do;
//   - a handler that blocks holds one thread, and others for HELP_AFTER_US at most, as long as another thread is free;
//   - under load all threads work.
// Handlers that hang in a host's code may hold all threads. One more thread watches over that: when none has come to
// poll for HELD_UP_AFTER_US, and none rests, it adds a spare one, up to MAX_SPARES. A spare one is like the others;
// when there are spare ones, a thread that has rested for SPARE_IDLE_MS leaves. A pool of one thread has neither: its
// callbacks never run at once, which its host may count on.
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
// THREADING  All operations: any thread. Stop waits for what runs on the pool, and Start for nothing.
class CReactor {
public:
    static constexpr unsigned int MAX_THREADS = 256;
    static constexpr unsigned int MAX_SPARES = 32;

    static CReactor& Instance();

    // CNetThread::CreateThreadPool and DestroyThreadPool.
    int Start(unsigned int threads);
    int Stop();
    bool IsRunning() const { return m_running.load(); }
    // Threads beyond those that Start was asked for.
    unsigned int Spares() const { return m_spares.load(); }
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
    // From now on handle_input of `owner`, which has registered `fd`, drains it: it reads until a read leaves room, or
    // sees by itself that it comes back. Input is told once then, as it comes, and once more behind a Rest; the end of
    // the connection, errors, and what lies behind urgent data as long as they last. Ends when it registers the socket
    // again. 0, or negative if it isn't registered.
    int Drain(CNetHandler& owner, int fd);
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

    // What a thread does next.
    enum role_t { ROLE_RUN, ROLE_LOOK, ROLE_POLL, ROLE_REST };

    // What the threads of a pool wait for: the one that polls, those that rest, and the one that watches.
    struct CPollers {
        CEpollPoller events;
        CEpollPoller help;   // without a descriptor; its alarm calls for help
        CEpollPoller watch;  // likewise; its alarm asks whether the others are held up
    };

    struct CPoolThread {
        std::thread thread;
        std::atomic<bool> has_left{false};  // it is about to return while the pool lives on
    };

    void Enqueue(std::shared_ptr<CStrand> strand);
    void set_pollers(const std::shared_ptr<CPollers>& pollers);
    int start_threads(unsigned int threads, const std::shared_ptr<CPollers>& pollers);
    bool start_thread(const std::shared_ptr<CPollers>& pollers);
    void watch(const std::shared_ptr<CPollers>& pollers);
    bool needs_spare(CPollers& pollers);
    void join_left();
    void work(const std::shared_ptr<CPollers>& pollers, std::atomic<bool>& has_left);
    role_t next_role(CPollers& pollers, bool may_run, std::shared_ptr<CStrand>& strand);
    std::shared_ptr<CStrand> take_ending_strand();
    size_t poll(CPollers& pollers, bool sleeps);
    void gather(CPollers& pollers, const CPollBatch& batch, uint64_t now);
    bool rest(CPollers& pollers);
    bool rest_goes_on(CPollers& pollers, const CPollBatch& batch, uint64_t since, bool& leaves);
    void run_deadlines(uint64_t now);
    void follow_strangers(CPollers& pollers, bool came);
    void call_others_locked(CPollers& pollers) VIDORA_REQUIRES(m_mutex);
    void set_help_locked(CPollers& pollers, uint64_t from) VIDORA_REQUIRES(m_mutex);
    void set_watch_locked(CPollers& pollers) VIDORA_REQUIRES(m_mutex);

    CTimerQueue m_timers;
    CSockTable m_socks;
    CHandlerRegistry m_handlers;
    std::atomic<long> m_handler_count{0};
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopping{false};

    Ostra::CMutex m_control;           // held over the beginning of a pool, and over that of its end
    std::list<CPoolThread> m_threads;  // of the thread that starts, that which watches, and that which stops, in turn
    std::thread m_watcher;             // of the threads that start and stop; none if the pool may not grow
    bool m_may_grow = false;           // constant while threads run
    std::atomic<unsigned int> m_spares{0};

    unsigned int m_strange_polls = 0;  // in a row, with an event of an unknown descriptor; of the thread that polls

    Ostra::CMutex m_mutex;
    std::shared_ptr<CPollers> m_pollers VIDORA_GUARDED_BY(m_mutex);
    CStrandQueue m_queue VIDORA_GUARDED_BY(m_mutex);      // strands with a turn due, first come first served
    bool m_polled VIDORA_GUARDED_BY(m_mutex) = false;     // a thread polls
    bool m_asleep VIDORA_GUARDED_BY(m_mutex) = false;     // it waits for as long as it takes, or is about to
    bool m_wake_sent VIDORA_GUARDED_BY(m_mutex) = false;  // a wake-up that it hasn't taken yet
    unsigned int m_resting VIDORA_GUARDED_BY(m_mutex) = 0;
    uint64_t m_help_at VIDORA_GUARDED_BY(m_mutex) = 0;       // for which the alarm of `help` is set, or 0
    bool m_called_often VIDORA_GUARDED_BY(m_mutex) = false;  // the last sleep ended soon after the one before
    bool m_behind VIDORA_GUARDED_BY(m_mutex) = false;        // the last poll left events behind, as its batch was full
    uint64_t m_busy_since VIDORA_GUARDED_BY(m_mutex) = 0;    // when the thread that polled left its last sleep
    uint64_t m_polls VIDORA_GUARDED_BY(m_mutex) = 0;         // that were begun
    uint64_t m_polls_seen VIDORA_GUARDED_BY(m_mutex) = 0;    // when the alarm of `watch` was set
    bool m_watched VIDORA_GUARDED_BY(m_mutex) = false;       // that alarm is set
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_REACTOR_H
