#ifndef VIDORA_RTSPOVERHTTPSESSIONMANAGER_H
#define VIDORA_RTSPOVERHTTPSESSIONMANAGER_H

#include <list>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "HttpIntake.h"
#include "RtspOverHttp/HttpTunnel.h"
#include "SessionRoll.h"
#include "StreamSource/LiveSvrRef.h"
#include "Vidora/Names.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

class CHttpParser;

// CRtspOverHttpSessionManager: pairs the two connections of RTSP tunnels by their cookies. A GET is answered, and waits
// for its POST until five seconds after it was accepted; the POST makes the session. A later POST with the cookie is
// offered to that session, if it comes from the address of the first one. Everything else is closed without a word.
//
// MEMORY     A waiting GET costs its descriptor and one record; a connection that has just come its first bytes, at
//            most 4096, too. Cookies have at most 255 characters, and only their first four are logged.
// THREADING  The operations of IHttpIntake: any thread; they only store what comes. All else runs on the manager's
//            strand, with no lock held. Sessions and manager notify one another by messages.
// OWNERSHIP  Owns the connections that wait. Ended with Close, which ends its sessions too.
class CRtspOverHttpSessionManager : public CNetHandler, public IHttpIntake {
public:
    explicit CRtspOverHttpSessionManager(const std::shared_ptr<CSessionRoll>& roll) : m_roll(roll) {}

    void SetLiveSvr(CLiveSvr* live_svr) override;
    void SetConfig(const CRtspSvrConfig& config) override;
    int add_connection(CSockStream* sock, const char* buf, int len, uint64_t deadline_us) override;

    int handle_input(int fd) override;
    int handle_input_timeout(int fd) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;
    void Stop() override;
    void Close() override;

private:
    // A connection with its first bytes.
    struct TArrival {
        std::unique_ptr<CSockStream> sock;
        std::unique_ptr<char[]> bytes;
        size_t length = 0;
        uint64_t deadline_us = 0;
    };
    // A tunnel: it waits for its POST, or has a session.
    struct SessionNode {
        std::unique_ptr<CSockStream> m_get_sock;  // while it waits
        uint64_t m_deadline_us = 0;
        std::shared_ptr<CHttpTunnel> m_tunnel;  // of the session
        long m_session_id = 0;
        std::string m_post_address;  // of the first POST
    };
    typedef std::map<std::string, SessionNode, std::less<>> nodes_t;

    ~CRtspOverHttpSessionManager() override = default;

    std::string_view get_reply();
    void take_arrivals();
    void drop_waiting();
    int handle_http_request(TArrival& arrival, const CHttpParser& parser);
    int take_get(TArrival& arrival, const CHttpParser& parser);
    int start_session(nodes_t::iterator place, TArrival& arrival, const CHttpParser& parser);
    int set_post_stream(SessionNode& node, TArrival& arrival, const CHttpParser& parser);
    int watch_get(nodes_t::iterator place);
    int drop_get(nodes_t::iterator place);

    const std::shared_ptr<CSessionRoll> m_roll;

    // The strand's.
    nodes_t m_sessions;                           // by cookie
    std::map<int, nodes_t::iterator> m_waiting;   // by the GET's handle
    std::map<long, nodes_t::iterator> m_running;  // by the session's identifier

    CMutex m_mutex;
    CLiveSvrRef m_live_svr VIDORA_GUARDED_BY(m_mutex);
    CRtspSvrConfig m_config VIDORA_GUARDED_BY(m_mutex);
    std::list<std::unique_ptr<TArrival>> m_arrivals VIDORA_GUARDED_BY(m_mutex);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPOVERHTTPSESSIONMANAGER_H
