#include "StreamSource/SourceGate.h"

#include <new>
#include <utility>

#include "Tramel/Reactor.h"
#include "Vidora/DataSource.h"

namespace Kavio {
namespace Vidora {

namespace {

thread_local int t_frame_depth = 0;

class CCloseJob : public CSourceJob {
public:
    void Run(CDataSource& source) override { source.Close(); }
};

bool pool_runs() {
    return Tramel::CReactor::Instance().IsRunning();
}

}  // namespace

CSourceGate::CFrameScope::CFrameScope() {
    ++t_frame_depth;
}
CSourceGate::CFrameScope::~CFrameScope() {
    --t_frame_depth;
}

CSourceGate::CCall::CCall(std::shared_ptr<CSourceGate> gate) {
    if (gate != nullptr && gate->m_use.Enter()) {
        m_gate = std::move(gate);
    }
}

CSourceGate::CCall::~CCall() {
    if (m_gate != nullptr && m_gate->m_use.Leave()) {
        m_gate->m_source->CNetHandler::Close();
    }
}

std::shared_ptr<CSourceGate> CSourceGate::Create(CDataSource* source) {
    try {
        std::shared_ptr<CSourceGate> gate = std::make_shared<CSourceGate>(source);
        gate->m_close_job = std::make_shared<CCloseJob>();
        return gate;
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return nullptr;
    }
}

std::shared_ptr<CSourceGate> CSourceGate::Of(const CDataSource* source) {
    return source == nullptr ? nullptr : source->m_gate;
}

bool CSourceGate::Do(const std::shared_ptr<CSourceJob>& job) {
    {
        CGuard guard(m_mutex);
        if (!job->m_waits) {
            job->m_waits = true;
            (m_first == nullptr ? m_first : m_last->m_next) = job;
            m_last = job.get();
        }
        if (m_busy) {
            return false;
        }
        m_busy = true;
    }
    if (t_frame_depth > 0 && pool_runs()) {
        Schedule();
        return false;
    }
    run_first();  // nothing stood in front of it
    while (!rest()) {
        if (pool_runs()) {
            Schedule();
            break;
        }
        run_first();
    }
    return true;
}

bool CSourceGate::RunTurn() {
    run_first();
    return !rest();
}

void CSourceGate::run_first() {
    std::shared_ptr<CSourceJob> job;
    {
        CGuard guard(m_mutex);
        job = std::move(m_first);
        m_first = std::move(job->m_next);
        job->m_waits = false;
    }
    const CCall call(std::static_pointer_cast<CSourceGate>(shared_from_this()));
    if (call) {
        job->Run(*call);
    }
}

// Goes free if no job waits. False if one does.
bool CSourceGate::rest() {
    CGuard guard(m_mutex);
    m_busy = m_first != nullptr;
    return !m_busy;
}

void CSourceGate::Keep() {
    CGuard guard(m_mutex);
    ++m_keepers;
    m_handed_back = false;
}

bool CSourceGate::HandBack() {
    CGuard guard(m_mutex);
    const bool first = !m_handed_back;
    m_handed_back = true;
    return first;
}

bool CSourceGate::Release(bool closes) {
    {
        CGuard guard(m_mutex);
        if (--m_keepers > 0) {
            return false;
        }
        closes = closes && !m_handed_back;
    }
    if (closes) {
        Do(m_close_job);
    }
    return !closes;
}

}  // namespace Vidora
}  // namespace Kavio
