#include "Vidora/LiveSvr.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "Tramel/MediaBuffer.h"
#include "Vidora/DataSource.h"
#include "Vidora/LiveChannel.h"

namespace Kavio {
namespace Vidora {

namespace {

// One published name.
struct channel_attr {
    std::string name;               // the content string up to the first "?"
    std::list<std::string> params;  // the parts of the query, in their order
    CLiveChannel* live_channel = nullptr;
    std::list<long> users;  // sinks now attached, as pointer values; null sinks too
};

// One source with the names that are published from it, never empty while it lives.
struct channel_comp {
    CDataSource* data_src = nullptr;
    std::list<channel_attr> attr_list;
};

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

template <typename Sink>
void enter_channel(channel_attr& attr, Sink* sink, packet_type_t packet_type) {
    CMediaBuffer* buffer = sink == nullptr ? nullptr : attr.live_channel->GetMediaBuffer(packet_type);
    if (buffer != nullptr) {
        attach(*buffer, sink);
    }
    attr.live_channel->StartStreaming(packet_type);
    attr.users.push_back(reinterpret_cast<long>(sink));
}

template <typename Sink>
void leave_channel(CLiveChannel& channel, Sink* sink, packet_type_t packet_type) {
    CMediaBuffer* buffer = sink == nullptr ? nullptr : channel.GetMediaBuffer(packet_type);
    if (buffer != nullptr) {
        detach(*buffer, sink);
    }
    channel.StopStreaming(packet_type);
}

}  // namespace

struct CLiveSvr::Internal {
    long m_notify_id = 0;  // constant after Create
    CMutex m_mutex;
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

// Splits a content string. The walk stops at the last character, not behind it, so that a last parameter of exactly one
// character is dropped; names and requests pass through here alike and agree.
void CLiveSvr::get_param(const char* content, std::string& name, std::list<std::string>& params) {
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
int CLiveSvr::string_list_cmpare(const std::list<std::string>& attr_params, const std::list<std::string>& req_params) {
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

// The entry that serves a content string, as a channel_attr; null if none does. Always called with the mutex held.
//
// Without parameters: the entry of that name with the fewest, the first of them. With parameters: the entry with
// exactly these, otherwise the last parameterless one of that name before any partial match. A partial match is never
// given itself, and hides parameterless entries behind it: hosts rely on this order.
VIDORA_NO_THREAD_SAFETY_ANALYSIS void* CLiveSvr::get_channel_attr(const char* content) {
    if (content == nullptr) {
        return nullptr;
    }
    std::string name;
    std::list<std::string> req;
    get_param(content, name, req);
    channel_attr* best = nullptr;
    int best_count = -1;
    for (channel_comp& comp : m_internal->m_comp_list) {
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
    channel_attr attr;
    get_param(channel_name, attr.name, attr.params);
    attr.live_channel = channel;

    CGuard guard(m_internal->m_mutex);
    for (channel_comp& comp : m_internal->m_comp_list) {
        if (comp.data_src == src) {
            comp.attr_list.push_back(std::move(attr));
            return 0;
        }
    }
    src->AddNotify(GetID());
    m_internal->m_comp_list.emplace_back();
    m_internal->m_comp_list.back().data_src = src;
    m_internal->m_comp_list.back().attr_list.push_back(std::move(attr));
    return 0;
}

int CLiveSvr::DelLiveChannel(const char* channel_name) {
    logInfo("%s:%d DelLiveChannel %s\n", __FILE__, __LINE__, channel_name == nullptr ? "" : channel_name);
    CGuard guard(m_internal->m_mutex);
    if (channel_name == nullptr) {
        logError("%s:%d parameter error, channel_name:%s\n", __FILE__, __LINE__, "");
        return -1;
    }
    std::string name;
    std::list<std::string> params;
    get_param(channel_name, name, params);
    std::list<channel_comp>& comps = m_internal->m_comp_list;
    for (auto comp = comps.begin(); comp != comps.end(); ++comp) {
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
            comps.erase(comp);
        }
        return 0;
    }
    logError("%s:%d do not find this channel name:%s\n", __FILE__, __LINE__, channel_name);
    return -1;
}

int CLiveSvr::QueryLiveChannel(const char* content) {
    CGuard guard(m_internal->m_mutex);
    return get_channel_attr(content) == nullptr ? -1 : 0;
}

CLiveChannel* CLiveSvr::GetLiveChannel(const char* content, long user) {
    CGuard guard(m_internal->m_mutex);
    channel_attr* attr = static_cast<channel_attr*>(get_channel_attr(content));
    if (attr == nullptr) {
        logError("%s:%d, get channel failed, channel_name =%s.\n", __FILE__, __LINE__,
                 content == nullptr ? "" : content);
        return nullptr;
    }
    attr->live_channel->AddRef(user);
    return attr->live_channel;
}

int CLiveSvr::EnterLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    if (content == nullptr) {
        return -1;
    }
    channel_attr* attr = static_cast<channel_attr*>(get_channel_attr(content));
    if (attr == nullptr) {
        logError("%s:%d EnterLiveChannel failed, this live channel beingless!channel_name=%s \n", __FILE__, __LINE__,
                 content);
        return -1;
    }
    enter_channel(*attr, sink, packet_type);
    return 0;
}

int CLiveSvr::EnterLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    if (content == nullptr) {
        return -1;
    }
    channel_attr* attr = static_cast<channel_attr*>(get_channel_attr(content));
    if (attr == nullptr) {
        logError("%s:%d EnterLiveChannel failed, this live channel beingless!,channel_name=%s \n", __FILE__, __LINE__,
                 content);
        return -1;
    }
    enter_channel(*attr, sink, packet_type);
    return 0;
}

// Takes a sink off its channel's list and gives the channel. User 0 gives the channel without a search, and so never
// takes a null user off.
CLiveChannel* CLiveSvr::remove_live_ch_user(const char* content, long user) {
    channel_attr* attr = static_cast<channel_attr*>(get_channel_attr(content));
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

int CLiveSvr::LeaveLiveChannel(const char* content, CMediaStreamSender* sink, packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    CLiveChannel* channel = remove_live_ch_user(content, reinterpret_cast<long>(sink));
    if (channel == nullptr) {
        logWarn("%s:%d LeaveLiveChannel failed, this live channel beingless!channel_name=%s \n", __FILE__, __LINE__,
                content == nullptr ? "" : content);
        return -1;
    }
    leave_channel(*channel, sink, packet_type);
    return 0;
}

int CLiveSvr::LeaveLiveChannel(const char* content, CLevel2Buffer_IF* sink, packet_type_t packet_type) {
    CGuard guard(m_internal->m_mutex);
    CLiveChannel* channel = remove_live_ch_user(content, reinterpret_cast<long>(sink));
    if (channel == nullptr) {
        logWarn("%s:%d LeaveLiveChannel failed, this live channel beingless!channel_name=%s \n", __FILE__, __LINE__,
                content == nullptr ? "" : content);
        return -1;
    }
    leave_channel(*channel, sink, packet_type);
    return 0;
}

int CLiveSvr::UpdataLiveChannel(const char* content, long arg) {
    CGuard guard(m_internal->m_mutex);
    logInfo("%s:%d UpdataLiveChannel, channel name:%s\n", __FILE__, __LINE__, content == nullptr ? "" : content);
    channel_attr* attr = static_cast<channel_attr*>(get_channel_attr(content));
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
        for (channel_comp& comp : m_internal->m_comp_list) {
            for (channel_attr& attr : comp.attr_list) {
                attr.live_channel->Close();
            }
            comp.data_src->Close();
        }
        m_internal->m_comp_list.clear();
    }
    CNetHandler::Close();
}

int CLiveSvr::handle_close(CNetHandler*) {
    delete this;
    return -1;
}

}  // namespace Vidora
}  // namespace Kavio
