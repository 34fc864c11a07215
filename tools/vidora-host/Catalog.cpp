#include "Catalog.h"

#include <cstring>
#include <filesystem>
#include <fstream>

#include "FrameMaker.h"
#include "RecordingSource.h"
#include "Vidora/Ostra/Log.h"
#include "Vidora/RtspUrlParser.h"

using namespace Kavio::Vidora;
namespace fs = std::filesystem;

namespace {

std::shared_ptr<const LiveClip> load_clip(const LiveOption& option, double fps, std::string& error) {
    const auto clip = std::make_shared<LiveClip>();
    if (!clip->video.LoadVideo(option.video_file, fps, error)) {
        return nullptr;
    }
    const std::string& audio_file = option.audio_file.empty() ? option.video_file : option.audio_file;
    if (!option.audio_file.empty() || HasEnding(audio_file, ".kav")) {
        clip->has_audio = clip->audio.LoadAudio(audio_file, error);
        if (!clip->has_audio && error.empty() && !option.audio_file.empty()) {
            error = audio_file + ": holds no audio";
        }
        if (!clip->has_audio && !error.empty()) {
            return nullptr;
        }
    }
    return clip;
}

// The file of that name below the folder, or an empty path if it would lie outside.
fs::path inside(const fs::path& folder, const std::string& name) {
    std::error_code code;
    const fs::path root = fs::weakly_canonical(folder, code);
    const fs::path file = fs::weakly_canonical(root / fs::path(name).relative_path(), code);
    const fs::path relative = file.lexically_relative(root);
    return code || relative.empty() || *relative.begin() == ".." ? fs::path() : file;
}

}  // namespace

bool Catalog::Load(const Options& options, std::string& error) {
    m_recordings = options.recordings;
    for (const LiveOption& option : options.live) {
        m_live[option.content] = load_clip(option, options.fps, error);
        if (!m_live[option.content]) {
            return false;
        }
    }
    return true;
}

CStreamSource* Catalog::MakeSource(const char* content) const {
    const auto live = m_live.find(content);
    if (live != m_live.end()) {
        return new (std::nothrow) LiveSource(live->second);
    }
    std::string error;
    Interval interval;
    const std::shared_ptr<const Recording> recording = find_recording(content, interval, error);
    if (!recording) {
        Kavio::Ostra::logWarn("%s: %s\n", content, error.c_str());
        return nullptr;
    }
    return new (std::nothrow) RecordingSource(recording, interval);
}

std::shared_ptr<const Recording> Catalog::find_recording(const char* content, Interval& interval,
                                                         std::string& error) const {
    error = "nothing is published under that name";
    CRtspUrlParser parser;
    unsigned int length = static_cast<unsigned int>(std::strlen(content));
    if (m_recordings.empty() || !parser.ParseContent(content, length)) {
        return nullptr;
    }
    if (const playback_info* playback = parser.GetPlayback_info()) {
        interval.begin_sec = playback->start.makeTime();
        interval.end_sec = playback->end.makeTime();
        return Recording::Find(m_recordings, playback->channel, playback->subtype, interval, error);
    }
    const char* name = parser.GetFileName();
    const fs::path path = name == nullptr ? fs::path() : inside(m_recordings, name);
    return path.empty() ? nullptr : Recording::Open(path.string(), error);
}

bool Catalog::WriteKav(const std::string& content, const std::string& path, std::string& error) const {
    const LiveClip& clip = *m_live.at(content);
    std::ofstream file(path, std::ios::binary);
    const std::vector<ClipUnit>& pictures = clip.video.Units();
    const std::vector<ClipUnit>& blocks = clip.audio.Units();
    const double begin_utc = 1600000000.0;  // the same file each time
    size_t block = 0;
    for (size_t i = 0; i < pictures.size(); ++i) {
        for (; clip.has_audio && block < blocks.size() && blocks[block].time_ms < pictures[i].time_ms; ++block) {
            const FrameFacts facts{FRAME_TYPE_AUDIO, static_cast<uint32_t>(block),
                                   static_cast<uint64_t>(blocks[block].time_ms),
                                   begin_utc + blocks[block].time_ms / 1000.0};
            const auto frame =
                MakeAudioFrame(facts, clip.audio.AudioFormat(), clip.audio.Data(blocks[block]), blocks[block].size);
            file.write(reinterpret_cast<const char*>(frame.getBuffer()), frame.size());
        }
        const FrameFacts facts{pictures[i].letter, static_cast<uint32_t>(i), static_cast<uint64_t>(pictures[i].time_ms),
                               begin_utc + pictures[i].time_ms / 1000.0};
        const auto frame =
            MakeVideoFrame(facts, clip.video.VideoFormat(), clip.video.Data(pictures[i]), pictures[i].size);
        file.write(reinterpret_cast<const char*>(frame.getBuffer()), frame.size());
    }
    file.flush();
    if (!file) {
        error = path + ": cannot be written";
    }
    return static_cast<bool>(file);
}
