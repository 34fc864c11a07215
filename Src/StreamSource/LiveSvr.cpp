#include "Vidora/LiveSvr.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <list>
#include <new>
#include <string>

#include "Protocol/LogQuote.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"

namespace Kavio {
namespace Vidora {

namespace {

// The log lines of the two kinds of sink differ by a comma.
void log_no_channel(const CMediaStreamSender*, const char* content) {
    logError("%s:%d EnterLiveChannel failed, this live channel beingless!channel_name=%s \n", __FILE__, __LINE__,
             content);
}
void log_no_channel(const CLevel2Buffer_IF*, const char* content) {
    logError("%s:%d EnterLiveChannel failed, this live channel beingless!,channel_name=%s \n", __FILE__, __LINE__,
             content);
}

// Splits a content string. The walk stops at the last character, not behind it, so that a last parameter of exactly one
// character is dropped; names and requests pass through here alike and agree.
void get_param(const char* content, std::string& name, std::list<std::string>& params) {
    const char* question = std::strchr(content, '?');
    if (question == nullptr) {
        name = content;
        return;
    }
    name.assign(content, question);
    const char* last = content + std::strlen(content) - 1;
    for (const char* p = question + 1; p < last;) {
        const char* ampersand = std::strchr(p, '&');
        if (ampersand == nullptr) {
            params.emplace_back(p);
            return;
        }
        params.emplace_back(p, ampersand);
        p = ampersand + 1;
    }
}

// 0: the same strings in any order. 1: the registered ones are a proper part of the requested. -1: neither.
int string_list_cmpare(const std::list<std::string>& attr_params, const std::list<std::string>& req_params) {
    if (attr_params.size() > req_params.size()) {
        return -1;
    }
    for (const std::string& param : attr_params) {
        if (std::find(req_params.begin(), req_params.end(), param) == req_params.end()) {
            return -1;
        }
    }
    return attr_params.size() == req_params.size() ? 0 : 1;
}

}  // namespace

// A channel that was found, kept allocated while it is used outside the table's lock.
class CLiveSvr::CFound {
public:
    explicit CFound(CLiveChannel* channel) : m_channel(channel) {
        if (m_channel != nullptr) {
            m_channel->hold();
        }
    }
    ~CFound() {
        if (m_channel != nullptr) {
            m_channel->release();
        }
    }
    CFound(const CFound&) = delete;
    CFound& operator=(const CFound&) = delete;
    CLiveChannel* operator->() const { return m_channel; }
    bool Is(const CLiveChannel* only) const { return only == nullptr || m_channel == only; }
    explicit operator bool() const { return m_channel != nullptr; }

private:
    CLiveChannel* const m_channel;
};

struct CLiveSvr::Internal {
    // One published name. A channel that the host has closed by itself stays until the name is deleted, and isn't
    // found.
    struct channel_attr {
        std::string name;               // the content string up to the first "?"
        std::list<std::string> params;  // the parts of the query, in their order
        CLiveChannel* live_channel = nullptr;
    };
    typedef std::list<channel_attr> attr_list_t;

    channel_attr* get_channel_attr_locked(const char* content) VIDORA_REQUIRES(m_mutex);
    channel_attr* find_attr_locked(const std::string& name, const std::list<std::string>& req, const char* content)
        VIDORA_REQUIRES(m_mutex);
    attr_list_t::iterator place_locked(const CDataSource* src) VIDORA_REQUIRES(m_mutex);
    void take_out_locked(const char* channel_name, attr_list_t& taken) VIDORA_REQUIRES(m_mutex);
    CFound find(const char* content);
    CFound find_user(const char* content, const void* sink);
    template <typename Sink>
    int enter(const char* content, Sink* sink, packet_type_t packet_type, const CLiveChannel* only);
    template <typename Sink>
    int leave(const char* content, Sink* sink, packet_type_t packet_type);

    long m_notify_id = 0;             // constant after Create
    std::atomic<int> m_ref_count{1};  // users, and one until handle_close

