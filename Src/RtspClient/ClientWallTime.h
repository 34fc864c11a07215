#ifndef VIDORA_RTSPCLIENT_CLIENTWALLTIME_H
#define VIDORA_RTSPCLIENT_CLIENTWALLTIME_H

#include <cstdint>

namespace Kavio {
namespace Vidora {

class CClientConversation;

// Maps an RTP time stamp to the server's wall clock, see CRtspClientSession::GetWallTime. Any thread.
int ClientWallTime(CClientConversation& conversation, char kind, uint32_t rtp_timestamp, int64_t& utc_us);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTWALLTIME_H
