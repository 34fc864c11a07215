#ifndef VIDORA_HOST_RECORDING_H
#define VIDORA_HOST_RECORDING_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "AnnexB.h"
#include "FileBytes.h"
#include "FrameCursor.h"
#include "Vidora/StreamSource.h"

// A span of wall time in seconds, both ends included; 0 for an end that isn't given.
struct Interval {
    uint64_t begin_sec = 0;
    uint64_t end_sec = 0;
};

// The part of a recording that is played.
struct PlayWindow {
    size_t first_key = 0;  // indexes of Keys()
    size_t last_key = 0;
    uint64_t end_offset = 0;  // the frames that begin in front of it are played
    FramePlace last;          // the last of them
};

// Recording: the index of one stored file: its key frames and what is said of the whole. It keeps no file open.
// Immutable, shared by its players; what it holds is bounded by MAX_KEYS, beyond which key frames are left out evenly.
class Recording {
public:
    static constexpr size_t MAX_KEYS = 128u << 10;

    // Indexes a file, and only what has come since if it goes on behind `former`, its earlier index (or null). Null if
    // `stop` was set meanwhile. `slices` is what may be sent.
    static std::shared_ptr<const Recording> Index(const FileBytes& file, const Recording* former, slices_t slices,
                                                  const std::atomic<bool>& stop);

    // Why it can't be played; empty if it can. Only then is there what follows.
    const std::string& Fault() const { return m_fault; }
    // The file as it was indexed.
    const FileState& State() const { return m_state; }
    size_t MemorySize() const {
        return sizeof(*this) + m_keys.capacity() * sizeof(FramePlace) + m_specific_info.capacity();
    }

    // The key frames in file order.
    const std::vector<FramePlace>& Keys() const { return m_keys; }
    // The index of the first key frame from `first` to `last` of that second or a later one, or `last`.
    size_t FindKey(uint64_t utc_sec, size_t first, size_t last) const;
    // The part that lies in `interval`, from a key frame on. `file` is the recording's.
    PlayWindow Cut(const FileBytes& file, const Interval& interval) const;
    // Wall time of the first frame, and of the second behind the last one, in seconds.
    uint64_t BeginSec() const { return m_begin_sec; }
    uint64_t EndSec() const { return static_cast<uint64_t>(m_last.utc_sec) + 1; }
    const Kavio::Vidora::StreamVideoFormat& VideoFormat() const { return m_video; }
    const Kavio::Vidora::StreamAudioFormat& AudioFormat() const { return m_audio; }
    bool HasAudio() const { return m_audio.encode_type != 0; }
    const std::string& SpecificInfo() const { return m_specific_info; }

private:
    Recording() = default;
    bool goes_on(const FileBytes& file) const;
    void add(const FrameEntry& entry);
    void add_key(const FramePlace& place);
    void describe(const FileBytes& file, slices_t slices);

    FileState m_state;
    std::string m_fault;
    std::vector<FramePlace> m_keys;
    size_t m_key_step = 1;   // of this many key frames one is kept
    size_t m_key_count = 0;  // that were met
    FrameEntry m_first_key;
    FramePlace m_last;           // of all frames
    bool m_has_frames = false;   // m_last and m_begin_sec are set
    uint64_t m_end_offset = 0;   // behind m_last
    uint64_t m_next_offset = 0;  // where the file is read again when it has grown
    uint64_t m_begin_sec = 0;
    Kavio::Vidora::StreamVideoFormat m_video;
    Kavio::Vidora::StreamAudioFormat m_audio;
    std::string m_specific_info;
};

// The payload of a frame; false if the file has become shorter.
bool ReadBody(const IBytes& bytes, const FrameEntry& frame, std::vector<unsigned char>& body);

// The wall times of the first and the last frame of a file (the end as EndSec tells it), when both ends are whole
// frames and no side data: two short reads then. False otherwise.
bool ReadSpan(const FileBytes& file, Interval& span);

#endif  // VIDORA_HOST_RECORDING_H
