#ifndef VIDORA_BENCH_SUPPORT_PROCESS_H
#define VIDORA_BENCH_SUPPORT_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace Bench {

// CProgram: another program as a child process. Its output goes to the file `log`.
class CProgram {
public:
    CProgram(const std::vector<std::string>& command, const std::string& log);
    ~CProgram();
    CProgram(const CProgram&) = delete;
    CProgram& operator=(const CProgram&) = delete;

    pid_t Pid() const { return m_child; }
    // Waits for its end: the exit code, or -1.
    int Wait();

private:
    pid_t m_child = -1;
};

// Halts a child, and lets it go on. Halted, its figures stand still.
void Halt(pid_t child);
void Resume(pid_t child);
// Processor time of all threads of a process, user and system, as the scheduler counts it.
uint64_t ProcessorNs(pid_t process);
// Memory of a process that is resident.
uint64_t ResidentBytes(pid_t process);
// A TCP port of loopback that is free now.
uint16_t FreePort();
// Waits until somebody listens there; false after ten seconds.
bool WaitForListener(uint16_t port);

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_PROCESS_H
