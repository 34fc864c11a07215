#ifndef VIDORA_HOST_RECORDINGSTORE_H
#define VIDORA_HOST_RECORDINGSTORE_H

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "LruCache.h"
#include "Recording.h"
#include "Workers.h"

// What a player asks for: a file of the folder by its name, or, with an empty name, the first recording of a channel
// and subtype ("C_S_*.kav") that holds a part of the interval.
struct RecordingQuery {
    std::string name;
    int channel = 0;
    int subtype = 0;
    Interval interval;
};

// What it gets: `error` is empty, or says why there is nothing.
struct OpenRecording {
    std::string error;
    std::shared_ptr<const Recording> recording;
    FileBytes file;
    PlayWindow window;
};

// RecordingStore: the folder of recordings, and the indexes of the files that were asked for last.
//
// Files are looked for, read and indexed on a few threads of the store's own. A file is in work once at a time,
// whoever asks for it; one that has grown is read from where its index ends, one that could not be played not again
// until it changes. Indexes take at most INDEX_BYTES, besides those in the hands of players.
//
// THREADING  Open, IsRefused: any thread; neither waits for a file to be read.
class RecordingStore {
public:
    static constexpr size_t INDEX_BYTES = 64u << 20;
    static constexpr size_t SPAN_BYTES = 4u << 20;
    static constexpr size_t MAX_THREADS = 8;

    typedef std::function<void(std::unique_ptr<OpenRecording>)> done_t;
    typedef std::weak_ptr<const void> asker_t;

    RecordingStore(std::string folder, slices_t slices);

    // Can't that be opened, as far as two looks into the folder and what is known of the file tell? `error` says why.
    bool IsRefused(const RecordingQuery& query, std::string& error);
    // Calls `done` on a thread of the store, unless the store ends before. A search whose asker has gone is given up,
    // so that clients that come and go leave no work behind for those that stay.
    void Open(const RecordingQuery& query, const asker_t& asker, done_t done);

private:
    typedef std::shared_ptr<const Recording> recording_t;
    typedef std::function<void(recording_t)> indexed_t;  // null: the file can't be read
    struct Search;
    struct Span {
        FileState state;
        Interval interval;
    };

    std::string inside(const std::filesystem::path& path) const;
    void index(const std::string& path, indexed_t done);
    void run_index(const std::string& path);
    recording_t read_index(const std::string& path);
    recording_t kept_index(const std::string& path);
    void finish(const std::string& path, const Interval& interval, const recording_t& recording, const done_t& done);
    void start_search(const RecordingQuery& query, const asker_t& asker, done_t done);
    void list_files(Search& search) const;
    void look_at_files(const std::shared_ptr<Search>& search);
    bool read_span(const std::string& path, Interval& span);
    void open_first(const std::shared_ptr<Search>& search);

    const std::filesystem::path m_folder;
    const slices_t m_slices;

    std::mutex m_mutex;  // guards the three below; not held while a file is read
    LruCache<recording_t> m_indexes;
    LruCache<Span> m_spans;
    std::map<std::string, std::vector<indexed_t>> m_in_work;  // who waits for a file's index

    Workers m_workers;  // the last member: its threads end before the others go
};

#endif  // VIDORA_HOST_RECORDINGSTORE_H
