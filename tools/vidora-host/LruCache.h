#ifndef VIDORA_HOST_LRUCACHE_H
#define VIDORA_HOST_LRUCACHE_H

#include <list>
#include <string>
#include <unordered_map>
#include <utility>

// LruCache: values by name, of `max_bytes` in all; those that were used least recently make room. One thread at a time.
template <typename Value>
class LruCache {
public:
    explicit LruCache(size_t max_bytes) : m_max_bytes(max_bytes) {}

    // The value, or null; valid until the next call.
    const Value* Find(const std::string& name) {
        const auto found = m_places.find(name);
        if (found == m_places.end()) {
            return nullptr;
        }
        m_entries.splice(m_entries.begin(), m_entries, found->second);
        return &found->second->value;
    }

    // Keeps a value that takes `bytes`, besides what the cache itself needs for it.
    void Put(const std::string& name, Value value, size_t bytes) {
        Erase(name);
        const size_t all_bytes = bytes + OVERHEAD + 2 * name.size();
        m_entries.push_front(Entry{name, std::move(value), all_bytes});
        m_places[name] = m_entries.begin();
        m_bytes += all_bytes;
        while (m_bytes > m_max_bytes) {
            Erase(std::string(m_entries.back().name));
        }
    }

    void Erase(const std::string& name) {
        const auto found = m_places.find(name);
        if (found != m_places.end()) {
            m_bytes -= found->second->bytes;
            m_entries.erase(found->second);
            m_places.erase(found);
        }
    }

private:
    struct Entry {
        std::string name;
        Value value;
        size_t bytes;
    };
    static constexpr size_t OVERHEAD = 256;  // of the list and the map, about

    const size_t m_max_bytes;
    size_t m_bytes = 0;
    std::list<Entry> m_entries;  // used last in front
    std::unordered_map<std::string, typename std::list<Entry>::iterator> m_places;
};

#endif  // VIDORA_HOST_LRUCACHE_H
