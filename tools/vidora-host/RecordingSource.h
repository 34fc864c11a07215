#ifndef VIDORA_HOST_RECORDINGSOURCE_H
#define VIDORA_HOST_RECORDINGSOURCE_H

#include <memory>
#include <mutex>
#include <vector>

#include "FramePump.h"
#include "Recording.h"
#include "Vidora/StreamSource.h"

// RecordingSource: plays one stored file to one client, with pause, seek, any rate, and backwards (key frames only).
//
// Time stamps of the frames that go out run with real time whatever the rate, and go on over pauses and seeks. Those of
// B pictures, which stand behind the picture that they precede, step back to where they belong.
//
// THREADING  The library's calls and the pump's thread share the playing state under m_mutex, which is not held while a
//            frame is given.
class RecordingSource : public Kavio::Vidora::CStreamSource {
public:
    // Plays the part of the recording that lies in `interval`, from a key frame on.
    RecordingSource(std::shared_ptr<const Recording> recording, const Interval& interval);

    int Init(long receiver_id, int ext) override;
    Kavio::Vidora::src_type_t GetSrcType() override { return Kavio::Vidora::SRC_TYPE_FILE; }
    bool HasVideo() override { return true; }
    bool HasAudio() override { return m_recording->HasAudio(); }
    void GetAudioFormat(Kavio::Vidora::StreamAudioFormat& format) override { format = m_recording->AudioFormat(); }
    void GetVideoFormat(Kavio::Vidora::StreamVideoFormat& format) override { format = m_recording->VideoFormat(); }
    int GetVideoSpecificInfo(char* buf, int len) override;
    int UpdataStreamInfo(long arg) override;
    bool Start(frame_proc_t proc) override;
    bool Stop(frame_proc_t proc) override;
    bool Pause() override;
    bool Resume() override;
    bool SetSpeed(float speed) override;
    bool SeekByTime(const Kavio::Vidora::CTime& time) override;
    bool GetTime(Kavio::Vidora::CTime& time) override;
    bool GetSpeed(float& speed) override;
    bool GetFileRange(Kavio::Vidora::CTime& begin, Kavio::Vidora::CTime& end) override;
    bool GetFileRange(uint64_t& length_us) override;
    bool getPacketType(int& packet_state) override;
    int handle_close(CNetHandler* handler) override;

private:
    typedef FramePump::Clock Clock;

    ~RecordingSource() override = default;

    long find_key_frame(uint64_t utc_sec) const;
    Clock::time_point step(Clock::time_point now);
    bool is_at_end_locked() const;
    bool is_sent_locked(const FrameEntry& entry) const;
    void skip_unsent_locked();
    void set_anchor_locked(Clock::time_point now);
    double play_ms_locked(const FrameEntry& entry) const;
    void give(const FrameEntry& entry, double pts_ms, bool is_end);

    const FrameEntry& frame(long index) const { return m_recording->Frames()[static_cast<size_t>(index)]; }

    const std::shared_ptr<const Recording> m_recording;
    long m_first = 0;  // the frames that are played, constant after construction
    long m_last = 0;
    long m_receiver_id = 0;
    frame_proc_t m_proc;
    FramePump m_pump;

    std::mutex m_mutex;
    long m_index = 0;  // of the next frame; outside m_first to m_last at an end
    float m_speed = 1.0F;
    bool m_paused = false;
    bool m_ended = false;  // the end was told
    // The frame at m_anchor_ms of the recording is due at m_anchor_time; time stamps count from m_begin.
    Clock::time_point m_begin;
    bool m_begun = false;
    Clock::time_point m_anchor_time;
    double m_anchor_ms = 0.0;
    double m_last_pts_ms = 0.0;
    uint32_t m_sequence[2] = {0, 0};  // of video and audio
    // Touched by the pump's thread only.
    int m_packet_state = 0;
    std::vector<unsigned char> m_body;        // of the frame in work
    std::vector<unsigned char> m_short_body;  // the same as the file has it, where it has three-byte start codes
};

#endif  // VIDORA_HOST_RECORDINGSOURCE_H
