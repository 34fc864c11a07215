#ifndef VIDORA_RTSPCLIENT_CLIENTPORTS_H
#define VIDORA_RTSPCLIENT_CLIENTPORTS_H

#include "RtspClient/ClientTracks.h"

namespace Kavio {
namespace Vidora {

// The UDP sockets of a client's tracks. None of them is connected: what counts is decided by the sender's address.
//
// THREADING  The strand. Of the two ends `peer` and `local` are those of the control connection.

// Opens a free pair of ports for unicast, searching from a random place of 20000 to 39999 through all of them. 0, or
// -1 with a log line.
int OpenClientPorts(client_track& track, const CSockAddrStorage& peer);
// Follows the server's answer to a unicast SETUP: other client ports than asked, its own ports, the source that it
// names. Media may come from there and from the peer: a server behind a NAT names the address that it has itself.
// `reports`: receiver reports go to that source, and not to the peer.
void FollowUnicastReply(client_track& track, const transport_info& reply, const CSockAddrStorage& source,
                        const CSockAddrStorage& peer, bool reports);
// Joins the group that the server's answer names, or the one that was asked for, on the interface of the control
// connection, and where the system's routes point as well if the server is on this host. `reports`: receiver reports
// go to the group (RFC 3550 6). 0, or -1 with a log line.
int JoinGroup(client_track& track, const transport_info& reply, const multicast_info& group,
              const CSockAddrStorage& source, const CSockAddrStorage& peer, const CSockAddrStorage& local,
              bool reports);

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTPORTS_H
