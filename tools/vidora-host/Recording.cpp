#include "Recording.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <mutex>

#include "AnnexB.h"
#include "Clip.h"

using namespace Kavio::Vidora;

namespace {

// What tells two states of a file apart.
struct FileState {
    off_t size = 0;
    time_t changed_sec = 0;
    long changed_ns = 0;

    bool operator==(const FileState& other) const {
        return size == other.size && changed_sec == other.changed_sec && changed_ns == other.changed_ns;
    }
};

struct CachedIndex {
    FileState state;
    std::shared_ptr<const Recording> recording;
};

std::mutex g_cache_mutex;
std::map<std::string, CachedIndex> g_cache;

bool read_state(const std::string& path, FileState& state) {
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return false;
    }
    state.size = info.st_size;
    state.changed_sec = info.st_mtim.tv_sec;
    state.changed_ns = info.st_mtim.tv_nsec;
    return true;
}

}  // namespace

std::shared_ptr<const Recording> Recording::Open(const std::string& path, std::string& error) {
    FileState state;
    if (!read_state(path, state)) {
        error = path + ": cannot be read";
        return nullptr;
    }
    // Held over the indexing, so that a second player waits for the index instead of building its own.
    const std::lock_guard<std::mutex> guard(g_cache_mutex);
    const auto cached = g_cache.find(path);
    if (cached != g_cache.end() && cached->second.state == state) {
        return cached->second.recording;
    }
    const std::shared_ptr<Recording> recording(new Recording);
    if (!recording->load(path, error)) {
        g_cache.erase(path);
        return nullptr;
    }
    g_cache[path] = CachedIndex{state, recording};
    return recording;
}

std::shared_ptr<const Recording> Recording::Find(const std::string& dir, int channel, int subtype,
                                                 const Interval& interval, std::string& error) {
    // The files that can't be read are passed over.
    const std::string prefix = std::to_string(channel) + "_" + std::to_string(subtype) + "_";
    std::vector<std::string> names;
    std::error_code code;
    const auto options = std::filesystem::directory_options::skip_permission_denied;
    std::filesystem::recursive_directory_iterator entry(dir, options, code);
    for (; !code && entry != std::filesystem::recursive_directory_iterator(); entry.increment(code)) {
        const std::string name = entry->path().filename().string();
        if (name.compare(0, prefix.size(), prefix) == 0 && HasEnding(name, ".kav")) {
            names.push_back(entry->path().string());
        }
    }
    std::shared_ptr<const Recording> best;
    for (const std::string& name : names) {
        const std::shared_ptr<const Recording> recording = Open(name, error);
        const bool fits = recording && recording->EndSec() > interval.begin_sec &&
                          (interval.end_sec == 0 || recording->BeginSec() <= interval.end_sec);
        if (fits && (!best || recording->BeginSec() < best->BeginSec())) {
            best = recording;
        }
    }
    if (!best) {
        error = dir + ": no recording of channel " + std::to_string(channel) + ", subtype " + std::to_string(subtype) +
                " at that time";
    }
    return best;
}

Recording::~Recording() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool Recording::load(const std::string& path, std::string& error) {
    m_fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat info = {};
    if (m_fd < 0 || fstat(m_fd, &info) != 0 || info.st_size <= 0) {
        error = path + ": cannot be read";
        return false;
    }
    const size_t size = static_cast<size_t>(info.st_size);
    void* data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, m_fd, 0);
    if (data == MAP_FAILED) {
        error = path + ": cannot be mapped";
        return false;
    }
    ScanFrames(static_cast<const unsigned char*>(data), size, m_frames);
    munmap(data, size);
    m_frames.erase(std::remove_if(m_frames.begin(), m_frames.end(),
                                  [](const FrameEntry& entry) { return entry.letter == 'W' || entry.letter == 0; }),
                   m_frames.end());
    const auto key =
        std::find_if(m_frames.begin(), m_frames.end(), [](const FrameEntry& entry) { return entry.letter == 'I'; });
    if (key == m_frames.end()) {
        error = path + ": holds no key frame";
        return false;
    }
    std::vector<unsigned char> picture;
    if (!ReadBody(*key, picture)) {
        error = path + ": cannot be read";
        return false;
    }
    if (key->encode_code == STREAM_VIDEO_H264) {
        if (const char* why = WhyNotSent(picture.data(), picture.size())) {
            error = path + ": " + why;
            return false;
        }
    }
    m_video.width = key->width;
    m_video.height = key->height;
    m_video.encode_type = key->encode_code;
    m_video.frame_rate = key->frame_rate;
    m_specific_info = FindSpecificInfo(picture.data(), picture.size(), key->encode_code);
    const auto sound =
        std::find_if(m_frames.begin(), m_frames.end(), [](const FrameEntry& entry) { return entry.letter == 'A'; });
    if (sound != m_frames.end()) {
        m_audio.encode_type = sound->encode_code;
        m_audio.sample_rate = sound->sample_rate;
    }
    return true;
}

bool Recording::ReadBody(const FrameEntry& frame, std::vector<unsigned char>& body) const {
    body.resize(frame.body_size);
    return pread(m_fd, body.data(), body.size(), static_cast<off_t>(frame.body_offset)) ==
           static_cast<ssize_t>(body.size());
}

uint64_t Recording::BeginSec() const {
    return m_frames.front().utc_sec;
}
uint64_t Recording::EndSec() const {
    return m_frames.back().utc_sec + 1;
}
