// The smallest host of a recording, with pause and seek: example_recording_server PORT FILE
// FILE is a run of whole private frames (see KXFrame.h), H.264 and maybe audio, that begins with a key frame.
// Watch it with: ffplay 'rtsp://127.0.0.1:PORT/movie.kav'
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <thread>
#include <vector>

#include "Serving.h"
using namespace Kavio::Vidora;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

struct Frame {
    const unsigned char* data;
    KXHeader header;
    int letter;
    milliseconds time;  // from the first frame

    // Of the extension block behind the header, see docs/private-frame.md.
    const unsigned char* Block() const { return data + KX_HEADER_LEN; }
};

std::string g_file;
std::vector<Frame> g_frames;  // of the file, which all players share
std::string g_parameter_sets;

// Those that a picture begins with (ISO 14496-10 7.4.1).
std::string parameter_sets(const Frame& key) {
    int size = 0;
    const int begin = get_frame_body(key.data, static_cast<int>(key.header.total_length), size);
    const unsigned char* body = key.data + begin;
    const size_t length = static_cast<size_t>(size);
    size_t end = 0;
    while (end + 4 < length && ((body[end + 4] & 0x1f) == 7 || (body[end + 4] & 0x1f) == 8)) {
        end = std::min(find_start_code4(body, length, end + 4), length);
    }
    return std::string(reinterpret_cast<const char*>(body), end);
}

bool load(const char* path) {
    std::ifstream file(path, std::ios::binary);
    g_file.assign(std::istreambuf_iterator<char>(file), {});
    const unsigned char* data = reinterpret_cast<const unsigned char*>(g_file.data());
    KXHeader header;
    for (size_t at = 0; kx_read_header(data + at, g_file.size() - at, header); at += header.total_length) {
        if (header.total_length < KX_HEADER_LEN + KX_TRAILER_LEN || header.total_length > g_file.size() - at) {
            return false;
        }
        // A header has the low 16 bits of the time, which may step back at a B picture.
        const Frame* last = g_frames.empty() ? nullptr : &g_frames.back();
        const int step = last == nullptr ? 0 : static_cast<int16_t>(header.time_stamp - last->header.time_stamp);
        g_frames.push_back({data + at, header, kx_letter_of_type(header.frame_type),
                            (last == nullptr ? milliseconds(0) : last->time) + milliseconds(step)});
    }
    if (g_frames.empty() || g_frames[0].letter != FRAME_TYPE_I) {
        return false;
    }
    g_parameter_sets = parameter_sets(g_frames[0]);
    return !g_parameter_sets.empty();
}

const Frame* first_audio() {
    for (const Frame& frame : g_frames) {
        if (frame.letter == FRAME_TYPE_AUDIO) {
            return &frame;
        }
    }
    return nullptr;
}

// One player's recording: a thread delivers the frames when they are due.
class CPlayer : public CStreamSource {
public:
    int Init(long receiver_id, int) override {
        Notify(receiver_id, MSG_STREAM_INFO, 0);  // the format can be read
        return 0;
    }
    src_type_t GetSrcType() override { return SRC_TYPE_FILE; }
    bool HasVideo() override { return true; }
    bool HasAudio() override { return first_audio() != nullptr; }
    void GetAudioFormat(StreamAudioFormat& format) override {
        format.encode_type = first_audio()->Block()[2];
        format.sample_rate = kx_sample_rate(first_audio()->Block()[3]);
    }
    void GetVideoFormat(StreamVideoFormat& format) override {
        format.encode_type = g_frames[0].Block()[2];
        format.frame_rate = g_frames[0].Block()[3];
    }
    int GetVideoSpecificInfo(char* buf, int len) override {
        std::memcpy(buf, g_parameter_sets.data(), std::min(g_parameter_sets.size(), static_cast<size_t>(len)));
        return static_cast<int>(g_parameter_sets.size());
    }
    int UpdataStreamInfo(long) override { return 0; }

