#ifndef VIDORA_RTSPCLIENT_HOSTRESOLVER_H
#define VIDORA_RTSPCLIENT_HOSTRESOLVER_H

#include <memory>
#include <string>

#include "RtspClient/ClientHandler.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CHostResolver: one look-up of a host name, on a thread of its own kind: the system's resolver can block for minutes,
// which no lock and no thread of the pool may wait for.
//
// At most 16 look-ups of the process run at once, others wait their turn. One that is given up and hasn't begun costs
// nothing; one that runs is left to its end, and reaches nobody.
//
// THREADING  One thread at a time; Result belongs to the one that gets the message.
class CHostResolver {
public:
    CHostResolver() = default;
    // Abandons the look-up.
    ~CHostResolver() { Cancel(); }
    CHostResolver(const CHostResolver&) = delete;
    CHostResolver& operator=(const CHostResolver&) = delete;

    // Looks `name` up; `msg` then comes to `handler` from itself. A numeric address comes the same way. 0, or -1 if
    // memory or threads are short.
    int Begin(CClientHandler& handler, unsigned int msg, const std::string& name);
    void Cancel();
    bool IsRunning() const { return m_job != nullptr; }
    // The address, port 0; invalid if the name has none. Ends the look-up.
    CSockAddrStorage Result();

    struct CJob;

private:
    std::shared_ptr<CJob> m_job;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_HOSTRESOLVER_H
