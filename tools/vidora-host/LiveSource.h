#ifndef VIDORA_HOST_LIVESOURCE_H
#define VIDORA_HOST_LIVESOURCE_H

#include <atomic>
#include <memory>
#include <string>

#include "Clip.h"
#include "FramePump.h"
#include "Vidora/StreamSource.h"

// One published clip: video, and audio if there is any. Shared by all sources that play it.
struct LiveClip {
    Clip video;
    Clip audio;
    bool has_audio = false;
};

// LiveSource: plays a clip in real time and in a loop, with running sequence numbers and time stamps that never step
// back.
//
// THREADING  Frames are given by the pump's thread, which alone touches the playing state. SetIFrame may come from any
//            thread and leaves a wish that the pump's thread looks at before the next picture.
class LiveSource : public Kavio::Vidora::CStreamSource {
public:
    explicit LiveSource(std::shared_ptr<const LiveClip> clip);

    int Init(long receiver_id, int ext) override;
    Kavio::Vidora::src_type_t GetSrcType() override { return Kavio::Vidora::SRC_TYPE_LIVE; }
    bool HasVideo() override { return true; }
    bool HasAudio() override { return m_clip->has_audio; }
    void GetAudioFormat(Kavio::Vidora::StreamAudioFormat& format) override { format = m_clip->audio.AudioFormat(); }
    void GetVideoFormat(Kavio::Vidora::StreamVideoFormat& format) override { format = m_clip->video.VideoFormat(); }
    int GetVideoSpecificInfo(char* buf, int len) override;
    int UpdataStreamInfo(long arg) override;
    bool Start(frame_proc_t proc) override;
    bool Stop(frame_proc_t proc) override;
    void SetIFrame() override { m_key_wanted = true; }
    int handle_close(CNetHandler* handler) override;

private:
    ~LiveSource() override = default;

    FramePump::Clock::time_point step(FramePump::Clock::time_point now);
    double elapsed_ms(FramePump::Clock::time_point now) const;
    bool audio_is_next() const;
    void give_video();
    void give_audio();
    void start_round();
    void jump_to_key_frame();

    const std::shared_ptr<const LiveClip> m_clip;
    long m_receiver_id = 0;
    frame_proc_t m_proc;
    FramePump m_pump;
    std::atomic<bool> m_key_wanted{false};

    // The playing state. A round is one pass through the clip; times of units count from the round's start.
    FramePump::Clock::time_point m_begin;
    double m_begin_utc = 0.0;
    double m_round_ms = 0.0;  // where the round began, from m_begin
    size_t m_video_index = 0;
    size_t m_audio_index = 0;
    double m_last_key_ms = 0.0;  // when the last key frame went out, from m_begin
    uint32_t m_video_sequence = 0;
    uint32_t m_audio_sequence = 0;
};

#endif  // VIDORA_HOST_LIVESOURCE_H
