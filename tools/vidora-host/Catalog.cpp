#include "Catalog.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>

#include "FrameMaker.h"
#include "RecordingSource.h"
#include "Unpacker.h"
#include "Vidora/Ostra/Log.h"
#include "Vidora/RtspUrlParser.h"

using namespace Kavio::Vidora;

namespace {

std::shared_ptr<const LiveClip> load_clip(const LiveOption& option, double fps, slices_t slices, std::string& error) {
    const auto clip = std::make_shared<LiveClip>();
    if (!clip->video.LoadVideo(option.video_file, fps, slices, error)) {
        return nullptr;
    }
    const std::string& audio_file = option.audio_file.empty() ? option.video_file : option.audio_file;
    if (!option.audio_file.empty() || HasEnding(audio_file, ".kav") || IsContainer(audio_file)) {
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

// What a content asks of a folder of recordings; false if it is no name of a recording.
bool read_query(const char* content, RecordingQuery& query) {
    CRtspUrlParser parser;
    unsigned int length = static_cast<unsigned int>(std::strlen(content));
    if (!parser.ParseContent(content, length)) {
        return false;
    }
    if (const playback_info* playback = parser.GetPlayback_info()) {
        query.channel = playback->channel;
        query.subtype = playback->subtype;
        query.interval.begin_sec = playback->start.makeTime();
        query.interval.end_sec = playback->end.makeTime();
        return true;
    }
    const char* name = parser.GetFileName();
    query.name = name == nullptr ? "" : name;
    return !query.name.empty();
}

// A content as the log may show it: without its query if that seems to hold a password.
std::string shown(const std::string& content) {
    static const char* const SIGNS[] = {"@", "pass", "pwd", "auth"};
    const bool hides = std::any_of(std::begin(SIGNS), std::end(SIGNS),
                                   [&](const char* sign) { return strcasestr(content.c_str(), sign) != nullptr; });
    return hides ? content.substr(0, content.find('?')) + "?***" : content;
}

}  // namespace

bool Catalog::Load(const Options& options, std::string& error) {
    const slices_t slices = options.as_described ? ONE_SLICE : ANY_SLICES;
    m_seeks_before = !options.as_described;
    if (!options.recordings.empty()) {
        m_recordings = std::make_unique<RecordingStore>(options.recordings, slices);
    }
    for (const LiveOption& option : options.live) {
        m_live[option.content] = load_clip(option, options.fps, slices, error);
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
    RecordingQuery query;
    std::string error;
    if (m_recordings == nullptr || !read_query(content, query)) {
        error = "nothing is published under that name";
    }
    if (!error.empty() || m_recordings->IsRefused(query, error)) {
        Kavio::Ostra::logWarn("%s: %s\n", shown(content).c_str(), error.c_str());
        return nullptr;
    }
    return new (std::nothrow) RecordingSource(*m_recordings, query, content, m_seeks_before);
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
