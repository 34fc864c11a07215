#ifndef VIDORA_HOST_MONITOR_H
#define VIDORA_HOST_MONITOR_H

#include <mutex>
#include <string>

#include "Vidora/RtspSvr.h"
#include "Vidora/RtspSvrConfig.h"

// Monitor: prints figures and events on standard output, as text or as JSON, one line each.
//
// THREADING  Event: any thread. The others: the main thread.
class Monitor {
public:
    explicit Monitor(bool json) : m_json(json) {}

    // Tells that clients can come.
    void Listening(const std::string& ip, int port);
    // Prints the figures of the last `seconds`.
    void PrintFigures(double seconds);
    // Prints an event of the server.
    void Event(Kavio::Vidora::event_type_t event, const void* data, int length);

private:
    const bool m_json;
    std::mutex m_mutex;  // one line at a time
    Kavio::Vidora::RtspSvrStatistics m_last;
};

#endif  // VIDORA_HOST_MONITOR_H
