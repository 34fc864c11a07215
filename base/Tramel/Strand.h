#ifndef VIDORA_TRAMEL_STRAND_H
#define VIDORA_TRAMEL_STRAND_H

#include <atomic>
#include <cstddef>
#include <memory>

namespace Kavio {
namespace Tramel {

// CStrand: work that the pool's threads do one turn at a time, never two at once.
//
// Derive, make it with std::make_shared, and call Schedule() whenever there is something to do: RunTurn() then runs
// once more, on whichever thread is free. Calls that come before that turn begins are one; a call during a turn makes
// another.
//
// THREADING  Schedule: any thread, also with locks held and inside RunTurn. RunTurn runs with no lock of the reactor.
// OWNERSHIP  The reactor holds a reference while a turn is due or runs.
class CStrand : public std::enable_shared_from_this<CStrand> {
public:
    virtual ~CStrand() = default;
    CStrand(const CStrand&) = delete;
    CStrand& operator=(const CStrand&) = delete;

    // Makes a turn due. It costs at most one system call, and none while no thread of the pool sleeps. Without a pool
    // the turn waits for the next one.
    void Schedule();

protected:
    CStrand() = default;

    // Does a bounded piece of work; true asks for another turn behind the strands that wait.
    virtual bool RunTurn() = 0;
    // True if a turn is to run even while the pool comes to its end.
    virtual bool IsEnding() const { return false; }
    // In RunTurn: another turn is due behind this one.
    bool IsDueAgain() const { return m_state.load() == RUNNING_AGAIN; }

private:
    friend class CReactor;
    friend class CStrandQueue;
    enum state_t { IDLE, QUEUED, RUNNING, RUNNING_AGAIN };

    // Runs a turn and queues the next one if it is due.
    void run();

    std::atomic<int> m_state{IDLE};
    std::shared_ptr<CStrand> m_next;  // in a queue of the reactor
};

// CStrandQueue: strands with a turn due. No lock: one thread at a time.
class CStrandQueue {
public:
    bool IsEmpty() const { return m_head == nullptr; }
    size_t Size() const { return m_size; }
    void Push(std::shared_ptr<CStrand> strand);
    // The first one; not for an empty queue.
    std::shared_ptr<CStrand> Take();
    // The first one that is to run while the pool ends, or null.
    std::shared_ptr<CStrand> TakeEnding();
    // Moves all of `other` behind what is here.
    void Append(CStrandQueue& other);

private:
    std::shared_ptr<CStrand> m_head;
    CStrand* m_tail = nullptr;  // valid with a head
    size_t m_size = 0;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_STRAND_H
