#ifndef VIDORA_MEDIAROUTE_H
#define VIDORA_MEDIAROUTE_H

#include <cstdint>

#include "Protocol/RtspInfo.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CLiveChannel;
struct CTrack;

// Which silence ends a session.
enum silence_rule_t {
    SILENCE_OF_CONTROL,  // that of the control connection
    SILENCE_OF_BOTH,     // when the UDP peer has been silent as well
    SILENCE_OF_NONE
};

// IMediaRoute: how the media of a conversation leave: over its control connection, over UDP sockets of its own, or from
// the channel's own sockets.
//
// SetUp comes first, for each track; then the route enters a live channel or a buffer, at most one at a time. It holds
// the sink that is stored there, which stays until the matching Leave.
//
// THREADING  The conversation's strand. The sinks lock for themselves.
// OWNERSHIP  Owns its sink; it borrows the place, and has left it before it dies.
class IMediaRoute {
public:
    virtual ~IMediaRoute() = default;

    // Makes the way for one track, with `channel` its interleaved channel by the source, and completes `transport` for
    // the reply to SETUP. 0; a status to refuse with; or -1 if there is no reply to send.
    virtual int SetUp(const CTrack& track, int channel, transport_info& transport) = 0;
    // The group that the reply to SETUP has to name; null for none.
    virtual const multicast_info* Group() const { return nullptr; }
    // Lets the packets of a track that was set up pass, or not.
    virtual void Switch(const CTrack& track, bool on) = 0;
    // Stops the packets of a track; once it is switched on again they go on with a key frame, where the route can find
    // one.
    virtual void Pause(const CTrack& track) { Switch(track, false); }

    // Is stored in a live channel, which a reference is held on, and which is started for it; and no longer. 0 or -1.
    virtual int EnterLive(CLiveChannel& channel, packet_type_t type) = 0;
    virtual void LeaveLive(CLiveChannel& channel, packet_type_t type) = 0;
    // The same for the buffer of a session's own source, which somebody else starts.
    virtual int EnterBuffer(CMediaBuffer& buffer) = 0;
    virtual void LeaveBuffer(CMediaBuffer& buffer) = 0;

    // The rule for a session whose media leave here. A UDP peer is watched from now on: after `timeout_s` seconds of
    // its silence MSG_KEEPALIVE_TIMEOUT goes to `handler_id`.
    virtual silence_rule_t Watch(long handler_id, int timeout_s) = 0;
    // Sends an RTCP packet of the given channel. 0 or -1.
    virtual int SendReport(const unsigned char* report, unsigned int length, int channel) = 0;
    // About how many bytes the client's system hasn't taken yet.
    virtual uint64_t Unsent() { return 0; }
};

// Channels that a route can carry: those of eight tracks.
const int MAX_ROUTE_CHANNEL = 15;

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MEDIAROUTE_H