    CMutex m_mutex;
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;    // nothing is added any more
    attr_list_t m_attr_list VIDORA_GUARDED_BY(m_mutex);  // names of one source beside each other
};

CLiveSvr* CLiveSvr::Create(long notify_id) {
    CLiveSvr* live_svr = new (std::nothrow) CLiveSvr;
    if (live_svr == nullptr) {
        return nullptr;
    }
    if (live_svr->m_internal == nullptr || live_svr->GetID() == 0) {
        delete live_svr;
        return nullptr;
    }
    live_svr->m_internal->m_notify_id = notify_id;
    return live_svr;
}

CLiveSvr::CLiveSvr() : m_internal(new (std::nothrow) Internal) {}
CLiveSvr::~CLiveSvr() {
    delete m_internal;
}

// The entry that serves a content string; null if none does, or memory is short.
CLiveSvr::Internal::channel_attr* CLiveSvr::Internal::get_channel_attr_locked(const char* content) {
    if (content == nullptr) {
        return nullptr;
    }
    try {
        std::string name;
        std::list<std::string> req;
        get_param(content, name, req);
        return find_attr_locked(name, req, content);
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return nullptr;
    }
}

// Without parameters: the entry of that name with the fewest, the first of them. With parameters: the entry with
// exactly these, otherwise the last parameterless one of that name before any partial match. A partial match is never
// given itself, and hides parameterless entries behind it: hosts rely on this order.
CLiveSvr::Internal::channel_attr* CLiveSvr::Internal::find_attr_locked(const std::string& name,
                                                                       const std::list<std::string>& req,
                                                                       const char* content) {
    channel_attr* best = nullptr;
    int best_count = -1;
    for (channel_attr& attr : m_attr_list) {
        if (attr.name != name || attr.live_channel->is_closed()) {
            continue;
        }
        const int count = static_cast<int>(attr.params.size());
        if (req.empty()) {
            if (count == 0) {
                return &attr;
            }
            if (best_count < 0 || best_count > count) {
                best_count = count;
                best = &attr;
            }
            continue;
        }
        if (count == 0) {
            if (best_count < 0) {
                best = &attr;
            }
            continue;
        }
        const int match = string_list_cmpare(attr.params, req);
        if (match == 0) {
            return &attr;
        }
        if (match > 0) {
            best_count = std::max(best_count, count);
        } else {
            logDebug("%s:%d, channel:[%s] is not find in live server\n", __FILE__, __LINE__,
                     CLogQuote(Ostra::LOG_LEVEL_DEBUG, content).Text());
        }
    }
    return best;
}

int CLiveSvr::AddLiveChannel(const char* channel_name, CLiveChannel* channel, CDataSource* src) {
    if (channel_name == nullptr || channel == nullptr || src == nullptr) {
        logError("%s:%d parameter error, channel_name:%s live_channel:%p data_src:%p\n", __FILE__, __LINE__,
                 channel_name == nullptr ? "" : channel_name, static_cast<void*>(channel), static_cast<void*>(src));
        return -1;
    }
    Internal::attr_list_t entry;
    try {
        entry.emplace_back();
        entry.back().live_channel = channel;
        get_param(channel_name, entry.back().name, entry.back().params);
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return -1;
    }
    if (channel->publish(GetID(), src) < 0) {
        logError("%s:%d, the channel is closed or stands in a table already, channel_name:%s\n", __FILE__, __LINE__,
                 channel_name);
        return -1;
    }
    {
        CGuard guard(m_internal->m_mutex);
        if (!m_internal->m_closed) {
            m_internal->m_attr_list.splice(m_internal->place_locked(src), entry);
            return 0;
        }
    }
    logError("%s:%d, the registry is closed, channel_name:%s\n", __FILE__, __LINE__, channel_name);
    channel->unpublish(false);
    return -1;
}

// Behind the last name of that source.
CLiveSvr::Internal::attr_list_t::iterator CLiveSvr::Internal::place_locked(const CDataSource* src) {
    const auto last = std::find_if(m_attr_list.rbegin(), m_attr_list.rend(),
                                   [src](const channel_attr& attr) { return attr.live_channel->is_kept(src); });
    return last == m_attr_list.rend() ? m_attr_list.end() : last.base();
}

int CLiveSvr::DelLiveChannel(const char* channel_name) {
    logInfo("%s:%d DelLiveChannel %s\n", __FILE__, __LINE__, channel_name == nullptr ? "" : channel_name);
    if (channel_name == nullptr) {
        logError("%s:%d parameter error, channel_name:%s\n", __FILE__, __LINE__, "");
        return -1;
    }
    Internal::attr_list_t taken;
    try {
        CGuard guard(m_internal->m_mutex);
        m_internal->take_out_locked(channel_name, taken);
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return -1;
    }
    if (taken.empty()) {
        logError("%s:%d do not find this channel name:%s\n", __FILE__, __LINE__, channel_name);
        return -1;
    }
    logInfo("%s:%d, close channel, name=%s \n", __FILE__, __LINE__, channel_name);
    taken.back().live_channel->unpublish(true);
    return 0;
}

void CLiveSvr::Internal::take_out_locked(const char* channel_name, attr_list_t& taken) {
    std::string name;
    std::list<std::string> params;
    get_param(channel_name, name, params);
    const auto attr = std::find_if(m_attr_list.begin(), m_attr_list.end(), [&](const channel_attr& entry) {
        return entry.name == name && string_list_cmpare(entry.params, params) == 0;
    });
    if (attr != m_attr_list.end()) {
        taken.splice(taken.end(), m_attr_list, attr);
    }
}

CLiveSvr::CFound CLiveSvr::Internal::find(const char* content) {
    CGuard guard(m_mutex);
    const channel_attr* attr = get_channel_attr_locked(content);
    return CFound(attr == nullptr ? nullptr : attr->live_channel);
}

int CLiveSvr::QueryLiveChannel(const char* content) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->get_channel_attr_locked(content) == nullptr ? -1 : 0;
}

CLiveChannel* CLiveSvr::GetLiveChannel(const char* content, long user) {
    CGuard guard(m_internal->m_mutex);
    Internal::channel_attr* attr = m_internal->get_channel_attr_locked(content);
    if (attr == nullptr || attr->live_channel->AddRef(user) < 0) {
        logError("%s:%d, get channel failed, channel_name =%s.\n", __FILE__, __LINE__,
                 CLogQuote(Ostra::LOG_LEVEL_ERROR, content).Text());
        return nullptr;
    }
    return attr->live_channel;
}

int CLiveSvr::EnterLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type) {
    return EnterLiveChannel(content, sink, packet_type, nullptr);
}

