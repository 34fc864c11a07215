#include "LineWriter.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <new>
#include <system_error>
#include <thread>
#include <utility>

namespace {

// Waits for room on a descriptor that somebody else has made non-blocking. False: it was no lack of room that the write
// has met.
bool wait_for_room(int fd) {
    pollfd item = {fd, POLLOUT, 0};
    return errno == EINTR || (errno == EAGAIN && (poll(&item, 1, -1) > 0 || errno == EINTR));
}

// Writes all of it, however long that takes; a descriptor that is closed takes nothing.
void write_all(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(fd, text.data() + done, text.size() - done);
        if (written < 0 && !wait_for_room(fd)) {
            return;
        }
        done += written > 0 ? static_cast<size_t>(written) : 0;
    }
}

}  // namespace

LineWriter::LineWriter(int fd, dropped_line_t dropped_line) : m_state(std::make_shared<State>()) {
    m_state->fd = fd;
    m_state->dropped_line = dropped_line;
    try {
        std::thread([state = m_state] { run(state); }).detach();
    } catch (const std::system_error&) {
        m_state->done = true;
    }
}

LineWriter::~LineWriter() {
    std::unique_lock<std::mutex> lock(m_state->mutex);
    m_state->stopping = true;
    m_state->changed.notify_all();
    m_state->changed.wait_for(lock, std::chrono::milliseconds(END_WAIT_MS), [this] { return m_state->done; });
}

void LineWriter::Write(std::string line) noexcept {
    {
        const std::lock_guard<std::mutex> guard(m_state->mutex);
        if (!keep(*m_state, line)) {
            ++m_state->dropped;
            return;
        }
        if (m_state->bytes < m_state->wake_bytes) {
            return;
        }
        m_state->wake_bytes = NEVER;
    }
    m_state->changed.notify_one();
}

void LineWriter::Drop() noexcept {
    const std::lock_guard<std::mutex> guard(m_state->mutex);
    ++m_state->dropped;
}

// False if there is no room, or no memory.
bool LineWriter::keep(State& state, std::string& line) {
    const size_t size = line.size();
    if (state.bytes + size > MAX_BYTES) {
        return false;
    }
    try {
        state.lines.push_back(std::move(line));
    } catch (const std::bad_alloc&) {
        return false;
    }
    state.bytes += size;
    return true;
}

void LineWriter::run(const std::shared_ptr<State>& state) {
    std::unique_lock<std::mutex> lock(state->mutex);
    while (!state->stopping || !state->lines.empty() || state->dropped > 0) {
        if (state->lines.empty() && state->dropped == 0) {
            wait(*state, lock);
        }
        while (!state->lines.empty() || state->dropped > 0) {
            const std::string text = take_lines(*state);
            if (text.empty()) {
                break;  // no memory for the count of what was dropped: it is told later
            }
            lock.unlock();
            write_all(state->fd, text);
            lock.lock();
        }
        state->wake_bytes = MAX_BYTES / 2;
        state->changed.wait_for(lock, std::chrono::milliseconds(GATHER_MS),
                                [&state] { return state->stopping || state->wake_bytes == NEVER; });
        state->wake_bytes = NEVER;
    }
    state->done = true;
    state->changed.notify_all();
}

// Until there is a line, or the end.
void LineWriter::wait(State& state, std::unique_lock<std::mutex>& lock) {
    state.wake_bytes = 1;
    state.changed.wait(lock, [&state] { return state.stopping || state.wake_bytes == NEVER; });
    state.wake_bytes = NEVER;
}

// Whole lines, as many as a pipe takes in one piece, since another writer may have the same one. The dropped ones came
// behind those that are queued.
std::string LineWriter::take_lines(State& state) {
    std::string text;
    try {
        if (!state.lines.empty()) {
            gather(state, text);
        } else {
            text = state.dropped_line(state.dropped);
            state.dropped = 0;
        }
    } catch (const std::bad_alloc&) {
        // what is gathered so far goes out alone
    }
    return text;
}

void LineWriter::gather(State& state, std::string& text) {
    text.swap(state.lines.front());
    state.lines.pop_front();
    state.bytes -= text.size();
    while (!state.lines.empty() && text.size() + state.lines.front().size() <= PIPE_BUF) {
        text += state.lines.front();
        state.bytes -= state.lines.front().size();
        state.lines.pop_front();
    }
}
