#ifndef VIDORA_TRAMEL_SOCKSTREAM_H
#define VIDORA_TRAMEL_SOCKSTREAM_H

#include <memory>

#include "Vidora/Tramel/Sock.h"

namespace Kavio {
namespace Tramel {

class CStreamOutput;  // the one output queue of a stream socket; see StreamOutput.h

// CSockStream: a TCP (or local stream) socket.
//
// THREADING  The owner's thread. What its output queue sends goes out on any thread, also while the owner reads, and
//            has ended for this socket when Close or Detach returns.
class CSockStream : public CSock {
public:
    CSockStream();
    ~CSockStream() override;

    // Reads up to `len` bytes without blocking: the count; 0 when nothing is there just now; -1 when the connection is
    // closed or broken, an orderly close by the peer included.
    int Recv(char* buf, unsigned int len);
    // Sends what fits without blocking: the count, 0 if the socket is full, -1 if it is broken. Not to be mixed with a
    // sender that is attached to this socket.
    int Send(const char* buf, unsigned int len);
    // Starts a connection to `remote`, from `local` unless null. 0 when begun or done, -1 on failure. Register for
    // write and exception to learn the end.
    int Connect(const CSockAddr& remote, CSockAddr* local);
    // 0 connected, 1 in progress, -1 failed.
    int GetConnectStatus();
    // Asks for a send buffer of `bytes`. 0 or -1.
    int SetSockSendBuf(unsigned int bytes);
    // Lets the system break the connection, as if the peer had reset it, when the peer's system has not answered for
    // `seconds` (1 to 3600; others are brought into that range): it is probed while nothing else is under way (RFC 1122
    // 4.2.3.6). With `acknowledged`, what was sent must be acknowledged in that time as well (RFC 5482), or else in the
    // system's own, a quarter of an hour; a peer that lives but reads nothing for so long is cut then too. TCP only;
    // for the present descriptor. 0 or -1.
    int WatchPeer(unsigned int seconds, bool acknowledged);

    // The output queue of the present descriptor, made at the first call; null if memory is short. It lives until the
    // last of the socket and its senders ends, and fails silently when the descriptor is closed or given away: a
    // sender is then to be attached anew. For the senders only.
    std::shared_ptr<CStreamOutput> GetOutput();

protected:
    void OnRelease() override;
    void OnRegistered() override;

private:
    std::shared_ptr<CStreamOutput> m_output;
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_SOCKSTREAM_H
