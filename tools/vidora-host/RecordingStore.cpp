#include "RecordingStore.h"

#include <algorithm>

namespace fs = std::filesystem;

// A search in work: on one thread at a time, as each step posts the next one.
struct RecordingStore::Search {
    RecordingQuery query;
    asker_t asker;
    done_t done;
    std::vector<std::string> files;                         // that haven't been looked at
    std::vector<std::pair<uint64_t, std::string>> fitting;  // by their beginnings, the latest first when all are known
};

namespace {

bool overlaps(const Interval& span, const Interval& wanted) {
    return span.end_sec > wanted.begin_sec && (wanted.end_sec == 0 || span.begin_sec <= wanted.end_sec);
}

std::unique_ptr<OpenRecording> make_failure(const std::string& error) {
    auto failure = std::make_unique<OpenRecording>();
    failure->error = error;
    return failure;
}

}  // namespace

RecordingStore::RecordingStore(std::string folder, slices_t slices)
    : m_folder(std::move(folder)),
      m_slices(slices),
      m_indexes(INDEX_BYTES),
      m_spans(SPAN_BYTES),
      m_workers(MAX_THREADS) {}

bool RecordingStore::IsRefused(const RecordingQuery& query, std::string& error) {
    if (query.name.empty()) {
        return false;
    }
    const std::string path = inside(fs::path(query.name).relative_path());
    FileState state;
    if (path.empty() || !ReadFileState(path, state)) {
        error = "no such recording";
        return true;
    }
    const recording_t known = kept_index(path);
    if (known && known->State() == state) {
        error = known->Fault();
    }
    return !error.empty();
}

void RecordingStore::Open(const RecordingQuery& query, const asker_t& asker, done_t done) {
    m_workers.Post([this, query, asker, done] {
        if (asker.expired()) {
            return;
        }
        if (query.name.empty()) {
            start_search(query, asker, done);
            return;
        }
        const std::string path = inside(fs::path(query.name).relative_path());
        if (path.empty()) {
            done(make_failure("lies outside of the folder"));
            return;
        }
        index(path,
              [this, path, query, done](recording_t recording) { finish(path, query.interval, recording, done); });
    });
}

// The true path of a file of the folder; empty if links or dots lead out of it.
std::string RecordingStore::inside(const fs::path& path) const {
    std::error_code code;
    const fs::path root = fs::weakly_canonical(m_folder, code);
    const fs::path file = fs::weakly_canonical(root / path, code);
    const fs::path relative = file.lexically_relative(root);
    return code || relative.empty() || *relative.begin() == ".." ? std::string() : file.string();
}

// Calls `done` in a job of its own with the index of a file as it is now.
void RecordingStore::index(const std::string& path, indexed_t done) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    std::vector<indexed_t>& waiting = m_in_work[path];
    waiting.push_back(std::move(done));
    if (waiting.size() == 1) {
        m_workers.Post([this, path] { run_index(path); });
    }
}

void RecordingStore::run_index(const std::string& path) {
    const recording_t recording = read_index(path);
    const std::lock_guard<std::mutex> guard(m_mutex);
    for (const indexed_t& done : m_in_work[path]) {
        m_workers.Post([done, recording] { done(recording); });
    }
    m_in_work.erase(path);
}

RecordingStore::recording_t RecordingStore::kept_index(const std::string& path) {
    const std::lock_guard<std::mutex> guard(m_mutex);
    const recording_t* kept = m_indexes.Find(path);
    return kept != nullptr ? *kept : nullptr;
}

// The kept index if the file hasn't changed, otherwise a new one.
RecordingStore::recording_t RecordingStore::read_index(const std::string& path) {
    const recording_t former = kept_index(path);
    FileBytes file;
    const bool is_open = file.Open(path);
    if (is_open && former && former->State() == file.State()) {
        return former;
    }
    const recording_t recording =
        is_open ? Recording::Index(file, former.get(), m_slices, m_workers.Stopping()) : recording_t();
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (recording) {
        m_indexes.Put(path, recording, recording->MemorySize());
    } else {
        m_indexes.Erase(path);
    }
    return recording;
}

