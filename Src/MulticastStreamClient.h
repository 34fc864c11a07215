#ifndef VIDORA_SRC_MULTICASTSTREAMCLIENT_H
#define VIDORA_SRC_MULTICASTSTREAMCLIENT_H

#include <array>
#include <memory>
#include <thread>

#include "MulticastTrack.h"
#include "Tramel/CallWait.h"
#include "Vidora/MulticastStreamClient.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CMulticastStreamClient: see IMulticastStreamClient. The first track is the video or the transport stream, the second
// the audio.
//
// THREADING  m_mutex guards which tracks there are and who is in handle_input; it is held over no read and no callback,
//            and over no lock but the reactor's. A track that was taken out is detached first and then waited for, so
//            that after the wait the only thread that can be in it is the caller's own, below one of its callbacks.
// OWNERSHIP  Calls of the host are counted: the last one that leaves ends the client once Stop was called.
class CMulticastStreamClient final : public IMulticastStreamClient, public CNetHandler {
public:
    explicit CMulticastStreamClient(ClientType type) : m_client_type(type) {}

    void Stop() override { Close(); }
    int Start(const char* multicast_addr, int multicast_port, frame_proc_t proc,
              const multicast_track_info_t* info) override;

    int handle_input(int fd) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    static constexpr size_t TRACKS = 2;
    typedef std::shared_ptr<CMulticastTrack> track_ptr;

    ~CMulticastStreamClient() override = default;

    bool begin_call(bool stops);
    void end_call();
    int start(const char* multicast_addr, int multicast_port, const frame_proc_t& proc,
              const multicast_track_info_t* info);
    int check_kind(const multicast_track_info_t* info) const;
    int receive_at(size_t place, const CSockAddrIPv4& address, const track_ptr& track);
    int store(size_t place, const track_ptr& track);
    void drop(size_t place);
    void wait_for_turn();
    track_ptr enter(int fd);
    void leave();
    void end_all();
    std::array<track_ptr, TRACKS> tracks();

    const ClientType m_client_type;
    CMutex m_mutex;
    Tramel::CCallWait m_wait;  // used with m_mutex
    std::array<track_ptr, TRACKS> m_tracks VIDORA_GUARDED_BY(m_mutex);
    std::thread::id m_input_thread VIDORA_GUARDED_BY(m_mutex);  // none: nobody is in handle_input
    uint64_t m_turn VIDORA_GUARDED_BY(m_mutex) = 0;             // counts the calls of handle_input
    bool m_stopping VIDORA_GUARDED_BY(m_mutex) = false;
    int m_calls VIDORA_GUARDED_BY(m_mutex) = 0;  // of the host that run
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SRC_MULTICASTSTREAMCLIENT_H
