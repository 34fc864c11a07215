#ifndef VIDORA_RTSPCLIENT_CLIENTHANDLER_H
#define VIDORA_RTSPCLIENT_CLIENTHANDLER_H

#include "Tramel/Reactor.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CClientHandler: a handler whose reactor operations its parts may use: the strand that a client's link and
// conversation run on.
class CClientHandler : public CNetHandler {
public:
    using CNetHandler::DestroyTimer;
    using CNetHandler::Notify;
    using CNetHandler::RegisterSock;
    using CNetHandler::RemoveSock;
    using CNetHandler::SetTimer;
    using CNetHandler::UnregisterSock;

    // Its end waits for that of others: what they post arrives also while the thread pool stops.
    void CountAsEnding() { Tramel::CReactor::CountAsEnding(*this); }
    // Leads to handle_close.
    void EndHandler() { CNetHandler::Close(); }
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTHANDLER_H
