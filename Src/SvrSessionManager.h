#ifndef VIDORA_SVRSESSIONMANAGER_H
#define VIDORA_SVRSESSIONMANAGER_H

#include <map>
#include <memory>

#include "SessionRoll.h"
#include "StreamSource/LiveSvrRef.h"
#include "Vidora/Names.h"
#include "Vidora/RtspSvr.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

class CLiveSvr;
class IHttpIntake;
class INatIntake;

// CSvrSessionManager: holds each new connection until its first bytes show what it is, and then makes the session.
//
// MEMORY     A connection costs one record with room for 512 bytes while it waits, and one with room for 4096, the size
//            of the largest request, once it has sent more than that. Five seconds after its beginning it is dropped,
//            whatever it has sent. Nothing is ever sent to the peer from here.
// THREADING  All operations: any thread. Making a session never waits: its first request is served on the session's own
//            strand, so that a slow one holds up neither the listener, nor the connections behind it, nor the caller.
// OWNERSHIP  Owns waiting connections; a session owns itself, and shares the roll. Ended with Close().
class CSvrSessionManager : public CNetHandler {
public:
    explicit CSvrSessionManager(INatIntake& nat_intake);

    void SetLiveSvr(CLiveSvr* live_svr);
    void SetConfig(const CRtspSvrConfig& config);

    // The sessions made here; null if memory was short at construction.
    const std::shared_ptr<CSessionRoll>& Roll() const { return m_roll; }
    // Drops the connections that wait, and makes no session any more.
    void Stop();

    // See CRtspSvr::AddNewConnect.
    int AddNewConnect(int fd, const char* buf, int len, long extra);
    // Takes a connection over that the listener has accepted. 0, or -1: stopped, or memory is short.
    int add_connection(CSockStream* sock);

    int handle_input(int fd) override;
    int handle_input_timeout(int fd) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    struct TNewConnection;
    typedef std::map<int, std::unique_ptr<TNewConnection>> connections_t;

    ~CSvrSessionManager() override;

    int add_stream(std::unique_ptr<CSockStream> sock, const char* buf, int len, long extra);
    int add_nat_stream(int fd, const char* peer, const nat_return_t& socket_return);
    int add_waiting_locked(std::unique_ptr<CSockStream>& sock, long extra) VIDORA_REQUIRES(m_mutex);
    void mark_locked(const CSockStream& sock) VIDORA_REQUIRES(m_mutex);
    int wait_for_rest_locked(connections_t::iterator it) VIDORA_REQUIRES(m_mutex);
    int drop_locked(connections_t::iterator it) VIDORA_REQUIRES(m_mutex);
    bool is_stopped();
    void hand_on_http(CSockStream* sock, const char* buf, int len, uint64_t deadline_us);
    void start_rtsp_session(CSockStream* sock, const char* buf, int len, long extra);

    INatIntake& m_nat_intake;
    const std::shared_ptr<CSessionRoll> m_roll;

    CMutex m_mutex;
    bool m_stopped VIDORA_GUARDED_BY(m_mutex) = false;
    CLiveSvrRef m_live_svr VIDORA_GUARDED_BY(m_mutex);
    CRtspSvrConfig m_config VIDORA_GUARDED_BY(m_mutex);
    connections_t m_connections VIDORA_GUARDED_BY(m_mutex);  // by socket handle
    IHttpIntake* m_http_manager VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRSESSIONMANAGER_H