void RecordingStore::finish(const std::string& path, const Interval& interval, const recording_t& recording,
                            const done_t& done) {
    auto result = std::make_unique<OpenRecording>();
    if (!recording || !result->file.Open(path)) {
        done(make_failure(path + ": cannot be read"));
        return;
    }
    if (!recording->Fault().empty()) {
        done(make_failure(path + ": " + recording->Fault()));
        return;
    }
    if (!result->file.State().IsSameFile(recording->State())) {
        done(make_failure(path + ": was replaced while it was read"));
        return;
    }
    result->recording = recording;
    result->window = recording->Cut(result->file, interval);
    done(std::move(result));
}

void RecordingStore::start_search(const RecordingQuery& query, const asker_t& asker, done_t done) {
    const auto search = std::make_shared<Search>();
    search->query = query;
    search->asker = asker;
    search->done = std::move(done);
    list_files(*search);
    look_at_files(search);
}

// What can't be read, and links that lead out of the folder, are passed over.
void RecordingStore::list_files(Search& search) const {
    const std::string prefix = std::to_string(search.query.channel) + "_" + std::to_string(search.query.subtype) + "_";
    std::error_code code;
    const auto options = fs::directory_options::skip_permission_denied;
    fs::recursive_directory_iterator entry(m_folder, options, code);
    for (; !code && entry != fs::recursive_directory_iterator(); entry.increment(code)) {
        const std::string name = entry->path().filename().string();
        if (name.compare(0, prefix.size(), prefix) == 0 && HasEnding(name, ".kav")) {
            const std::string path = inside(entry->path().lexically_relative(m_folder));
            if (!path.empty()) {
                search.files.push_back(path);
            }
        }
    }
}

// Takes the times of the files from their ends; a file that is damaged there is indexed first, and the search goes on
// with it.
void RecordingStore::look_at_files(const std::shared_ptr<Search>& search) {
    while (!search->files.empty() && !search->asker.expired() && !m_workers.Stopping()) {
        const std::string path = search->files.back();
        search->files.pop_back();
        Interval span;
        if (!read_span(path, span)) {
            index(path, [this, search, path](recording_t recording) {
                if (recording && recording->Fault().empty() &&
                    overlaps(Interval{recording->BeginSec(), recording->EndSec()}, search->query.interval)) {
                    search->fitting.emplace_back(recording->BeginSec(), path);
                }
                look_at_files(search);
            });
            return;
        }
        if (overlaps(span, search->query.interval)) {
            search->fitting.emplace_back(span.begin_sec, path);
        }
    }
    std::sort(search->fitting.begin(), search->fitting.end(), std::greater<>());
    open_first(search);
}

bool RecordingStore::read_span(const std::string& path, Interval& span) {
    FileState state;
    if (!ReadFileState(path, state)) {
        return false;
    }
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        const Span* kept = m_spans.Find(path);
        if (kept != nullptr && kept->state == state) {
            span = kept->interval;
            return true;
        }
    }
    FileBytes file;
    if (!file.Open(path) || !ReadSpan(file, span)) {
        return false;
    }
    const std::lock_guard<std::mutex> guard(m_mutex);
    m_spans.Put(path, Span{file.State(), span}, sizeof(Span));
    return true;
}

// The first that can be played.
void RecordingStore::open_first(const std::shared_ptr<Search>& search) {
    if (search->asker.expired()) {
        return;
    }
    if (search->fitting.empty()) {
        search->done(make_failure("no recording of channel " + std::to_string(search->query.channel) + ", subtype " +
                                  std::to_string(search->query.subtype) + " at that time"));
        return;
    }
    const std::string path = search->fitting.back().second;
    search->fitting.pop_back();
    index(path, [this, search, path](recording_t recording) {
        if (recording && recording->Fault().empty()) {
            finish(path, search->query.interval, recording, search->done);
        } else {
            open_first(search);
        }
    });
}
