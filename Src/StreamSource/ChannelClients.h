#ifndef VIDORA_STREAMSOURCE_CHANNELCLIENTS_H
#define VIDORA_STREAMSOURCE_CHANNELCLIENTS_H

#include <unordered_map>

#include "Vidora/Names.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// A sink of either kind, and the packet form that it gets.
struct ChannelSink {
    CMediaStreamSender* sender;
    CLevel2Buffer_IF* level2;
    packet_type_t packet_type;

    ChannelSink(CMediaStreamSender* sink, packet_type_t type) : sender(sink), level2(nullptr), packet_type(type) {}
    ChannelSink(CLevel2Buffer_IF* sink, packet_type_t type) : sender(nullptr), level2(sink), packet_type(type) {}

    const void* Key() const { return sender != nullptr ? static_cast<const void*>(sender) : level2; }
    // False if memory is short.
    bool Attach(CMediaBuffer& buffer) const;
    void Detach(CMediaBuffer& buffer) const;
};

// CChannelClients: who wants packets of a channel, by form: sinks that have entered, and starts without a sink. The two
// are counted apart, so that a stop that nobody owes takes no viewer's stream away.
//
// THREADING  None of its own: its owner guards it.
// OWNERSHIP  Borrows the sinks.
class CChannelClients {
public:
    int Count(packet_type_t packet_type) const { return m_calls[packet_type] + m_entered[packet_type]; }

    void Call(packet_type_t packet_type) { ++m_calls[packet_type]; }
    // Takes one start without a sink back. False if there is none.
    bool Uncall(packet_type_t packet_type);
    // False, with a log line, if memory is short.
    bool Enter(const ChannelSink& sink);
    bool Has(const void* sink) const { return m_sinks.find(sink) != m_sinks.end(); }
    // Takes the sink of that key off, the one of that form if it has entered several times. `left` says in which form
    // it stood. False if it hasn't entered.
    bool Leave(const void* key, ChannelSink& left);
    // Takes any sink off; false if there is none.
    bool LeaveAny(ChannelSink& left);

private:
    typedef std::unordered_multimap<const void*, ChannelSink> sinks_t;

    void take(sinks_t::iterator it, ChannelSink& left);

    int m_calls[PACKET_TYPE_NONE] = {};
    int m_entered[PACKET_TYPE_NONE] = {};
    sinks_t m_sinks;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_CHANNELCLIENTS_H
