#include "support/Process.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <thread>

#include "support/Loopback.h"

namespace Bench {

namespace {

const int CONNECT_TRIES = 200;
const std::chrono::milliseconds CONNECT_PAUSE(50);

// The first number that `format` finds in a line of the file; 0 for none.
uint64_t number_in(const std::string& path, const char* format) {
    unsigned long long number = 0;
    if (std::FILE* file = std::fopen(path.c_str(), "r")) {
        char line[256];
        while (std::fgets(line, sizeof(line), file) != nullptr && std::sscanf(line, format, &number) != 1) {
        }
        std::fclose(file);
    }
    return number;
}

}  // namespace

CProgram::CProgram(const std::vector<std::string>& command, const std::string& log) {
    std::vector<char*> words;
    for (const std::string& word : command) {
        words.push_back(const_cast<char*>(word.c_str()));
    }
    words.push_back(nullptr);
    std::fflush(nullptr);
    m_child = ::fork();
    if (m_child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        const int fd = ::open(log.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND, 0644);
        ::dup2(fd, STDOUT_FILENO);
        ::dup2(fd, STDERR_FILENO);
        ::execvp(words[0], words.data());
        std::perror(words[0]);
        ::_exit(127);
    }
}

CProgram::~CProgram() {
    if (m_child > 0) {
        ::kill(m_child, SIGKILL);
        ::waitpid(m_child, nullptr, 0);
    }
}

int CProgram::Wait() {
    int status = 0;
    ::waitpid(m_child, &status, 0);
    m_child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Halt(pid_t child) {
    int status = 0;
    ::kill(child, SIGSTOP);
    ::waitpid(child, &status, WUNTRACED);
}

void Resume(pid_t child) {
    ::kill(child, SIGCONT);
}

uint64_t ProcessorNs(pid_t process) {
    const std::string folder = "/proc/" + std::to_string(process) + "/task";
    uint64_t total = 0;
    DIR* tasks = ::opendir(folder.c_str());
    while (const dirent* task = tasks == nullptr ? nullptr : ::readdir(tasks)) {
        if (task->d_name[0] != '.') {
            total += number_in(folder + "/" + task->d_name + "/schedstat", "%llu");
        }
    }
    if (tasks != nullptr) {
        ::closedir(tasks);
    }
    return total;
}

uint64_t ResidentBytes(pid_t process) {
    return number_in("/proc/" + std::to_string(process) + "/smaps_rollup", "Rss: %llu") * 1024;
}

uint16_t FreePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), length);
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

bool WaitForListener(uint16_t port) {
    const sockaddr_in address = loopback(port);
    for (int i = 0; i < CONNECT_TRIES; ++i) {
        const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
        ::close(fd);
        if (result == 0) {
            return true;
        }
        std::this_thread::sleep_for(CONNECT_PAUSE);
    }
    return false;
}

}  // namespace Bench
