#ifndef VIDORA_SVRSESSIONMANAGER_H
#define VIDORA_SVRSESSIONMANAGER_H

#include <map>

#include "StreamSource/LiveSvrRef.h"
#include "Vidora/Names.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

class CLiveSvr;
class IHttpIntake;

// CSvrSessionManager: holds each new connection until its first bytes tell what it is, and then makes the session.
//
// A connection costs one record of fixed size while it waits: at most 512 bytes are read, and 5 seconds without a byte
// end it. Nothing is ever sent to the peer from here.
//
// THREADING  All operations: any thread. Making a session never waits: its first request is served on the session's own
//            strand, so that a slow one holds up neither the listener, nor the connections behind it, nor the caller.
// OWNERSHIP  Owns waiting connections; a session owns itself. Ended with Close().
class CSvrSessionManager : public CNetHandler {
public:
    CSvrSessionManager();

    void SetLiveSvr(CLiveSvr* live_svr);
    void SetConfig(const CRtspSvrConfig& config);
    // Address family of the listener: 1 IPv4, 2 IPv6.
    void set_ip_type(int ip_type);

    // See CRtspSvr::AddNewConnect.
    int AddNewConnect(int fd, const char* buf, int len, long extra);
    // Takes a connection over that the listener has accepted. 0, or -1 if memory is short.
    int add_connection(CSockStream* sock);

    int handle_input(int fd) override;
    int handle_input_timeout(int fd) override;
    int handle_close(CNetHandler* handler) override;
    void Close() override;

private:
    static const int MAX_REQUEST_LEN = 512;

    // A connection whose kind isn't known yet.
    struct TNewConnection {
        CSockStream* sock;
        char buf[MAX_REQUEST_LEN + 4];  // zeroed, so that it stays NUL-terminated
        int len;
        long extra;  // of AddNewConnect; a pointer is not looked at again
    };
    typedef std::map<int, TNewConnection*> connections_t;

    ~CSvrSessionManager() override;

    int add_nat_stream(int fd, const char* buf, const int (&values)[4]);
    int add_waiting_locked(CSockStream* sock, long extra) VIDORA_REQUIRES(m_mutex);
    void mark_locked(CSockStream* sock) VIDORA_REQUIRES(m_mutex);
    int remove_locked(connections_t::iterator it) VIDORA_REQUIRES(m_mutex);
    void hand_on(CSockStream* sock, const char* buf, int len, bool http, long extra);
    void start_rtsp_session(CSockStream* sock, const char* buf, int len, long extra);

    CMutex m_mutex;
    CLiveSvrRef m_live_svr VIDORA_GUARDED_BY(m_mutex);
    CRtspSvrConfig m_config VIDORA_GUARDED_BY(m_mutex);
    int m_ip_type VIDORA_GUARDED_BY(m_mutex) = 2;
    connections_t m_connections VIDORA_GUARDED_BY(m_mutex);  // by socket handle
    IHttpIntake* m_http_manager VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRSESSIONMANAGER_H
