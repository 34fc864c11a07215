#ifndef VIDORA_BENCH_SUPPORT_LOADCLIENT_H
#define VIDORA_BENCH_SUPPORT_LOADCLIENT_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "support/Fleet.h"

namespace Bench {

// CLoadClient: a fleet in a child process, so that its processor time is nobody else's. Make it before any thread.
class CLoadClient {
public:
    typedef std::function<std::unique_ptr<ILoad>(FleetFigures&)> maker_t;  // called in the child

    explicit CLoadClient(uint16_t udp_port_base);
    explicit CLoadClient(const maker_t& maker);
    ~CLoadClient();
    CLoadClient(const CLoadClient&) = delete;
    CLoadClient& operator=(const CLoadClient&) = delete;

    // Sets `count` sessions up and returns when all are up or have failed, or after a minute: seconds that it took.
    double Open(uint16_t port, unsigned int count, bool udp);
    void Close();
    // See ILoad.
    void Stamp(bool on);
    // Waits until nothing more comes.
    void Settle() const;
    const FleetFigures& Figures() const { return *m_figures; }
    pid_t Pid() const { return m_child; }

private:
    enum verb_t { VERB_OPEN, VERB_CLOSE, VERB_STAMP, VERB_STAMP_END };
    struct CCommand {
        verb_t verb;
        uint16_t port;
        unsigned int count;
        bool udp;
        uint64_t number;
    };

    void send(verb_t verb, uint16_t port = 0, unsigned int count = 0, bool udp = false);
    static void obey(ILoad& load, const CCommand& command);
    [[noreturn]] void run(int commands, const maker_t& maker);

    struct CShared {
        FleetFigures figures;
        std::atomic<uint64_t> done{0};  // number of the last command that was taken
    };
    CShared* m_shared;
    FleetFigures* m_figures;
    uint64_t m_number = 0;
    int m_commands = -1;
    pid_t m_child = -1;
};

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_LOADCLIENT_H
