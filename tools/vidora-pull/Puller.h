#ifndef VIDORA_PULL_PULLER_H
#define VIDORA_PULL_PULLER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "FrameWriter.h"
#include "Options.h"
#include "PullSession.h"
#include "Vidora/RtspClientBuffer.h"
#include "Vidora/RtspClientSession.h"

// What has come so far.
struct PullFigures {
    std::map<char, uint64_t> frames;  // by letter
    uint64_t packets = 0;
    uint64_t bytes = 0;
    uint64_t lost = 0;
    double first_frame_sec = -1.0;  // from the start, below 0 before there is one
    double media_sec = 0.0;         // since the first frame
    std::string failure;            // in words, empty if nothing failed

    uint64_t Pictures() const;
};

// Puller: one client session from its start to its end. It sets the stream up, plays it, counts its frames, writes them
// and feeds the back channel.
//
// THREADING  Notifications and the back channel's timer come on its strand and hold m_session_mutex, frames come on a
//            thread of the pool and don't, as DelLevel2Buffer waits for them. Lock order: m_session_mutex, then
//            m_mutex. Start, Wait, Stop and Figures: the main thread.
// OWNERSHIP  Made before the thread pool, and deleted when that has been destroyed.
class Puller : public Kavio::Vidora::CNetHandler {
public:
    explicit Puller(const Options& options) : m_options(options) {}
    ~Puller() override = default;

    // False, with `error`, if it can't begin.
    bool Start(std::string& error);
    // Waits up to `seconds`; true if the session has ended by itself or failed.
    bool Wait(double seconds);
    // Ends the session, and the file.
    void Stop();
    PullFigures Figures();

private:
    typedef std::chrono::steady_clock Clock;

    int handle_message(long sender_id, unsigned int msg, long param) override;
    int64_t handle_timeout(long timer_id) override;
    static void on_frame(const unsigned char* data, unsigned int size, void* user);
    void take_frame(const unsigned char* data, unsigned int size);
    void on_setup_ready();
    void on_play_ready();
    void on_teardown(long code);
    bool has_come_whole();
    void end(const std::string& failure);
    void end_unwritten();
    bool read_back_channel(std::string& error);

    const Options m_options;
    Clock::time_point m_begin;                  // constant after Start
    std::vector<unsigned char> m_back_channel;  // constant after Start
    FrameWriter m_writer;                       // of the thread that gives frames, once there is a sink

    std::mutex m_session_mutex;              // guards the five below
    std::unique_ptr<PullSession> m_session;  // null before Start and after Stop
    std::unique_ptr<Kavio::Vidora::CRtspClientBuffer> m_sink;
    double m_duration_sec = 0.0;  // of a recording, 0 for a live stream
    size_t m_back_offset = 0;
    long m_back_timer = 0;

    std::mutex m_mutex;  // guards all below
    std::condition_variable m_changed;
    bool m_ended = false;
    PullFigures m_figures;
    Clock::time_point m_first_frame;
    Clock::time_point m_last_frame;
};

#endif  // VIDORA_PULL_PULLER_H
