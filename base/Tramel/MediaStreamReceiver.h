#ifndef VIDORA_TRAMEL_MEDIASTREAMRECEIVER_H
#define VIDORA_TRAMEL_MEDIASTREAMRECEIVER_H

#include <atomic>
#include <cstdint>

#include "Vidora/Tramel/NetHandler.h"

namespace Kavio {
namespace Tramel {

// CMediaStreamReceiver: base of the receivers of media streams. It starts and stops reading and reports a failed input
// to one handler. While it isn't receiving, input events don't reach it.
//
// THREADING  StartReceive, StopReceive, WaitException, Close: any thread. The other operations run as callbacks of this
//            handler. A derived class registers the sockets itself, before StartReceive or behind it.
class CMediaStreamReceiver : public CNetHandler {
public:
    CMediaStreamReceiver();

    void Close() override;

    // Input is ready: reads and handles it. The number of units handled, or negative on failure: receiving then stops,
    // and message 2 goes to the handler of WaitException, once. The base returns 0.
    virtual int handle_stream_input();
    // Passive reading: called every period of StartReceive. 0 to go on, negative on failure, with the same consequence.
    // The base returns 0.
    virtual int64_t handle_passive_input();
    // Writing is possible. The base returns 0.
    virtual int handle_stream_write();

    // Begins to receive. `period_us` above 0: handle_passive_input is called that often; 0: by events only. `speed` is
    // kept for derived classes.
    void StartReceive(int64_t period_us, float speed);
    void StopReceive();
    // Message 2 goes to that handler when the input fails.
    void WaitException(long handler_id);

    int handle_input(int fd) override;
    int handle_output(int fd) override;
    int64_t handle_timeout(long timer_id) override;

protected:
    ~CMediaStreamReceiver() override;

    // The socket that handle_stream_input is called for.
    int input_fd() const { return m_input_fd; }

private:
    void fail();

    int m_input_fd = -1;  // of the strand
    std::atomic<long> m_exception_id{0};
    std::atomic<long> m_timer_id{0};
    std::atomic<bool> m_receiving{false};
    std::atomic<float> m_speed{1.0F};
};

}  // namespace Tramel
}  // namespace Kavio

#endif  // VIDORA_TRAMEL_MEDIASTREAMRECEIVER_H
