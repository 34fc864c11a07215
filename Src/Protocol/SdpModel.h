#ifndef VIDORA_PROTOCOL_SDPMODEL_H
#define VIDORA_PROTOCOL_SDPMODEL_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <utility>

namespace Kavio {
namespace Vidora {

// The records of a session description (RFC 4566), as CSdpParser keeps them. A record owns its texts and lists.

// CSdpText: a text of its own allocation; null means that it is absent. Copies are deep; a copy that finds no memory is
// null.
class CSdpText {
public:
    CSdpText() = default;
    CSdpText(const CSdpText& other) { Set(other.m_text); }
    CSdpText(CSdpText&& other) noexcept : m_text(std::exchange(other.m_text, nullptr)) {}
    CSdpText& operator=(CSdpText other) noexcept {
        std::swap(m_text, other.m_text);
        return *this;
    }
    ~CSdpText() { Reset(); }

    // Takes a copy of `text`, or of its first `length` bytes. False, with nothing changed, for null or without memory.
    bool Set(const char* text);
    bool Set(const char* text, size_t length);
    void Reset() { delete[] std::exchange(m_text, nullptr); }

    const char* Get() const { return m_text; }
    operator const char*() const { return m_text; }
    // Both present and equal.
    bool Equals(const char* text) const;
    // Present and beginning with `prefix`.
    bool StartsWith(const char* prefix) const;

private:
    char* m_text = nullptr;
};

// sdp_list: a singly linked list that owns its records and is appended at the tail in constant time.
template <typename T>
class sdp_list {
    struct node {
        explicit node(T&& record) : value(std::move(record)) {}
        T value;
        node* next = nullptr;
    };

    template <typename Node, typename Value>
    class basic_iterator {
    public:
        explicit basic_iterator(Node* at) : m_at(at) {}
        Value& operator*() const { return m_at->value; }
        basic_iterator& operator++() {
            m_at = m_at->next;
            return *this;
        }
        bool operator!=(const basic_iterator& other) const { return m_at != other.m_at; }

    private:
        Node* m_at;
    };

public:
    typedef basic_iterator<node, T> iterator;
    typedef basic_iterator<const node, const T> const_iterator;

    sdp_list() = default;
    sdp_list(sdp_list&& other) noexcept { swap(other); }
    sdp_list& operator=(sdp_list&& other) noexcept {
        swap(other);
        return *this;
    }
    sdp_list(const sdp_list&) = delete;
    sdp_list& operator=(const sdp_list&) = delete;
    ~sdp_list() { clear(); }

    // Takes the record over and returns its place in the list; null without memory.
    T* append(T&& record) {
        node* added = new (std::nothrow) node(std::move(record));
        if (added == nullptr) {
            return nullptr;
        }
        (m_tail != nullptr ? m_tail->next : m_head) = added;
        m_tail = added;
        ++m_count;
        return &added->value;
    }

    // Frees the first record for which `matches` is true. Whether there was one.
    template <typename Matches>
    bool remove_first(Matches matches) {
        node* before = nullptr;
        for (node* at = m_head; at != nullptr; before = at, at = at->next) {
            if (!matches(at->value)) {
                continue;
            }
            (before != nullptr ? before->next : m_head) = at->next;
            m_tail = at == m_tail ? before : m_tail;
            --m_count;
            delete at;
            return true;
        }
        return false;
    }

    void clear() {
        while (m_head != nullptr) {
            delete std::exchange(m_head, m_head->next);
        }
        m_tail = nullptr;
        m_count = 0;
    }

    bool empty() const { return m_head == nullptr; }
    int size() const { return m_count; }
    // The first and the last record; null in an empty list.
    const T* first() const { return m_head != nullptr ? &m_head->value : nullptr; }
    T* last() { return m_tail != nullptr ? &m_tail->value : nullptr; }

    iterator begin() { return iterator(m_head); }
    iterator end() { return iterator(nullptr); }
    const_iterator begin() const { return const_iterator(m_head); }
    const_iterator end() const { return const_iterator(nullptr); }

private:
    void swap(sdp_list& other) noexcept {
        std::swap(m_head, other.m_head);
        std::swap(m_tail, other.m_tail);
        std::swap(m_count, other.m_count);
    }

    node* m_head = nullptr;
    node* m_tail = nullptr;
    int m_count = 0;
};

// o=
struct sdp_origin_t {
    CSdpText username;  // null: no origin yet
    uint64_t session_id = 0;
    uint64_t session_version = 0;
    CSdpText network_type;
    CSdpText address_type;
    CSdpText address;
};

// c=
struct sdp_connection_t {
    CSdpText network_type;  // "IN"
    CSdpText address_type;  // "IP4" or "IP6"
    CSdpText address;
    int address_count = 0;  // 0 when the line doesn't say
    uint8_t ttl = 0;
};

// b=
struct sdp_bandwidth_t {
    CSdpText modifier;
    uint64_t value = 0;
};

// t=, in seconds since 1900
struct sdp_time_t {
    uint64_t start = 0;
    uint64_t stop = 0;
};

// One pair of z=
struct sdp_zone_t {
    uint64_t time = 0;
    CSdpText offset;
};

// k=
struct sdp_key_t {
    CSdpText method;  // null: no key
    CSdpText value;   // null: the method alone
};

// a=
struct sdp_attribute_t {
    CSdpText name;
    CSdpText value;  // null: a flag
};

const unsigned int SDP_CONTROL_SIZE = 128;  // room of a media's control text

// m= and the lines that belong to it
struct sdp_media_t {
    int track_id = 0;                     // from 1; 0 until given
    char control[SDP_CONTROL_SIZE] = "";  // value of the control attribute
    CSdpText type;
    unsigned int port = 0;
    int port_count = 1;  // at least 1
    CSdpText protocol;
    int payload_type = 0;  // the last numeric format of the m= line
    sdp_list<CSdpText> formats;
    CSdpText info;
    sdp_list<sdp_connection_t> connections;
    sdp_list<sdp_bandwidth_t> bandwidths;
    sdp_key_t key;
    sdp_list<sdp_attribute_t> attributes;
};

struct sdp_session_t {
    int version = 0;
    sdp_origin_t origin;
    CSdpText name;
    CSdpText info;
    CSdpText uri;
    sdp_list<CSdpText> emails;
    sdp_list<CSdpText> phones;
    sdp_list<sdp_connection_t> connections;
    sdp_list<sdp_bandwidth_t> bandwidths;
    sdp_list<sdp_time_t> times;
    sdp_list<sdp_zone_t> zones;
    sdp_key_t key;
    sdp_list<sdp_attribute_t> attributes;
    sdp_list<sdp_media_t> media;
};

// What reading and building share. False, or null, without memory; then nothing has changed.
// The attribute of that name; null if there is none.
const sdp_attribute_t* SdpFindAttribute(const sdp_list<sdp_attribute_t>& list, const char* name);
// Sets the value of the attribute of that name in its place, or appends one; a null `value` makes a flag.
bool SdpSetAttribute(sdp_list<sdp_attribute_t>& list, const char* name, const char* value);
bool SdpAddText(sdp_list<CSdpText>& list, const char* text);
// Appends a payload format; a numeric one becomes the media's payload type.
bool SdpAddFormat(sdp_media_t& media, const char* format);
// Copies a control text, cut at its room; null clears it.
void SdpSetControl(sdp_media_t& media, const char* control);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_PROTOCOL_SDPMODEL_H
