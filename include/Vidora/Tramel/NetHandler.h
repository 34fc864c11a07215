#ifndef VIDORA_TRAMEL_NETHANDLER_H
#define VIDORA_TRAMEL_NETHANDLER_H

#include <cstdint>
#include <memory>

#include "Vidora/Export.h"

namespace Kavio {
namespace Tramel {

class CSock;
class CReactor;
class CHandlerCore;  // the reactor's record of a handler: strand, registrations, timers

// What RegisterSock watches.
enum sock_event_mask_t { SOCK_EVENT_READ = 1, SOCK_EVENT_WRITE = 2, SOCK_EVENT_EXCEPTION = 4 };

// Messages that the base itself posts.
enum base_message_t {
    MSG_SOURCE_CLOSED = 1,  // a handler that the receiver holds has gone
    MSG_SOCK_EXCEPTION = 2  // a sender's socket failed
};

// CNetHandler: base of everything that receives events from the reactor (see CNetThread).
//
// A handler has an identifier that is never used again; others address it by that, so that a message to a handler that
// has gone is dropped. It dies in one place only: Close(), from any thread, leads to one handle_close(), whose
// override ends with `delete this`. A handler whose Close was never called may be deleted directly while none of its
// callbacks can run.
//
// THREADING  Callbacks run on the pool's threads, one at a time for one handler, different handlers in parallel.
//            Notify and Close: any thread, also with locks held. Registration and timers: any thread, usually the
//            handler's own callbacks.
class VIDORA_API CNetHandler {
public:
    CNetHandler();
    virtual ~CNetHandler();
    CNetHandler(const CNetHandler&) = delete;
    CNetHandler& operator=(const CNetHandler&) = delete;

    // The socket `fd` is readable, is writable, or has an error or failed to connect. 0 to go on, -1 if the work on
    // this socket failed; the reactor draws no consequence from the result.
    virtual int handle_input(int fd);
    virtual int handle_output(int fd);
    virtual int handle_exception(int fd);
    // No such event for the time given at RegisterSock. Repeats after every further quiet period.
    virtual int handle_input_timeout(int fd);
    virtual int handle_output_timeout(int fd);
    virtual int handle_exception_timeout(int fd);
    // The timer fired. 0 keeps it, -1 says that the handler has arranged its own end.
    virtual int64_t handle_timeout(long timer_id);
    // Delivered once after Close, when no other callback of this handler runs or will run. May delete the handler; the
    // reactor touches it no more. The base does nothing. The result is not used.
    virtual int handle_close(CNetHandler* handler);
    // A Notify reached this handler.
    virtual int handle_message(long sender_id, unsigned int msg, long param);
    // Begins the end: takes the sockets out of the reactor, stops the timers, drops waiting messages and arranges
    // handle_close. A second call does nothing. Overrides do their own stopping first and then call this one.
    virtual void Close();

    // The identifier, above 0.
    long GetID() const;

protected:
    // Watches `sock` for this handler. `mask` is a set of sock_event_mask_t, added to what is watched already.
    // `timeout_us` in microseconds: the quiet time after which the matching time-out callback runs, 0 for none; it
    // replaces the former one. The events are told for as long as they last (input that is left is told again), but
    // never while the callback for the former one runs. An error is told by handle_exception if that is watched, once:
    // write and exception events then rest until the socket is registered again; otherwise by the callback that is
    // watched, whose read or write then fails. 0, or -1: invalid socket or argument, closed handler, no pool, or the
    // system refused, or 8 handlers watch the descriptor already.
    int RegisterSock(CSock& sock, unsigned int mask, int64_t timeout_us);
    // Stops watching the bits of `mask`; without any left the socket is out of the reactor. 0, or -1 if it isn't
    // registered.
    int UnregisterSock(CSock& sock, unsigned int mask);
    // Takes the socket out altogether: no callback for it starts after the return, so that the caller may delete it.
    // One that runs just now on another thread is not waited for. 0, or -1 if it isn't registered.
    int RemoveSock(CSock& sock);

    // Starts a timer of `period_us` microseconds that fires until DestroyTimer, and returns its identifier, above 0; 0
    // on failure (period below 1, closed handler, no pool).
    long SetTimer(int64_t period_us);
    void DestroyTimer(long timer_id);

    // Posts a message to the handler `target_id`, where handle_message(own id, msg, param) runs later on a pool thread,
    // never inside the call. Messages of one sender to one receiver keep their order. Any thread.
    void Notify(long target_id, unsigned int msg, long param);

private:
    friend class CReactor;
    std::shared_ptr<CHandlerCore> m_core;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_NETHANDLER_H
