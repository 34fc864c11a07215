#ifndef VIDORA_HOST_MONITOR_H
#define VIDORA_HOST_MONITOR_H

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>

#include "LineWriter.h"
#include "Vidora/RtspSvr.h"
#include "Vidora/RtspSvrConfig.h"

// Monitor: figures and events on standard output, as text or as JSON, one line each, and the library's log on standard
// error. Neither keeps a thread of the library waiting when nobody reads.
//
// THREADING  Event and the log: any thread. The others: the main thread. Events must have ended before the monitor
// does.
class Monitor {
public:
    explicit Monitor(bool json);
    ~Monitor();

    // Tells that clients can come.
    void Listening(const std::string& ip, int port);
    // Prints the figures of the last `seconds`.
    void PrintFigures(double seconds);
    // Prints an event of the server, in a callback of the library.
    void Event(Kavio::Vidora::event_type_t event, const void* data, int length) noexcept;

private:
    void write_event(Kavio::Vidora::event_type_t event, const void* data, int length);
    bool passes_loss(long session);

    const bool m_json;
    LineWriter m_output;
    LineWriter m_errors;
    Kavio::Vidora::RtspSvrStatistics m_last;
    std::mutex m_loss_mutex;
    std::unordered_map<long, uint64_t> m_loss_ms;  // by session: when its last line was written
    uint64_t m_swept_ms = 0;                       // when old ones were erased
};

#endif  // VIDORA_HOST_MONITOR_H
