#ifndef VIDORA_OSTRA_LOG_H
#define VIDORA_OSTRA_LOG_H

#include <cstddef>

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {

// Levels of the log, the most important first. A level shows itself and all that are smaller.
enum log_level_t {
    LOG_LEVEL_NONE = 0,
    LOG_LEVEL_ERROR = 1,
    LOG_LEVEL_WARN = 2,
    LOG_LEVEL_INFO = 3,
    LOG_LEVEL_DEBUG = 4,
    LOG_LEVEL_TRACE = 5
};

// Receives each line that the level shows. `text` holds `length` bytes with a final NUL, without the tag, and ends in
// a newline if the caller wrote one; control characters but tab, CR and LF are shown as "?". Valid during the call
// only. Called on whatever thread logs, several at once; it must not log itself.
typedef void (*log_sink_t)(void* user_data, log_level_t level, const char* text, size_t length);

// Sets where lines go. A null sink restores the default: one write to standard error a line, behind the tag
// "[Vidora]"; while standard error has no room (a pipe that nobody reads), lines are dropped, and their number is told
// before the next one that gets through. A sink should not wait either: it holds up the thread that logs, which may be
// one of the pool. Any thread, at any time. On return the former sink is not called again by lines that begin later; a
// line that another thread is writing just now may still be in it.
VIDORA_API void SetLogSink(log_sink_t sink, void* user_data);

// Sets the least important level that is shown; LOG_LEVEL_WARN at start. Any thread.
VIDORA_API void SetLogLevel(log_level_t level);
VIDORA_API log_level_t GetLogLevel();

// printf-style log lines; a line below the level costs one comparison and is not formatted. Lines are cut at 2048
// bytes. The result is 0 and of no interest. Any thread.
VIDORA_API int logError(const char* format, ...) VIDORA_PRINTF(1, 2);
VIDORA_API int logWarn(const char* format, ...) VIDORA_PRINTF(1, 2);
VIDORA_API int logInfo(const char* format, ...) VIDORA_PRINTF(1, 2);
VIDORA_API int logDebug(const char* format, ...) VIDORA_PRINTF(1, 2);
VIDORA_API int logTrace(const char* format, ...) VIDORA_PRINTF(1, 2);

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_LOG_H
