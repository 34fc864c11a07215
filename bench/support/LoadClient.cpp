#include "support/LoadClient.h"

#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <thread>

namespace Bench {

namespace {

const double OPEN_LIMIT_S = 60;

void pause_ms(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

}  // namespace

CLoadClient::CLoadClient(uint16_t udp_port_base)
    : CLoadClient([udp_port_base](FleetFigures& figures) { return std::make_unique<CFleet>(figures, udp_port_base); }) {
}

CLoadClient::CLoadClient(const maker_t& maker) {
    void* memory = ::mmap(nullptr, sizeof(CShared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    int ends[2];
    if (memory == MAP_FAILED || ::pipe(ends) != 0) {
        std::perror("mmap or pipe");
        std::exit(1);
    }
    m_shared = new (memory) CShared;
    m_figures = &m_shared->figures;
    m_commands = ends[1];
    std::fflush(nullptr);
    m_child = ::fork();
    if (m_child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::close(ends[1]);
        run(ends[0], maker);
    }
    ::close(ends[0]);
}

CLoadClient::~CLoadClient() {
    ::kill(m_child, SIGKILL);
    ::waitpid(m_child, nullptr, 0);
    ::close(m_commands);
    ::munmap(m_shared, sizeof(CShared));
}

void CLoadClient::run(int commands, const maker_t& maker) {
    const std::unique_ptr<ILoad> fleet = maker(*m_figures);
    CCommand command = {};
    while (true) {
        fleet->Run(commands);
        if (::read(commands, &command, sizeof(command)) != static_cast<ssize_t>(sizeof(command))) {
            ::_exit(0);
        }
        obey(*fleet, command);
        m_shared->done = command.number;
    }
}

void CLoadClient::obey(ILoad& load, const CCommand& command) {
    if (command.verb == VERB_OPEN) {
        load.Open(command.port, command.count, command.udp);
    } else if (command.verb == VERB_CLOSE) {
        load.Close();
    } else {
        load.Stamp(command.verb == VERB_STAMP);
    }
}

void CLoadClient::send(verb_t verb, uint16_t port, unsigned int count, bool udp) {
    const CCommand command = {verb, port, count, udp, ++m_number};
    if (::write(m_commands, &command, sizeof(command)) != static_cast<ssize_t>(sizeof(command))) {
        std::perror("load client");
        std::exit(1);
    }
    while (m_shared->done != m_number) {
        pause_ms(1);
    }
}

double CLoadClient::Open(uint16_t port, unsigned int count, bool udp) {
    const auto start = std::chrono::steady_clock::now();
    send(VERB_OPEN, port, count, udp);
    while (m_figures->up + m_figures->failed < count &&
           std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() < OPEN_LIMIT_S) {
        pause_ms(5);
    }
    return static_cast<double>(m_figures->setup_ns) / 1e9;
}

void CLoadClient::Close() {
    send(VERB_CLOSE);
}

void CLoadClient::Stamp(bool on) {
    send(on ? VERB_STAMP : VERB_STAMP_END);
}

void CLoadClient::Settle() const {
    uint64_t last = ~0ULL;
    for (uint64_t now = m_figures->bytes; now != last; now = m_figures->bytes) {
        last = now;
        pause_ms(20);
    }
}

}  // namespace Bench
