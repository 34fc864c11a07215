#include "Vidora/LiveSvr.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <list>
#include <new>
#include <string>

#include "StreamSource/IdList.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"
#include "Vidora/Tramel/MediaBuffer.h"

namespace Kavio {
namespace Vidora {

namespace {

// What differs between the two kinds of sink; the log lines differ by a comma.
void attach(CMediaBuffer& buffer, CMediaStreamSender* sink) {
    buffer.AddSender(sink);
}
void attach(CMediaBuffer& buffer, CLevel2Buffer_IF* sink) {
    buffer.AddLevel2Buffer(sink);
}
void detach(CMediaBuffer& buffer, CMediaStreamSender* sink) {
    buffer.DelSender(sink);
}
void detach(CMediaBuffer& buffer, CLevel2Buffer_IF* sink) {
    buffer.DelLevel2Buffer(sink);
}

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

struct CLiveSvr::Internal {
    // One published name.
    struct channel_attr {
        std::string name;               // the content string up to the first "?"
        std::list<std::string> params;  // the parts of the query, in their order
        CLiveChannel* live_channel = nullptr;
        std::list<long> users;  // sinks now attached, as pointer values; null sinks too
    };

    // One source with the names that are published from it, never empty while it stands in the table.
    struct channel_comp {
        CDataSource* data_src = nullptr;
        std::list<channel_attr> attr_list;
    };

    channel_attr* get_channel_attr_locked(const char* content) VIDORA_REQUIRES(m_mutex);
    channel_attr* find_attr_locked(const std::string& name, const std::list<std::string>& req, const char* content)
        VIDORA_REQUIRES(m_mutex);
    CLiveChannel* remove_live_ch_user_locked(const char* content, long user) VIDORA_REQUIRES(m_mutex);
    void add_locked(std::list<channel_comp>& entry, long svr_id) VIDORA_REQUIRES(m_mutex);
    bool delete_locked(const char* channel_name) VIDORA_REQUIRES(m_mutex);
    template <typename Sink>
    int enter_locked(const char* content, Sink* sink, packet_type_t packet_type, const CLiveChannel* only)
        VIDORA_REQUIRES(m_mutex);
    template <typename Sink>
    int leave_locked(const char* content, Sink* sink, packet_type_t packet_type) VIDORA_REQUIRES(m_mutex);

    long m_notify_id = 0;             // constant after Create
    std::atomic<int> m_ref_count{1};  // users, and one until handle_close

