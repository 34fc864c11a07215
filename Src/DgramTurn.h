#ifndef VIDORA_DGRAMTURN_H
#define VIDORA_DGRAMTURN_H

#include "DgramBatch.h"

namespace Kavio {
namespace Vidora {

// CDgramTurn: the datagrams that one turn of a receiver reads from its socket, one by one, also those that the system
// has joined (CSockDgram::JoinReceived). A few are asked for at first, as each that is asked for costs some and a small
// frame has no more; as many as came are followed by a batch. What is left then comes with the next event.
//
//     CDgramTurn turn(sock);
//     while (turn.Next(datagram)) use(datagram, turn.From());
//     if (turn.Failed()) ...
//
// A value of the thread; between two calls of Next nothing else reads into the batch.
class CDgramTurn {
public:
    static constexpr int FEW_DATAGRAMS = 8;

    explicit CDgramTurn(CSockDgram& sock) : m_batch(CDgramBatch::OfThread()), m_sock(sock) {}
    CDgramTurn(const CDgramTurn&) = delete;
    CDgramTurn& operator=(const CDgramTurn&) = delete;

    // False: no more, or the socket failed. The bytes are good until the next call; what is behind them may be those of
    // the next datagram.
    bool Next(DgramSlice& datagram);
    const CSockAddrStorage& From() const { return m_batch->From(m_index); }
    // The last read failed, with errno set, or memory is short.
    bool Failed() const { return m_count < 0; }
    // Nothing at all was there.
    bool IsEmpty() const { return m_reads == 1 && m_count == 0; }

private:
    bool read();

    CDgramBatch* const m_batch;  // null without memory
    CSockDgram& m_sock;
    int m_reads = 0;
    int m_count = 0;   // messages of the last read
    int m_index = -1;  // of the message in work
    unsigned int m_done = 0;
    bool m_more = false;  // the message in work has more datagrams
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_DGRAMTURN_H
