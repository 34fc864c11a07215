// A channel's making, its clients, its references and its end.
#include <new>

#include "StreamSource/LiveChannelState.h"

namespace Kavio {
namespace Vidora {

namespace {

bool is_packet_type(packet_type_t type) {
    return type >= PACKET_TYPE_RTP && type <= PACKET_TYPE_TS;
}

bool is_transf_type(transf_type_t type) {
    return type == TRANSF_TYPE_RTP || type == TRANSF_TYPE_TS;
}

bool can_stream(const std::shared_ptr<CChannelFeed>& feed, packet_type_t packet_type) {
    if (feed == nullptr) {
        logError("%s:%d do not have data source\n", __FILE__, __LINE__);
    } else if (!is_packet_type(packet_type)) {
        logError("%s:%d nonsupport this packet type[%d] \n", __FILE__, __LINE__, packet_type);
    } else {
        return true;
    }
    return false;
}

}  // namespace

CLiveChannel* CLiveChannel::Create() {
    CLiveChannel* channel = new (std::nothrow) CLiveChannel;
    const bool is_whole = channel != nullptr && channel->m_internal != nullptr &&
                          channel->m_internal->m_buffers != nullptr && channel->GetID() != 0;
    if (!is_whole) {
        delete channel;
        return nullptr;
    }
    return channel;
}

CLiveChannel::CLiveChannel() : m_internal(new (std::nothrow) Internal) {
    if (m_internal == nullptr) {
        return;
    }
    try {
        m_internal->m_buffers = std::make_shared<ChannelBuffers>();
    } catch (const std::bad_alloc&) {
        return;
    }
    for (CMediaBuffer& buffer : m_internal->m_buffers->buffer) {
        buffer.EnableAutoSend();
    }
}

CLiveChannel::~CLiveChannel() {
    if (m_internal != nullptr) {
        logInfo("%s:%d ~CLiveChannel(), channel_name:%s \n", __FILE__, __LINE__, m_internal->m_channel_name.Get());
    }
    delete m_internal;
}

void CLiveChannel::SetConfig(const CRtspSvrConfig& config) {
    CGuard guard(m_internal->m_mutex);
    m_internal->m_config = config;
    m_internal->m_unicast_sdp = nullptr;  // the next client gets a new one
}

int CLiveChannel::Init(const char* channel_name, long notify_id, transf_type_t transf_type) {
    if (channel_name == nullptr || !is_transf_type(transf_type)) {
        logError("%s:%d nonsupport this transf type[%d] \n", __FILE__, __LINE__, transf_type);
        return -1;
    }
    CGuard guard(m_internal->m_mutex);
    if (transf_type != m_internal->m_transf_type && !m_internal->m_multicast.IsEmpty()) {
        logError("%s:%d channel_name:%s has destinations of another type\n", __FILE__, __LINE__, channel_name);
        return -1;
    }
    if (!m_internal->m_channel_name.Set(channel_name)) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return -1;
    }
    m_internal->m_notify_id = notify_id;
    m_internal->m_transf_type = transf_type;
    m_internal->m_unicast_sdp = nullptr;
    return 0;
}

// Clients.

CMediaBuffer* CLiveChannel::GetMediaBuffer(packet_type_t packet_type) {
    if (!is_packet_type(packet_type)) {
        logError("%s:%d do nonsupport this packet type, packet_type:%d\n", __FILE__, __LINE__, packet_type);
        return nullptr;
    }
    return &m_internal->m_buffers->buffer[packet_type];
}

void CLiveChannel::Internal::count_locked(packet_type_t packet_type, bool joined) {
    if (m_feed != nullptr) {
        m_feed->SetClients(packet_type, m_clients.Count(packet_type), joined);
    }
}

int CLiveChannel::StartStreaming(packet_type_t packet_type) {
    std::shared_ptr<CChannelFeed> feed;
    {
        CGuard guard(m_internal->m_mutex);
        feed = m_internal->m_feed;
        if (!can_stream(feed, packet_type)) {
            return -1;
        }
        m_internal->m_clients.Call(packet_type);
        m_internal->count_locked(packet_type, true);
    }
    const int result = feed->Settle() ? feed->StartResult(packet_type) : 0;
    if (result < 0) {  // the caller won't stop what it couldn't start
        CGuard guard(m_internal->m_mutex);
        m_internal->uncall_locked(packet_type);
    }
    return result;
}

int CLiveChannel::StopStreaming(packet_type_t packet_type) {
    std::shared_ptr<CChannelFeed> feed;
    {
        CGuard guard(m_internal->m_mutex);
        feed = m_internal->m_feed;
        // What was started before the source was taken away is counted out as well.
        const bool counted = is_packet_type(packet_type) && m_internal->uncall_locked(packet_type);
        if (!can_stream(feed, packet_type) || !counted) {
            return -1;
        }
    }
    return feed->Settle() ? feed->StopResult(packet_type) : 0;
}

// Takes back one start without a sink. False if there is none: nobody ends what others have started.
bool CLiveChannel::Internal::uncall_locked(packet_type_t packet_type) {
    if (!m_clients.Uncall(packet_type)) {
        return false;
    }
    count_locked(packet_type, false);
    return true;
}

int CLiveChannel::Enter(CMediaStreamSender* sink, packet_type_t packet_type) {
    return m_internal->enter(ChannelSink(sink, packet_type));
}

int CLiveChannel::Enter(CLevel2Buffer_IF* sink, packet_type_t packet_type) {
    return m_internal->enter(ChannelSink(sink, packet_type));
}

int CLiveChannel::Leave(CMediaStreamSender* sink, packet_type_t packet_type) {
    return m_internal->leave(ChannelSink(sink, packet_type));
}

int CLiveChannel::Leave(CLevel2Buffer_IF* sink, packet_type_t packet_type) {
    return m_internal->leave(ChannelSink(sink, packet_type));
}

// A client counts also while the channel has no source, or one that doesn't start: it may have another one later. The
// sink is put into the list first: what can fail for want of memory comes before what has an effect.
int CLiveChannel::Internal::enter(const ChannelSink& sink) {
    std::shared_ptr<CChannelFeed> to_settle;
    {
        CGuard guard(m_mutex);
        if (m_closed || !is_packet_type(sink.packet_type)) {
            return -1;
        }
        if (sink.Key() == nullptr) {
            m_clients.Call(sink.packet_type);
        } else if (!enter_sink_locked(sink)) {
            return -1;
        }
        count_locked(sink.packet_type, true);
        to_settle = m_feed;
    }
    if (can_stream(to_settle, sink.packet_type)) {
        to_settle->Settle();
    }
    return 0;
}

// False, with nothing left behind, if memory is short.
bool CLiveChannel::Internal::enter_sink_locked(const ChannelSink& sink) {
    if (!m_clients.Enter(sink)) {
        return false;
    }
    if (sink.Attach(m_buffers->buffer[sink.packet_type])) {
        return true;
    }
    ChannelSink left = sink;
    m_clients.Leave(sink.Key(), left);
    return false;
}

int CLiveChannel::Internal::leave(const ChannelSink& sink) {
    ChannelSink left = sink;  // it leaves the form in which it has entered
    std::shared_ptr<CChannelFeed> to_settle;
    {
        CGuard guard(m_mutex);
        if (!is_packet_type(sink.packet_type) || (sink.Key() != nullptr && !m_clients.Leave(sink.Key(), left))) {
            return -1;
        }
        if (sink.Key() == nullptr) {
            m_clients.Uncall(sink.packet_type);
        }
        count_locked(left.packet_type, false);
        to_settle = m_feed;
    }
    if (left.Key() != nullptr) {
        left.Detach(m_buffers->buffer[left.packet_type]);
    }
    if (to_settle != nullptr) {
        to_settle->Settle();
    }
    return 0;
}

bool CLiveChannel::has_entered(const void* sink) {
    CGuard guard(m_internal->m_mutex);
    return m_internal->m_clients.Has(sink);
}

// References, messages and the end.

int CLiveChannel::AddRef(long user) {
    CGuard guard(m_internal->m_ref_mutex);
    if (m_internal->m_close_flag || !m_internal->m_users.Append(user)) {
        return -1;
    }
    ++m_internal->m_ref_cont;
    return 0;
}

// A reference that nobody had is given back all the same, so the count may be below 0; it mustn't be that of a user who
// still has one.
bool CLiveChannel::Internal::can_leave_locked() {
    return m_close_flag && m_ref_cont <= 0 && m_users.IsEmpty() && m_holds == 0;
}

int CLiveChannel::DelRef(long user) {
    CGuard guard(m_internal->m_ref_mutex);
    --m_internal->m_ref_cont;
    logInfo("%s:%d, m_ref_cont = %d\n", __FILE__, __LINE__, m_internal->m_ref_cont);
    m_internal->m_users.Remove(user);
    const bool last = m_internal->can_leave_locked();
    if (last) {
        logInfo("%s:%d, start to close,name=%s.\n", __FILE__, __LINE__, m_internal->m_channel_name.Get());
    }
    guard.Leave();
    if (last) {
        CNetHandler::Close();
    }
    return 0;
}

void CLiveChannel::hold() {
    CGuard guard(m_internal->m_ref_mutex);
    ++m_internal->m_holds;
}

void CLiveChannel::release() {
    CGuard guard(m_internal->m_ref_mutex);
    --m_internal->m_holds;
    const bool last = m_internal->can_leave_locked();
    guard.Leave();
    if (last) {
        CNetHandler::Close();
    }
}

int CLiveChannel::handle_message(long, unsigned int msg, long) {
    switch (msg) {
        case MSG_SRC_READY:  // the first readiness reaches the sessions as an update too
        case MSG_SDP_UPDATE: {
            const std::shared_ptr<CChannelFeed> feed = m_internal->feed();
            if (feed == nullptr) {
                notify_session(MSG_SDP_UPDATE);
                break;
            }
            feed->WantDescription(true);
            feed->Settle();
            break;
        }
        case MSG_CHANNEL_DESCRIBED:
            m_internal->follow_tracks();
            notify_session(MSG_SDP_UPDATE);
            break;
        case MSG_PLAY_READY:  // the channel started the source itself
            break;
        default:
            Notify(m_internal->m_notify_id, msg, reinterpret_cast<long>(m_internal->m_channel_name.Get()));
            break;
    }
    return 0;
}

void CLiveChannel::notify_session(unsigned int msg) {
    CGuard guard(m_internal->m_ref_mutex);
    for (const long user : m_internal->m_users) {
        Notify(user, msg, reinterpret_cast<long>(m_internal->m_channel_name.Get()));
    }
}

// The delayed close: sessions are told, and the last one to leave finishes it. The source is not closed here, the
// registry does that; but all that the channel has started there is undone.
void CLiveChannel::Close() {
    std::shared_ptr<CChannelFeed> feed;
    {
        CGuard guard(m_internal->m_mutex);
        if (m_internal->m_closed) {
            return;
        }
        m_internal->m_closed = true;
        m_internal->close_multicast_locked();
        feed.swap(m_internal->m_feed);
    }
    {
        CGuard guard(m_internal->m_ref_mutex);
        m_internal->m_close_flag = true;
        ++m_internal->m_holds;  // sessions may leave before the source has stopped
        notify_session(MSG_SRC_END);
        logInfo(
            m_internal->m_ref_cont == 0 ? "%s:%d, close live channel, name=%s.\n" : "%s:%d, set close flag, name=%s.\n",
            __FILE__, __LINE__, m_internal->m_channel_name.Get());
    }
    Internal::leave_source(feed, GetID());
    release();
}

// The buffers may be kept by a call that is still inside the source; sinks that never left are taken off.
int CLiveChannel::handle_close(CNetHandler*) {
    ChannelSink left(static_cast<CLevel2Buffer_IF*>(nullptr), PACKET_TYPE_NONE);
    while (m_internal->take_any_sink(left)) {
        left.Detach(m_internal->m_buffers->buffer[left.packet_type]);
    }
    delete this;
    return 0;
}

bool CLiveChannel::Internal::take_any_sink(ChannelSink& left) {
    CGuard guard(m_mutex);
    return m_clients.LeaveAny(left);
}

}  // namespace Vidora
}  // namespace Kavio
