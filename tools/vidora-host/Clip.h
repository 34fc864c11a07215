#ifndef VIDORA_HOST_CLIP_H
#define VIDORA_HOST_CLIP_H

#include <cstdint>
#include <string>
#include <vector>

#include "AnnexB.h"
#include "Vidora/StreamSource.h"

struct FrameEntry;

// One access unit of a clip, ready to go into a private frame.
struct ClipUnit {
    size_t offset = 0;  // in the clip's bytes
    size_t size = 0;
    int letter = 'P';      // frame type letter: I, P, B, A
    double time_ms = 0.0;  // from the clip's start
};

// Clip: an elementary stream file in memory, cut into whole access units, each with its time. Immutable once loaded, so
// that any number of threads may read it.
class Clip {
public:
    // Loads a video file by its ending: .h264 (Annex B), .m4v (MPEG-4 part 2), .mjpeg (a run of JPEG images) with `fps`
    // frames a second, H.264 with as many slices a picture as `slices` says; or the video of a .kav recording, or of a
    // file that IsContainer tells, with its own times. False, with `error` saying why, if it can't be read or holds
    // what can't be sent.
    bool LoadVideo(const std::string& path, double fps, slices_t slices, std::string& error);
    // Loads an audio file: .alaw and .ulaw (G.711, 8 kHz, blocks of 40 ms), .mp2 (MPEG audio frames), or the audio of a
    // .kav recording or a container. False if there is none, with `error` empty for one of these without audio.
    bool LoadAudio(const std::string& path, std::string& error);

    const std::vector<ClipUnit>& Units() const { return m_units; }
    const unsigned char* Data(const ClipUnit& unit) const { return m_bytes.data() + unit.offset; }
    // Length in milliseconds, the last unit's own duration included.
    double DurationMs() const { return m_duration_ms; }

    // Of video.
    const Kavio::Vidora::StreamVideoFormat& VideoFormat() const { return m_video; }
    const std::string& SpecificInfo() const { return m_specific_info; }
    // Of audio.
    const Kavio::Vidora::StreamAudioFormat& AudioFormat() const { return m_audio; }

private:
    bool read_audio(const std::string& path, std::string& error);
    bool cut_audio(const std::string& path, std::string& error);
    bool cut_h264(std::string& error);
    struct Access;
    const char* add_nal(const NalUnit& nal, Access& access);
    const char* add_slice(const NalUnit& nal, const Kavio::Vidora::H264Slice& slice, Access& access);
    void end_picture(size_t end, Access& access);
    void take_size(const Kavio::Vidora::H264Sps& sps);
    bool cut_mpeg4(std::string& error);
    bool cut_mjpeg(std::string& error);
    bool cut_container(const std::string& path, std::string& error);
    bool take_container_format(std::string& error);
    bool cut_kav(bool audio, std::string& error);
    bool is_wanted(const FrameEntry& entry, bool audio) const;
    const char* append_kav(const FrameEntry& entry, const unsigned char* body);
    void take_kav_format(const FrameEntry& first);
    void set_kav_duration();
    const char* append_body(const unsigned char* body, size_t size, int video_encode_type);
    bool cut_g711(int encode_type);
    bool cut_mpeg_audio(std::string& error);
    void add_unit(size_t offset, size_t size, int letter);
    void set_frame_times(double fps);

    slices_t m_slices = ONE_SLICE;
    std::vector<unsigned char> m_bytes;
    std::vector<ClipUnit> m_units;
    double m_duration_ms = 0.0;
    Kavio::Vidora::StreamVideoFormat m_video;
    Kavio::Vidora::StreamAudioFormat m_audio;
    std::string m_specific_info;
};

// The codec configuration in a key frame: the parameter sets of H.264, the headers in front of the first VOP of MPEG-4,
// empty otherwise. `encode_type` is a stream_video_encode_t.
std::string FindSpecificInfo(const unsigned char* body, size_t size, int encode_type);

#endif  // VIDORA_HOST_CLIP_H
