#ifndef VIDORA_HOST_LINEWRITER_H
#define VIDORA_HOST_LINEWRITER_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

// LineWriter: lines for a descriptor whose reader may be slow, or gone. They wait in a queue of at most MAX_BYTES and
// are written by a thread of their own; what finds no room is dropped and counted, and the count is told when lines get
// through again. A line leaves at once, those that follow it within GATHER_MS leave together: a thousand clients that
// come in a tenth of a second don't wake the thread a thousand times.
//
// THREADING  Write, Drop: any thread, also in the library's callbacks: they never wait for the descriptor, and throw
//            nothing. What finds no memory is dropped as well.
class LineWriter {
public:
    static constexpr size_t MAX_BYTES = 64u << 10;
    static constexpr int END_WAIT_MS = 200;
    static constexpr int GATHER_MS = 10;

    // Makes the line that tells how many were dropped.
    typedef std::string (*dropped_line_t)(uint64_t count);

    LineWriter(int fd, dropped_line_t dropped_line);
    // Waits up to END_WAIT_MS for what is queued to be written.
    ~LineWriter();
    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    // Queues a line that ends in a newline.
    void Write(std::string line) noexcept;
    // Counts a line that couldn't be made.
    void Drop() noexcept;

private:
    static constexpr size_t NEVER = SIZE_MAX;

    // Shared with the thread, which a reader that is stuck may hold for longer than the writer lives.
    struct State {
        int fd = -1;
        dropped_line_t dropped_line = nullptr;
        std::mutex mutex;  // guards all below
        std::condition_variable changed;
        std::deque<std::string> lines;
        size_t bytes = 0;
        size_t wake_bytes = NEVER;  // so many are to wake the thread
        uint64_t dropped = 0;
        bool stopping = false;
        bool done = false;
    };

    static void run(const std::shared_ptr<State>& state);
    static void wait(State& state, std::unique_lock<std::mutex>& lock);
    static bool keep(State& state, std::string& line);
    static std::string take_lines(State& state);
    static void gather(State& state, std::string& text);

    const std::shared_ptr<State> m_state;
};

#endif  // VIDORA_HOST_LINEWRITER_H