int CLiveSvr::EnterLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type) {
    return EnterLiveChannel(content, sink, packet_type, nullptr);
}

int CLiveSvr::EnterLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type,
                               const CLiveChannel* only) {
    return m_internal->enter(content, sink, packet_type, only);
}

int CLiveSvr::EnterLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type,
                               const CLiveChannel* only) {
    return m_internal->enter(content, sink, packet_type, only);
}

template <typename Sink>
int CLiveSvr::Internal::enter(const char* content, Sink* sink, packet_type_t packet_type, const CLiveChannel* only) {
    if (content == nullptr) {
        return -1;
    }
    const CFound channel = find(content);
    if (!channel || !channel.Is(only) || channel->Enter(sink, packet_type) < 0) {
        log_no_channel(sink, content);
        return -1;
    }
    return 0;
}

int CLiveSvr::LeaveLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type) {
    return m_internal->leave(content, sink, packet_type);
}

int CLiveSvr::LeaveLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type) {
    return m_internal->leave(content, sink, packet_type);
}

template <typename Sink>
int CLiveSvr::Internal::leave(const char* content, Sink* sink, packet_type_t packet_type) {
    const CFound channel = find_user(content, sink);
    if (!channel || channel->Leave(sink, packet_type) < 0) {
        logWarn("%s:%d LeaveLiveChannel failed, this live channel beingless!channel_name=%s \n", __FILE__, __LINE__,
                content == nullptr ? "" : content);
        return -1;
    }
    return 0;
}

// The channel that a sink leaves by this content: the one that fits, or another of that name where the sink is, as
// a name that fits better may have been published since it entered. A null sink leaves the one that fits.
CLiveSvr::CFound CLiveSvr::Internal::find_user(const char* content, const void* sink) {
    CGuard guard(m_mutex);
    const channel_attr* attr = get_channel_attr_locked(content);
    if (attr == nullptr) {
        logError("%s:%d, get_channel_attr return NULL., channel_name=%s. \n", __FILE__, __LINE__,
                 content == nullptr ? "" : content);
        return CFound(nullptr);
    }
    if (sink == nullptr || attr->live_channel->has_entered(sink)) {
        return CFound(attr->live_channel);
    }
    const auto other = std::find_if(m_attr_list.begin(), m_attr_list.end(), [&](const channel_attr& entry) {
        return entry.name == attr->name && entry.live_channel->has_entered(sink);
    });
    if (other == m_attr_list.end()) {
        logError("%s:%d, remove_live_ch_user, usr=0x%x.\n", __FILE__, __LINE__,
                 static_cast<unsigned int>(reinterpret_cast<uintptr_t>(sink)));
        return CFound(nullptr);
    }
    return CFound(other->live_channel);
}

int CLiveSvr::UpdataLiveChannel(const char* content, long arg) {
    logInfo("%s:%d UpdataLiveChannel, channel name:%s\n", __FILE__, __LINE__,
            CLogQuote(Ostra::LOG_LEVEL_INFO, content).Text());
    const CFound channel = m_internal->find(content);
    return channel ? channel->UpdataLiveChannel(arg) : -1;
}

int CLiveSvr::handle_message(long, unsigned int msg, long param) {
    if (m_internal->m_notify_id == 0) {
        return 0;
    }
    if ((msg == MSG_SRC_END || msg == MSG_SRC_FAIL) && param != 0) {
        logWarn("%s:%d Live channel: %s down!\n", __FILE__, __LINE__, reinterpret_cast<const char*>(param));
    }
    Notify(m_internal->m_notify_id, msg, param);
    return 0;
}

void CLiveSvr::Close() {
    Internal::attr_list_t taken;
    {
        CGuard guard(m_internal->m_mutex);
        m_internal->m_closed = true;
        taken.swap(m_internal->m_attr_list);
    }
    for (const Internal::channel_attr& attr : taken) {
        attr.live_channel->unpublish(true);
    }
    CNetHandler::Close();
}

int CLiveSvr::handle_close(CNetHandler*) {
    release();
    return -1;
}

void CLiveSvr::keep() {
    m_internal->m_ref_count.fetch_add(1);
}

void CLiveSvr::release() {
    if (m_internal->m_ref_count.fetch_sub(1) == 1) {
        delete this;
    }
}

}  // namespace Vidora
}  // namespace Kavio
