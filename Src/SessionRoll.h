#ifndef VIDORA_SESSIONROLL_H
#define VIDORA_SESSIONROLL_H

#include <condition_variable>
#include <memory>
#include <mutex>

namespace Kavio {
namespace Vidora {

// CSessionRoll: the sessions of one server that live now, of whatever kind. The server and each of its sessions share
// it, so that it is there as long as one of them: sessions outlive their server.
//
// A session is stored in it through its CSessionEntry, from the moment before it takes its connection over until
// nothing of it is left.
//
// THREADING  All operations: any thread. Messages are posted under its lock, which is a leaf: the handler that ends
//            never waits for it.
class CSessionRoll {
public:
    // Null if memory is short.
    static std::shared_ptr<CSessionRoll> Create();
    CSessionRoll() = default;
    CSessionRoll(const CSessionRoll&) = delete;
    CSessionRoll& operator=(const CSessionRoll&) = delete;

    // No session begins any more.
    void Shut();
    unsigned int Count();
    // Posts to each session that is stored here the message that ends it, once, and waits up to `wait_ms` milliseconds
    // until those have gone; not at all on a thread of the pool, which may be the one that a session needs. How many of
    // all that were told to end are left.
    unsigned int EndAll(unsigned int wait_ms);

private:
    friend class CSessionEntry;

    // The entries form a ring that begins and ends with m_ring.
    struct CLink {
        CLink* next;
        CLink* before;
    };

    // All below are guarded by m_mutex.
    std::mutex m_mutex;
    std::condition_variable m_left;  // an entry that was told to end has left
    CLink m_ring{&m_ring, &m_ring};
    unsigned int m_count = 0;
    unsigned int m_ending = 0;
    bool m_shut = false;
};

// CSessionEntry: a session's place in the roll of its server, from its beginning on its strand to its end. A session
// releases its entry as the very last thing, after its own destructor.
class CSessionEntry : private CSessionRoll::CLink {
public:
    // For the handler `id`, which ends by the message (`msg`, `param`). Null if memory is short.
    static std::unique_ptr<CSessionEntry> Create(const std::shared_ptr<CSessionRoll>& roll, long id, unsigned int msg,
                                                 long param);
    ~CSessionEntry();
    // Once, and only when the handler is whole: from now on it may be told to end. False if no session may begin any
    // more.
    bool Enter();
    CSessionEntry(const CSessionEntry&) = delete;
    CSessionEntry& operator=(const CSessionEntry&) = delete;

private:
    friend class CSessionRoll;

    CSessionEntry(const std::shared_ptr<CSessionRoll>& roll, long id, unsigned int msg, long param)
        : m_roll(roll), m_id(id), m_msg(msg), m_param(param) {}

    const std::shared_ptr<CSessionRoll> m_roll;
    const long m_id;
    const unsigned int m_msg;
    const long m_param;
    // Guarded by the roll's lock, as the links.
    bool m_entered = false;
    bool m_ending = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SESSIONROLL_H
