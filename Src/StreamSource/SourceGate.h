#ifndef VIDORA_STREAMSOURCE_SOURCEGATE_H
#define VIDORA_STREAMSOURCE_SOURCEGATE_H

#include <memory>

#include "StreamSource/UseCount.h"
#include "Tramel/Strand.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

class CDataSource;

// CSourceJob: something that is to be done inside a data source and may take the host's time. The object says itself
// what is due when its turn comes, so that it can be given any number of times at no cost.
class CSourceJob {
public:
    virtual ~CSourceJob() = default;
    virtual void Run(CDataSource& source) = 0;

private:
    friend class CSourceGate;

    // Of the gate, under its lock.
    bool m_waits = false;
    std::shared_ptr<CSourceJob> m_next;
};

// CSourceGate: the way into one data source for all that share it. It outlives the source.
//
// Jobs, that is, whatever may run the host's code, are done one at a time. A job that finds the source free is done by
// its caller, at once. One that comes while another runs waits, and its caller goes on: the jobs that wait are done by
// the pool, on one thread. So a source whose Start takes its time holds up one thread, whoever else comes and goes. A
// job that is given inside a frame callback is left to the pool as well, since a source that is stopped waits for that
// callback. Questions that are answered at once go through CCall.
//
// A source that is closed, by whomever, ends when the last call has left it, and nobody gets in any more.
//
// THREADING  Any thread, also with locks held that the host's code doesn't need. No lock is held over a job.
// OWNERSHIP  Each holder of the source has a reference. The registries that have it count themselves by Keep and
//            Release, and the last of them closes it.
class CSourceGate final : public Tramel::CStrand {
public:
    // A call into the source, for its time.
    class CCall {
    public:
        // `gate` may be null.
        explicit CCall(std::shared_ptr<CSourceGate> gate);
        ~CCall();
        CCall(const CCall&) = delete;
        CCall& operator=(const CCall&) = delete;
        CDataSource* operator->() const { return m_gate->m_source; }
        CDataSource& operator*() const { return *m_gate->m_source; }
        // False if there is no source, or it is closed.
        explicit operator bool() const { return m_gate != nullptr; }

    private:
        std::shared_ptr<CSourceGate> m_gate;
    };

    // The time that this thread spends inside a frame callback.
    class CFrameScope {
    public:
        CFrameScope();
        ~CFrameScope();
        CFrameScope(const CFrameScope&) = delete;
        CFrameScope& operator=(const CFrameScope&) = delete;
    };

    // The gate of a source that is being made; null if memory is short. And that of one that lives, or null.
    static std::shared_ptr<CSourceGate> Create(CDataSource* source);
    static std::shared_ptr<CSourceGate> Of(const CDataSource* source);

    explicit CSourceGate(CDataSource* source) : m_source(source) {}

    // Has a job done. True if that has happened when the call returns.
    bool Do(const std::shared_ptr<CSourceJob>& job);

    // The source begins its end: true if the caller finishes it. Otherwise the last call to leave does.
    bool End() { return m_use.End(); }
    // The source, for comparisons and to be given back; it may have gone.
    CDataSource* Source() const { return m_source; }

    // A registry has it from now on, also if it was handed back before.
    void Keep();
    // The host has it again, whoever keeps it: no registry closes it. False if it was handed back already.
    bool HandBack();
    // `closes`: the source is closed if nobody keeps it any more and it wasn't handed back. True if it lives on and
    // nobody keeps it.
    bool Release(bool closes);

private:
    bool RunTurn() override;
    // What waits is done even while the pool ends: a source that is to be stopped must be.
    bool IsEnding() const override { return true; }
    void run_first();
    bool rest();

    CDataSource* const m_source;
    std::shared_ptr<CSourceJob> m_close_job;  // constant after Create
    CUseCount m_use;

    CMutex m_mutex;
    bool m_busy VIDORA_GUARDED_BY(m_mutex) = false;  // a thread does jobs, or a turn of the pool is due for it
    std::shared_ptr<CSourceJob> m_first VIDORA_GUARDED_BY(m_mutex);
    CSourceJob* m_last VIDORA_GUARDED_BY(m_mutex) = nullptr;
    int m_keepers VIDORA_GUARDED_BY(m_mutex) = 0;
    bool m_handed_back VIDORA_GUARDED_BY(m_mutex) = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_SOURCEGATE_H
