#include "StreamSource/ChannelClients.h"

#include <new>

namespace Kavio {
namespace Vidora {

bool ChannelSink::Attach(CMediaBuffer& buffer) const {
    const CMediaBufferRef ref(&buffer);
    return sender != nullptr ? ref.Add(sender) : ref.Add(level2);
}

void ChannelSink::Detach(CMediaBuffer& buffer) const {
    sender != nullptr ? buffer.DelSender(sender) : buffer.DelLevel2Buffer(level2);
}

bool CChannelClients::Uncall(packet_type_t packet_type) {
    if (m_calls[packet_type] < 1) {
        return false;
    }
    --m_calls[packet_type];
    return true;
}

bool CChannelClients::Enter(const ChannelSink& sink) {
    try {
        m_sinks.emplace(sink.Key(), sink);
    } catch (const std::bad_alloc&) {
        logError("%s:%d no memory\n", __FILE__, __LINE__);
        return false;
    }
    ++m_entered[sink.packet_type];
    return true;
}

bool CChannelClients::Leave(const void* key, ChannelSink& left) {
    const auto range = m_sinks.equal_range(key);
    if (range.first == range.second) {
        return false;
    }
    auto found = range.first;
    for (auto it = range.first; it != range.second; ++it) {
        if (it->second.packet_type == left.packet_type) {
            found = it;
        }
    }
    take(found, left);
    return true;
}

bool CChannelClients::LeaveAny(ChannelSink& left) {
    if (m_sinks.empty()) {
        return false;
    }
    take(m_sinks.begin(), left);
    return true;
}

void CChannelClients::take(sinks_t::iterator it, ChannelSink& left) {
    left = it->second;
    m_sinks.erase(it);
    --m_entered[left.packet_type];
}

}  // namespace Vidora
}  // namespace Kavio
