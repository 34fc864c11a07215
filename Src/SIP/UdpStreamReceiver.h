#ifndef VIDORA_SIP_UDPSTREAMRECEIVER_H
#define VIDORA_SIP_UDPSTREAMRECEIVER_H

#include <cstdint>
#include <memory>
#include <thread>

#include "LastDgram.h"
#include "Ostra/LogGate.h"
#include "SIP/SdpTrack.h"
#include "Tramel/CallWait.h"
#include "Tramel/SockDgram.h"
#include "Vidora/Names.h"
#include "Vidora/RTPUdpTransmiter.h"

namespace Kavio {
namespace Vidora {

class CDgramTurn;

// Who may send. The text is that of CSockAddrStorage::GetIpStr.
struct udp_stream_remote_t {
    static constexpr unsigned int MAX_IP_LEN = 64;

    char ip[MAX_IP_LEN] = "";  // empty: any
    int port = -1;             // -1: any
};

// CUdpStreamReceiver: the receiving direction of a single track: RTP packets from the socket, and frames to the host.
//
// Each Start begins a run with a number of its own. A turn of the strand takes datagrams for the run that it finds; as
// soon as another has begun, or none is left, it leaves the rest alone.
//
// THREADING  Any thread. m_mutex is held over reading and decoding, never over the host's callback, and no lock but the
//            reactor's own is taken under it. What ends or replaces a run doesn't wait for the callback: call
//            WaitForCall afterwards.
// OWNERSHIP  Shares the socket. Ends by Close and deletes itself on its strand.
class CUdpStreamReceiver final : public CNetHandler {
public:
    typedef IRTPUdpTransmiter::frame_proc_t frame_proc_t;

    // Null if memory is short.
    static CUdpStreamReceiver* Create();

    // False if the decoder can't be made.
    bool SetTrack(const CSdpTrack& track);
    void SetRemote(const udp_stream_remote_t& remote);
    // Takes another socket; the run ends. False after Shut.
    bool Attach(const std::shared_ptr<CSockDgram>& sock);
    // Begins a run with `proc`, once a callback of the former one has returned.
    bool Start(const frame_proc_t& proc);
    // Ends the run and releases the socket: its handle, or -1.
    int Detach();
    // The same for good.
    void Shut();
    // Waits for a callback that runs on another thread.
    void WaitForCall();
    void GetStatistics(RtpUdpStatistics& statistics);

    int handle_input(int fd) override;
    int handle_close(CNetHandler* handler) override;

private:
    // A callback that is due.
    struct call_t {
        frame_proc_t proc;
        Flumen::CMediaFrame frame;
    };

    CUdpStreamReceiver() = default;
    ~CUdpStreamReceiver() override = default;

    bool end_former(const frame_proc_t& proc);
    void end_run() VIDORA_REQUIRES(m_mutex);
    void release_sock() VIDORA_REQUIRES(m_mutex);
    std::shared_ptr<CSockDgram> find_run(int fd, uint64_t& run);
    bool next_call(CDgramTurn& turn, uint64_t run, call_t& call);
    void end_call(call_t& call) VIDORA_REQUIRES(m_mutex);
    bool take(const DgramSlice& datagram, const CSockAddrStorage& from) VIDORA_REQUIRES(m_mutex);
    bool look_at_end(const CDgramTurn& turn, call_t& call) VIDORA_REQUIRES(m_mutex);
    bool is_wanted(const CSockAddrStorage& from) VIDORA_REQUIRES(m_mutex);
    bool has_right_form(const DgramSlice& datagram) const VIDORA_REQUIRES(m_mutex);
    int process_data(const DgramSlice& datagram) VIDORA_REQUIRES(m_mutex);
    bool begin_call(call_t& call) VIDORA_REQUIRES(m_mutex);
    void mark_call(call_t& call) VIDORA_REQUIRES(m_mutex);

    CMutex m_mutex;
    CStreamParserPtr m_parser VIDORA_GUARDED_BY(m_mutex);
    uint8_t m_payload_type VIDORA_GUARDED_BY(m_mutex) = 0;
    std::shared_ptr<CSockDgram> m_sock VIDORA_GUARDED_BY(m_mutex);
    bool m_joins VIDORA_GUARDED_BY(m_mutex) = false;  // the system joins what the socket receives
    bool m_shut VIDORA_GUARDED_BY(m_mutex) = false;
    udp_stream_remote_t m_remote VIDORA_GUARDED_BY(m_mutex);
    CSockAddrStorage m_known VIDORA_GUARDED_BY(m_mutex);  // the last sender that was accepted
    CLastDgram m_last VIDORA_GUARDED_BY(m_mutex);
    RtpUdpStatistics m_statistics VIDORA_GUARDED_BY(m_mutex);
    Ostra::CLogGate m_log VIDORA_GUARDED_BY(m_mutex);

    frame_proc_t m_proc VIDORA_GUARDED_BY(m_mutex);
    uint64_t m_run VIDORA_GUARDED_BY(m_mutex) = 0;        // its number, 0: none
    uint64_t m_run_count VIDORA_GUARDED_BY(m_mutex) = 0;  // runs so far

    Tramel::CCallWait m_wait;  // used with m_mutex
    bool m_calling VIDORA_GUARDED_BY(m_mutex) = false;
    uint64_t m_call_count VIDORA_GUARDED_BY(m_mutex) = 0;
    std::thread::id m_call_thread VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SIP_UDPSTREAMRECEIVER_H
