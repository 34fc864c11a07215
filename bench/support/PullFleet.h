#ifndef VIDORA_BENCH_SUPPORT_PULLFLEET_H
#define VIDORA_BENCH_SUPPORT_PULLFLEET_H

#include <map>
#include <memory>
#include <mutex>

#include "support/Fleet.h"

namespace Bench {

class CPull;
class CPullHandler;

// CPullFleet: many sessions of the library, CRtspClientSession with CRtspClientBuffer, that make whole frames.
// `packets` and `gaps` of the figures are those of the sessions' statistics, told by Close.
//
// THREADING  Open, Close and Run: one thread. Notifications come on the pool's threads; m_mutex guards the sessions.
class CPullFleet : public ILoad {
public:
    // Makes the pool of the process.
    CPullFleet(FleetFigures& figures, unsigned int threads);
    ~CPullFleet() override;

    void Open(uint16_t port, unsigned int count, bool udp) override;
    void Close() override;
    void Run(int wake_fd) override;

private:
    friend class CPullHandler;
    void on_note(long session_id, unsigned int msg);

    FleetFigures& m_figures;
    CPullHandler* m_handler;
    uint64_t m_start_ns = 0;
    std::mutex m_mutex;
    std::map<long, std::unique_ptr<CPull>> m_pulls;  // by the ids of the sessions
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_PULLFLEET_H
