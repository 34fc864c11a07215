#include "Vidora/Ostra/Log.h"

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "Ostra/LogLimit.h"

namespace Kavio {
namespace Ostra {

namespace {

const size_t MAX_LINE_SIZE = 2048;
const char TAG[] = "[Vidora] ";
const size_t TAG_SIZE = sizeof(TAG) - 1;

std::atomic<int> g_level{LOG_LEVEL_WARN};

// The pair is copied under the mutex and the sink called without it, so that a sink may take its time.
std::mutex g_sink_mutex;
log_sink_t g_sink = nullptr;
void* g_sink_data = nullptr;

// Lines that found standard error full, and weren't told yet.
std::mutex g_stderr_mutex;  // held over a write that doesn't wait: lines of several threads stay whole
unsigned long g_dropped = 0;

// Is there room for a line? A pipe that nobody reads, and a terminal that is stopped, have none, and a pipe whose
// reader has gone would end the process by SIGPIPE. Another process that fills the same pipe between this look and the
// write can still hold one line up.
bool has_room() {
    pollfd item = {STDERR_FILENO, POLLOUT, 0};
    return poll(&item, 1, 0) > 0 && item.revents == POLLOUT;
}

// One write a line.
void write_whole(const char* line, size_t size) {
    ssize_t written = 0;
    do {
        written = write(STDERR_FILENO, line, size);
    } while (written < 0 && errno == EINTR);
}

// `line` begins with the tag and has room for one more byte and a NUL behind `size` bytes.
void write_to_stderr(char* line, size_t size) {
    if (line[size - 1] != '\n') {
        line[size++] = '\n';
    }
    const std::lock_guard<std::mutex> guard(g_stderr_mutex);
    if (g_dropped > 0 && has_room()) {
        char told[64];
        const int length = std::snprintf(told, sizeof(told), "%s%lu lines dropped\n", TAG, g_dropped);
        write_whole(told, static_cast<size_t>(length));
        g_dropped = 0;
    }
    if (g_dropped > 0 || !has_room()) {
        ++g_dropped;
        return;
    }
    write_whole(line, size);
}

// Lines quote what peers have sent. Control characters in it could steer the terminal that shows the log; those of ISO
// 6429's second set as well, which UTF-8 writes as C2 and a byte below A0.
void mask_controls(char* text, size_t size) {
    unsigned char before = 0;
    for (size_t i = 0; i < size; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const bool is_c0 = (c < 0x20 && c != '\t' && c != '\r' && c != '\n') || c == 0x7f;
        const bool is_c1 = before == 0xc2 && c >= 0x80 && c < 0xa0;
        text[i] = is_c0 || is_c1 ? '?' : text[i];
        before = c;
    }
}

void log_line(log_level_t level, const char* format, va_list args) {
    const int saved_errno = errno;  // callers log between a system call and the look at its error
    char line[TAG_SIZE + MAX_LINE_SIZE + 2];
    std::memcpy(line, TAG, TAG_SIZE);
    char* text = line + TAG_SIZE;
    const int wanted = std::vsnprintf(text, MAX_LINE_SIZE + 1, format, args);
    if (wanted > 0) {
        const size_t length = static_cast<size_t>(wanted) < MAX_LINE_SIZE ? static_cast<size_t>(wanted) : MAX_LINE_SIZE;
        mask_controls(text, length);
        log_sink_t sink = nullptr;
        void* user_data = nullptr;
        {
            const std::lock_guard<std::mutex> guard(g_sink_mutex);
            sink = g_sink;
            user_data = g_sink_data;
        }
        if (sink != nullptr) {
            sink(user_data, level, text, length);
        } else {
            write_to_stderr(line, TAG_SIZE + length);
        }
    }
    errno = saved_errno;
}

void log_text(log_level_t level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_line(level, format, args);
    va_end(args);
}

// `place`: where in the code the line comes from.
bool passes_limit(log_level_t level, const void* place) {
    CLogLimit* limit = level > LOG_LEVEL_INFO ? nullptr : CLogLimit::Current();
    unsigned int passed_over = 0;
    if (limit != nullptr && !limit->Passes(place, passed_over)) {
        return false;
    }
    if (passed_over > 0) {
        log_text(level, "%u more lines like the next one were passed over\n", passed_over);
    }
    return true;
}

}  // namespace

void SetLogSink(log_sink_t sink, void* user_data) {
    const std::lock_guard<std::mutex> guard(g_sink_mutex);
    g_sink = sink;
    g_sink_data = user_data;
}

void SetLogLevel(log_level_t level) {
    g_level.store(level, std::memory_order_relaxed);
}

log_level_t GetLogLevel() {
    return static_cast<log_level_t>(g_level.load(std::memory_order_relaxed));
}

// A variadic function can't hand its arguments to another one, hence one body for five names.
#define VIDORA_DEFINE_LOG(name, level)                                                                              \
    int name(const char* format, ...) {                                                                             \
        if (g_level.load(std::memory_order_relaxed) < level || !passes_limit(level, __builtin_return_address(0))) { \
            return 0;                                                                                               \
        }                                                                                                           \
        va_list args;                                                                                               \
        va_start(args, format);                                                                                     \
        log_line(level, format, args);                                                                              \
        va_end(args);                                                                                               \
        return 0;                                                                                                   \
    }

VIDORA_DEFINE_LOG(logError, LOG_LEVEL_ERROR)
VIDORA_DEFINE_LOG(logWarn, LOG_LEVEL_WARN)
VIDORA_DEFINE_LOG(logInfo, LOG_LEVEL_INFO)
VIDORA_DEFINE_LOG(logDebug, LOG_LEVEL_DEBUG)
VIDORA_DEFINE_LOG(logTrace, LOG_LEVEL_TRACE)

#undef VIDORA_DEFINE_LOG

}  // namespace Ostra
}  // namespace Kavio
