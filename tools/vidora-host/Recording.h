#ifndef VIDORA_HOST_RECORDING_H
#define VIDORA_HOST_RECORDING_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FrameFile.h"
#include "Vidora/StreamSource.h"

// A span of wall time in seconds, both ends included; 0 for an end that isn't given.
struct Interval {
    uint64_t begin_sec = 0;
    uint64_t end_sec = 0;
};

// Recording: the index of one stored file, built once, and the open file. Immutable, shared by its players.
class Recording {
public:
    // Opens and indexes a file; null, with `error`, if it can't be read or holds no key frame. A file is indexed once
    // for all its players, and again only after it has changed. Any thread.
    static std::shared_ptr<const Recording> Open(const std::string& path, std::string& error);
    // The first file of DIR that is named for a channel and subtype ("C_S_*.kav") and holds a part of the interval;
    // null if there is none. Any thread.
    static std::shared_ptr<const Recording> Find(const std::string& dir, int channel, int subtype,
                                                 const Interval& interval, std::string& error);

    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    // Frames in file order, without side data.
    const std::vector<FrameEntry>& Frames() const { return m_frames; }
    // The payload of a frame, read from the file; false if the file has become shorter. A mapped file that another
    // program cuts would end this one.
    bool ReadBody(const FrameEntry& frame, std::vector<unsigned char>& body) const;
    // Wall time of the first frame, and of the second behind the last one, in seconds.
    uint64_t BeginSec() const;
    uint64_t EndSec() const;
    const Kavio::Vidora::StreamVideoFormat& VideoFormat() const { return m_video; }
    const Kavio::Vidora::StreamAudioFormat& AudioFormat() const { return m_audio; }
    bool HasAudio() const { return m_audio.encode_type != 0; }
    const std::string& SpecificInfo() const { return m_specific_info; }

private:
    Recording() = default;
    bool load(const std::string& path, std::string& error);

    int m_fd = -1;
    std::vector<FrameEntry> m_frames;
    Kavio::Vidora::StreamVideoFormat m_video;
    Kavio::Vidora::StreamAudioFormat m_audio;
    std::string m_specific_info;
};

#endif  // VIDORA_HOST_RECORDING_H
