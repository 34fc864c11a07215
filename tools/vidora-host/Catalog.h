#ifndef VIDORA_HOST_CATALOG_H
#define VIDORA_HOST_CATALOG_H

#include <map>
#include <memory>
#include <string>

#include "LiveSource.h"
#include "Options.h"
#include "RecordingStore.h"
#include "Vidora/StreamSource.h"

// Catalog: what this host publishes: live clips by content, and a folder of recordings. Immutable after Load; outlives
// the sources that it makes.
class Catalog {
public:
    // Loads all clips. False, with `error`, if one can't be sent.
    bool Load(const Options& options, std::string& error);
    // A source for a content, or null. Any thread; it doesn't wait for a file.
    Kavio::Vidora::CStreamSource* MakeSource(const char* content) const;
    // Writes one pass of a live clip as a recording. False, with `error`, on failure.
    bool WriteKav(const std::string& content, const std::string& path, std::string& error) const;

private:
    std::map<std::string, std::shared_ptr<const LiveClip>> m_live;
    std::unique_ptr<RecordingStore> m_recordings;  // null without a folder
    bool m_seeks_before = false;                   // recordings begin with the key frame in front of what is sought
};

#endif  // VIDORA_HOST_CATALOG_H
