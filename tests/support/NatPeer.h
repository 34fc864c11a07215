#ifndef VIDORA_TESTS_SUPPORT_NATPEER_H
#define VIDORA_TESTS_SUPPORT_NATPEER_H

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "Nat/NatHello.h"
#include "Vidora/P2PClientSession.h"
#include "support/ClientHost.h"
#include "support/Interleave.h"
#include "support/ScriptedServer.h"
#include "support/UdpPeer.h"

namespace Kavio::Support {

// CNatPeer: the server's end of a NAT session: it answers hellos, and requests by what a test's CScriptedServer would
// say, as one datagram for the reply and one for each packet behind it.
//
// THREADING  The answer and `drops` run on its thread.
class CNatPeer {
public:
    typedef std::function<bool(const std::string& datagram, bool from_client)> drops_t;

    // `drops`: whether the network loses a datagram.
    explicit CNatPeer(CScriptedServer::answer_t answer, drops_t drops = nullptr)
        : m_answer(std::move(answer)), m_drops(std::move(drops)), m_thread([this] { run(); }) {}
    ~CNatPeer() {
        m_stops = true;
        m_thread.join();
    }

    int Port() const { return m_port; }
    std::string Url() const { return "rtsp://127.0.0.1:" + std::to_string(m_port) + "/stream"; }
    int Hellos() const { return m_hellos; }
    // To the client that was heard last, or to another port.
    void Send(const std::string& datagram) { SendTo(datagram, m_client_port); }
    void SendTo(const std::string& datagram, int port) {
        const std::lock_guard<std::mutex> guard(m_mutex);
        if (m_sock != nullptr) {
            m_sock->Send(datagram, port);
        }
    }
    std::vector<ServerRequest> Requests(const std::string& method) {
        std::vector<ServerRequest> found = m_requests.All();
        found.erase(std::remove_if(found.begin(), found.end(),
                                   [&method](const ServerRequest& request) { return request.method != method; }),
                    found.end());
        return found;
    }
    // A packet of CScriptedServer::Rtp as it is on the wire.
    static std::string Rtp(unsigned int sequence) { return CScriptedServer::Rtp(sequence).substr(4); }

private:
    void run() {
        while (!m_stops) {
            int port = 0;
            const std::string datagram = m_sock->Recv(20, &port);
            if (datagram.empty() || (m_drops && m_drops(datagram, true))) {
                continue;
            }
            m_client_port = port;
            if (Vidora::IsNatHello(datagram, Vidora::NAT_CLIENT_HELLO)) {
                ++m_hellos;
                reply(std::string(Vidora::NAT_SERVER_HELLO));
            } else if (!answer(ServerRequest::Read(datagram))) {
                break;
            }
        }
        const std::lock_guard<std::mutex> guard(m_mutex);
        m_sock.reset();
    }
    bool answer(const ServerRequest& request) {
        m_requests.Add(request);
        std::string answer = m_answer(request);
        if (answer == CScriptedServer::CLOSE) {
            return false;
        }
        for (const std::string& unit : TakeUnits(answer)) {
            reply(unit.substr(unit[0] == '$' ? 4 : 0));
        }
        return true;
    }
    void reply(const std::string& datagram) {
        if (!(m_drops && m_drops(datagram, false))) {
            Send(datagram);
        }
    }

    const CScriptedServer::answer_t m_answer;
    const drops_t m_drops;
    CGuardedList<ServerRequest> m_requests;
    std::mutex m_mutex;
    std::unique_ptr<CUdpPeer> m_sock = std::make_unique<CUdpPeer>();  // until it goes
    const int m_port = m_sock->Port();
    std::atomic<int> m_client_port{0};
    std::atomic<int> m_hellos{0};
    std::atomic<bool> m_stops{false};
    std::thread m_thread;
};

// An application with a NAT session.
class CNatHost : public TClientHost<Vidora::CP2PClientSession> {
public:
    int Start(const std::string& url) {
        const CBoundSocket bound(SOCK_DGRAM);
        port = bound.Port();
        sock = ::dup(bound.Fd());
        return StartBy(url, sock);
    }
    // Starts, and waits until it plays.
    bool Plays(const std::string& url) { return Start(url) == 0 && WaitFor(Vidora::MSG_RTSP_PLAY_READY); }

    int sock = -1;  // the session's after Start
    int port = 0;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_NATPEER_H
