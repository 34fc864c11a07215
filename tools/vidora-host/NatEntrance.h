#ifndef VIDORA_HOST_NATENTRANCE_H
#define VIDORA_HOST_NATENTRANCE_H

#include <string>

#include "Vidora/RtspSvr.h"
#include "rendezvous/Rendezvous.h"

// NatEntrance: the way in for viewers on the other side of an address translation. It registers at a rendezvous, and
// hands the socket of each viewer that it meets to a server.
//
// THREADING  Viewers come on a thread of the rendezvous; a socket comes back on one of the library's.
class NatEntrance {
public:
    // `server` outlives the entrance.
    explicit NatEntrance(Kavio::Vidora::CRtspSvr& server) : m_server(server) {}

    // False if `point` has no address, or `name` is none.
    bool Open(const std::string& point, const std::string& name);
    // No viewer comes any more.
    void Close() { m_device.Stop(); }

private:
    void hand_in(const PunchedSocket& viewer);

    Kavio::Vidora::CRtspSvr& m_server;
    RendezvousDevice m_device;
};

#endif  // VIDORA_HOST_NATENTRANCE_H