    bool Start(frame_proc_t proc) override {
        m_thread = std::thread([this, proc] { run(proc); });
        return true;
    }
    bool Stop(frame_proc_t) override {
        change([this] { m_stops = true; });
        m_thread.join();
        return true;
    }
    bool Pause() override {
        return change([this] { m_paused = true; });
    }
    bool Resume() override {
        return change([this] { m_paused = false; });
    }
    bool SetSpeed(float speed) override { return speed == 1.0F; }
    bool GetSpeed(float& speed) override { return speed = 1.0F, true; }
    bool GetFileRange(CTime& begin, CTime& end) override {
        begin = CTime(kx_unpack_date_time(g_frames.front().header.date_time));
        end = CTime(kx_unpack_date_time(g_frames.back().header.date_time) + 1);
        return true;
    }
    bool GetFileRange(uint64_t& length_us) override {
        length_us = static_cast<uint64_t>(std::chrono::microseconds(g_frames.back().time).count());
        return true;
    }
    bool GetTime(CTime& time) override {
        const std::lock_guard<std::mutex> guard(m_mutex);
        time = CTime(kx_unpack_date_time(g_frames[std::min(m_next, g_frames.size() - 1)].header.date_time));
        return true;
    }
    // To the first key frame of that second or a later one.
    bool SeekByTime(const CTime& time) override {
        size_t place = 0;
        while (place < g_frames.size() && (g_frames[place].letter != FRAME_TYPE_I ||
                                           kx_unpack_date_time(g_frames[place].header.date_time) < time.makeTime())) {
            ++place;
        }
        return change([this, place] { m_next = place; });
    }
    // Asked inside the callback.
    bool getPacketType(int& packet_state) override {
        packet_state = m_ended ? PACKET_STATE_END : PACKET_STATE_RUNS;
        return true;
    }
    int handle_close(CNetHandler*) override { return delete this, 0; }

private:
    template <typename Change>
    bool change(Change change) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        change();
        m_anchored = false;
        m_changed.notify_all();
        return true;
    }

    // Times go on over pauses and seeks. No lock is held while a frame is given.
    void run(const frame_proc_t& proc) {
        const Clock::time_point begin = Clock::now();
        Clock::time_point zero;  // when the first frame of the file would have been due
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_stops) {
            if (m_paused || (m_next == g_frames.size() && m_ended && m_anchored)) {  // told since the last change
                m_changed.wait(lock);
                continue;
            }
            m_ended = m_next == g_frames.size();
            const Frame& frame = m_ended ? g_frames.back() : g_frames[m_next];
            if (!m_anchored) {
                zero = Clock::now() - frame.time;
                m_anchored = true;
            }
            const Clock::time_point due = zero + frame.time;
            if (!m_ended && Clock::now() < due) {
                m_changed.wait_until(lock, due);
                continue;
            }
            m_next += m_ended ? 0 : 1;
            lock.unlock();
            give(proc, frame, std::chrono::duration_cast<milliseconds>(due - begin));
            lock.lock();
        }
    }
    // The frame that marks the end isn't sent.
    void give(const frame_proc_t& proc, const Frame& frame, milliseconds time) {
        Kavio::Flumen::CMediaFrame media(frame.header.total_length);
        if (!media.valid()) {
            return;
        }
        std::memcpy(media.getBuffer(), frame.data, frame.header.total_length);
        media.setType(frame.letter);
        media.setSequence(frame.header.sequence);
        media.setPts(static_cast<uint64_t>(time.count()) + 1, Kavio::Flumen::PTS_TYPE_MS);  // 0 is no time
        media.setUtc(static_cast<double>(kx_unpack_date_time(frame.header.date_time)));
        proc(media);
    }

    std::thread m_thread;
    bool m_ended = false;  // the thread's
    std::mutex m_mutex;    // guards what follows
    std::condition_variable m_changed;
    size_t m_next = 0;
    bool m_paused = false;
    bool m_stops = false;
    bool m_anchored = false;  // times follow each other since the last change
};

CStreamSource* make_player(const char* content) {
    return std::strcmp(content, "movie.kav") == 0 ? new CPlayer : nullptr;
}

int main(int argc, char** argv) {
    const int port = port_of(argc, argv, "example_recording_server PORT FILE", &load);
    if (port == 0) {
        return 2;
    }
    CNetThread::CreateThreadPool(4, false);
    CRtspSvrConfig config;
    config.SetSrcFunc(&make_player);
    config.SetConformance(true);
    const bool served = serve(port, config, nullptr);
    CNetThread::DestroyThreadPool();
    return served ? 0 : 1;
}