    CMutex m_mutex;
    bool m_closed VIDORA_GUARDED_BY(m_mutex) = false;  // nothing is added any more
    std::list<channel_comp> m_comp_list VIDORA_GUARDED_BY(m_mutex);
};

CLiveSvr* CLiveSvr::Create(long notify_id) {
    CLiveSvr* live_svr = new (std::nothrow) CLiveSvr;
    if (live_svr == nullptr) {
        return nullptr;
    }
    if (live_svr->m_internal == nullptr) {
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
    for (channel_comp& comp : m_comp_list) {
        for (channel_attr& attr : comp.attr_list) {
            if (attr.name != name) {
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
                logDebug("%s:%d, channel:[%s] is not find in live server\n", __FILE__, __LINE__, content);
            }
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
    std::list<Internal::channel_comp> entry;
    try {
        entry.emplace_back();
        entry.back().data_src = src;
        std::list<Internal::channel_attr>& attr_list = entry.back().attr_list;
        attr_list.emplace_back();
        attr_list.back().live_channel = channel;
        get_param(channel_name, attr_list.back().name, attr_list.back().params);
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return -1;
    }
    CGuard guard(m_internal->m_mutex);
    if (m_internal->m_closed) {
        logError("%s:%d, the registry is closed, channel_name:%s\n", __FILE__, __LINE__, channel_name);
        return -1;
    }
    m_internal->add_locked(entry, GetID());
    return 0;
}

// `entry`: a list of one source with one name.
void CLiveSvr::Internal::add_locked(std::list<channel_comp>& entry, long svr_id) {
    for (channel_comp& comp : m_comp_list) {
        if (comp.data_src == entry.back().data_src) {
            comp.attr_list.splice(comp.attr_list.end(), entry.back().attr_list);
            return;
        }
    }
    entry.back().data_src->AddNotify(svr_id);
    m_comp_list.splice(m_comp_list.end(), entry);
}

int CLiveSvr::DelLiveChannel(const char* channel_name) {
    logInfo("%s:%d DelLiveChannel %s\n", __FILE__, __LINE__, channel_name == nullptr ? "" : channel_name);
    if (channel_name == nullptr) {
        logError("%s:%d parameter error, channel_name:%s\n", __FILE__, __LINE__, "");
        return -1;
    }
    CGuard guard(m_internal->m_mutex);
    try {
        if (m_internal->delete_locked(channel_name)) {
            return 0;
        }
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return -1;
    }
    logError("%s:%d do not find this channel name:%s\n", __FILE__, __LINE__, channel_name);
    return -1;
}

bool CLiveSvr::Internal::delete_locked(const char* channel_name) {
    std::string name;
    std::list<std::string> params;
    get_param(channel_name, name, params);
    for (auto comp = m_comp_list.begin(); comp != m_comp_list.end(); ++comp) {
        const auto attr = std::find_if(comp->attr_list.begin(), comp->attr_list.end(), [&](const channel_attr& entry) {
            return entry.name == name && string_list_cmpare(entry.params, params) == 0;
        });
        if (attr == comp->attr_list.end()) {
            continue;
        }
        logInfo("%s:%d, close channel, name=%s \n", __FILE__, __LINE__, channel_name);
        attr->live_channel->Close();
        comp->attr_list.erase(attr);
        if (comp->attr_list.empty()) {
            comp->data_src->Close();
            m_comp_list.erase(comp);
        }
        return true;
    }
    return false;
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
                 content == nullptr ? "" : content);
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
    CGuard guard(m_internal->m_mutex);
    return m_internal->enter_locked(content, sink, packet_type, only);
}

int CLiveSvr::EnterLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type,
                               const CLiveChannel* only) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->enter_locked(content, sink, packet_type, only);
}

// The user stands in the list first: what can fail for want of memory comes before what has an effect.
template <typename Sink>
int CLiveSvr::Internal::enter_locked(const char* content, Sink* sink, packet_type_t packet_type,
                                     const CLiveChannel* only) {
    if (content == nullptr) {
        return -1;
    }
    channel_attr* attr = get_channel_attr_locked(content);
    if (attr == nullptr || (only != nullptr && attr->live_channel != only)) {
        log_no_channel(sink, content);
        return -1;
    }
    if (!AppendId(attr->users, reinterpret_cast<long>(sink))) {
        return -1;
    }
    CMediaBuffer* buffer = sink == nullptr ? nullptr : attr->live_channel->GetMediaBuffer(packet_type);
    if (buffer != nullptr) {
        attach(*buffer, sink);
    }
    attr->live_channel->StartStreaming(packet_type);
    return 0;
}

int CLiveSvr::LeaveLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->leave_locked(content, sink, packet_type);
}

int CLiveSvr::LeaveLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->leave_locked(content, sink, packet_type);
}

template <typename Sink>
int CLiveSvr::Internal::leave_locked(const char* content, Sink* sink, packet_type_t packet_type) {
    CLiveChannel* channel = remove_live_ch_user_locked(content, reinterpret_cast<long>(sink));
    if (channel == nullptr) {
        logWarn("%s:%d LeaveLiveChannel failed, this live channel beingless!channel_name=%s \n", __FILE__, __LINE__,
                content == nullptr ? "" : content);
        return -1;
    }
    CMediaBuffer* buffer = sink == nullptr ? nullptr : channel->GetMediaBuffer(packet_type);
    if (buffer != nullptr) {
        detach(*buffer, sink);
    }
    channel->StopStreaming(packet_type);
    return 0;
}

// Takes a sink off its channel's list and gives the channel. User 0 gives the channel without a search, and so never
// takes a null user off.
CLiveChannel* CLiveSvr::Internal::remove_live_ch_user_locked(const char* content, long user) {
    channel_attr* attr = get_channel_attr_locked(content);
    if (attr == nullptr) {
        logError("%s:%d, get_channel_attr return NULL., channel_name=%s. \n", __FILE__, __LINE__,
                 content == nullptr ? "" : content);
        return nullptr;
    }
    if (user == 0) {
        return attr->live_channel;
    }
    const auto entry = std::find(attr->users.begin(), attr->users.end(), user);
    if (entry == attr->users.end()) {
        logError("%s:%d, remove_live_ch_user, usr=0x%x.\n", __FILE__, __LINE__, static_cast<unsigned int>(user));
        return nullptr;
    }
    attr->users.erase(entry);
    return attr->live_channel;
}

int CLiveSvr::UpdataLiveChannel(const char* content, long arg) {
    CGuard guard(m_internal->m_mutex);
    logInfo("%s:%d UpdataLiveChannel, channel name:%s\n", __FILE__, __LINE__, content == nullptr ? "" : content);
    Internal::channel_attr* attr = m_internal->get_channel_attr_locked(content);
    return attr == nullptr ? -1 : attr->live_channel->UpdataLiveChannel(arg);
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
    {
        CGuard guard(m_internal->m_mutex);
        m_internal->m_closed = true;
        for (Internal::channel_comp& comp : m_internal->m_comp_list) {
            for (Internal::channel_attr& attr : comp.attr_list) {
                attr.live_channel->Close();
            }
            comp.data_src->Close();
        }
        m_internal->m_comp_list.clear();
    }
    CNetHandler::Close();
}

int CLiveSvr::handle_close(CNetHandler*) {
    let_go();
    return -1;
}

void CLiveSvr::keep() {
    m_internal->m_ref_count.fetch_add(1);
}

void CLiveSvr::let_go() {
    if (m_internal->m_ref_count.fetch_sub(1) == 1) {
        delete this;
    }
}

}  // namespace Vidora
}  // namespace Kavio
