#ifndef VIDORA_TRAMEL_HANDLERCORE_H
#define VIDORA_TRAMEL_HANDLERCORE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <unordered_set>
#include <vector>

#include "Tramel/Strand.h"
#include "Vidora/Ostra/Mutex.h"

namespace Kavio {
namespace Tramel {

class CNetHandler;
class CReactor;

// CHandlerCore: the reactor's record of a handler: its strand of due events, its timers and the sockets it watches.
//
// It may outlive the handler while something still refers to it; it then drops what comes.
//
// THREADING  All operations: any thread. Callbacks run with no lock held. Lock order: m_mutex, then those of the socket
//            table and of the timer queue.
class CHandlerCore : public CStrand {
public:
    // A core in the registry for `handler`, or null if memory is short.
    static std::shared_ptr<CHandlerCore> Create(CNetHandler* handler);
    CHandlerCore(CReactor& reactor, CNetHandler* handler, long id);

    long GetID() const { return m_id; }
    // Where the handler lies, or has lain: for Ostra::CMemoryTrail::Fetch.
    const void* Place() const { return m_place; }

    // CNetHandler's operations of these names.
    int RegisterSock(int fd, unsigned int mask, int64_t timeout_us);
    int UnregisterSock(int fd, unsigned int mask);
    int RemoveSock(int fd);
    long SetTimer(int64_t period_us);
    void DestroyTimer(long timer_id);
    void Close();
    // One handle_output for `fd`; see CReactor::RequestOutput.
    int RequestOutput(int fd);
    // See CReactor::Resume and CountAsEnding.
    void Resume();
    void CountAsEnding() { m_ending.store(true); }
    // The handler is being destroyed: no callback starts any more.
    void Abandon();

    // Events of the reactor. False if memory is short; true also if the handler has gone, and the event is dropped.
    bool PostMessage(long sender_id, unsigned int msg, long param);
    bool PostSock(int fd, uint64_t serial);
    // The timer's deadline has come.
    void OnTimer(long timer_id, uint64_t now);

protected:
    bool RunTurn() override;
    bool IsEnding() const override { return m_closing.load() || m_ending.load(); }

private:
    enum event_kind_t { EVENT_MESSAGE, EVENT_SOCK, EVENT_TIMER };

    // One due event. EVENT_SOCK: `number` is the descriptor, `subject` the watch's serial. EVENT_TIMER: `subject` is
    // the timer. EVENT_MESSAGE: `number` is the message, `subject` the sender.
    struct CEvent {
        event_kind_t kind;
        unsigned int number;
        long subject;
        long param;
    };

    struct CTimer {
        long id;
        uint64_t period;
        uint64_t deadline;
        uint64_t handle;  // in the timer queue
        bool queued;      // a firing is queued and not delivered yet
    };

    bool note_sock_locked(int fd) VIDORA_REQUIRES(m_mutex);
    void reserve_events();
    void give_room_back_locked() VIDORA_REQUIRES(m_mutex);
    bool push_locked(const CEvent& event) VIDORA_REQUIRES(m_mutex);
    bool take(CEvent& event, CNetHandler*& handler, bool& is_last);
    void deliver(const CEvent& event, CNetHandler* handler);
    void deliver_sock(int fd, uint64_t serial, CNetHandler* handler);
    bool deliver_timer_starts(long timer_id);
    void deliver_close();
    void release_registrations();
    CTimer* find_timer_locked(long timer_id) VIDORA_REQUIRES(m_mutex);
    std::shared_ptr<CHandlerCore> self();

    // Constant after construction.
    CReactor& m_reactor;
    const long m_id;
    const void* const m_place;

    std::atomic<bool> m_closing{false};  // written under m_mutex
    std::atomic<bool> m_ending{false};   // what is due is delivered also while the pool stops

    Ostra::CMutex m_mutex;
    CNetHandler* m_handler VIDORA_GUARDED_BY(m_mutex);  // null once handle_close was called, or the handler destroyed
    std::vector<CEvent> m_events VIDORA_GUARDED_BY(m_mutex);
    size_t m_first VIDORA_GUARDED_BY(m_mutex) = 0;  // of m_events that isn't taken yet
    std::vector<CTimer> m_timers VIDORA_GUARDED_BY(m_mutex);
    // Descriptors that the table may hold for this core; one that was closed under it may be left here in vain.
    std::unordered_set<int> m_socks VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_HANDLERCORE_H
