#include "Unpacker.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "FileBytes.h"

namespace {

const char* const ENDINGS[] = {".mp4", ".mov", ".mkv", ".ts"};

// A folder that goes with the object; its path is empty if it couldn't be made.
class WorkFolder {
public:
    WorkFolder() {
        std::error_code failure;
        std::string path = (std::filesystem::temp_directory_path(failure) / "vidora-host.XXXXXX").string();
        m_path = mkdtemp(&path[0]) == nullptr ? std::string() : path;
    }
    ~WorkFolder() {
        std::error_code failure;
        if (!m_path.empty()) {
            std::filesystem::remove_all(m_path, failure);
        }
    }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    bool IsOpen() const { return !m_path.empty(); }
    std::string operator()(const char* name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// Runs ffmpeg on a file, which no word of it can turn into anything but a file. False, with `error`, if it fails.
bool run_ffmpeg(const std::string& path, const std::vector<std::string>& words, std::string& error) {
    std::vector<std::string> texts = {"ffmpeg", "-nostdin", "-hide_banner", "-v", "error", "-y", "-protocol_whitelist",
                                      "file",   "-i",       "file:" + path};
    texts.insert(texts.end(), words.begin(), words.end());
    std::vector<char*> arguments;
    for (std::string& text : texts) {
        arguments.push_back(&text[0]);
    }
    arguments.push_back(nullptr);
    pid_t child = 0;
    const int failure = posix_spawnp(&child, "ffmpeg", nullptr, nullptr, arguments.data(), environ);
    if (failure != 0) {
        error = failure == ENOENT ? "needs the ffmpeg program to be unpacked, which is not installed (Debian: ffmpeg)"
                                  : std::string("ffmpeg cannot be run: ") + std::strerror(failure);
        return false;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        error = "cannot be unpacked by ffmpeg as H.264, with or without sound";
        return false;
    }
    return true;
}

// What FFmpeg's list of packets tells.
struct PacketList {
    std::vector<UnpackedVideo::Picture> pictures;  // of stream 0
    bool has_audio = false;
    bool has_times = true;
};

// Lines such as "#tb 0: 1/12800" and "0, dts, pts, duration, size, checksum".
PacketList read_list(const std::string& path) {
    PacketList list;
    double tick_ms = 0.0;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        int numerator = 0;
        int denominator = 0;
        int64_t pts = 0;
        size_t size = 0;
        if (std::sscanf(line.c_str(), "#tb 0: %d/%d", &numerator, &denominator) == 2 && denominator > 0) {
            tick_ms = 1000.0 * numerator / denominator;
        } else if (line.rfind("#media_type 1: audio", 0) == 0) {
            list.has_audio = true;
        } else if (std::sscanf(line.c_str(), "0, %*d, %" SCNd64 ", %*d, %zu", &pts, &size) == 2) {
            list.pictures.push_back({size, static_cast<double>(pts) * tick_ms});
            list.has_times = list.has_times && pts != INT64_MIN;
        }
    }
    return list;
}

}  // namespace

bool IsContainer(const std::string& path) {
    return std::any_of(std::begin(ENDINGS), std::end(ENDINGS),
                       [&](const char* ending) { return HasEnding(path, ending); });
}

bool UnpackVideo(const std::string& path, UnpackedVideo& video, std::string& error) {
    const char BYTE_STREAM[] = "h264_mp4toannexb";
    const WorkFolder folder;
    if (!folder.IsOpen()) {
        error = "no temporary folder can be made";
        return false;
    }
    if (!run_ffmpeg(path,
                    {"-map", "0:v:0", "-c", "copy", "-bsf:v", BYTE_STREAM, "-f", "h264", folder("video"), "-map",
                     "0:v:0", "-c", "copy", "-bsf:v", BYTE_STREAM, "-f", "framecrc", folder("list")},
                    error) ||
        !ReadFile(folder("video"), video.bytes, error)) {
        return false;
    }
    const PacketList list = read_list(folder("list"));
    video.pictures = list.pictures;
    size_t total = 0;
    for (const UnpackedVideo::Picture& picture : video.pictures) {
        total += picture.size;
    }
    if (!list.has_times || total != video.bytes.size()) {
        error = "has pictures without a time";
        return false;
    }
    return true;
}

bool UnpackAudio(const std::string& path, std::vector<unsigned char>& bytes, std::string& error) {
    const WorkFolder folder;
    if (!folder.IsOpen()) {
        error = "no temporary folder can be made";
        return false;
    }
    if (!run_ffmpeg(path,
                    {"-map", "0:v:0", "-map", "0:a:0?", "-c", "copy", "-t", "1", "-f", "framecrc", folder("list")},
                    error)) {
        return false;
    }
    if (!read_list(folder("list")).has_audio) {
        return true;
    }
    // What the sound lacks at the beginning is silence.
    return run_ffmpeg(path,
                      {"-map", "0:a:0", "-af", "aresample=async=1:first_pts=0", "-ar", "8000", "-ac", "1", "-c:a",
                       "pcm_alaw", "-f", "alaw", folder("audio")},
                      error) &&
           ReadFile(folder("audio"), bytes, error);
}
