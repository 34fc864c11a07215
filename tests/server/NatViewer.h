#ifndef VIDORA_TESTS_SERVER_NATVIEWER_H
#define VIDORA_TESTS_SERVER_NATVIEWER_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "Vidora/RtspSvr.h"
#include "support/TestHandler.h"
#include "support/UdpPeer.h"

namespace Kavio::Vidora {

const char CLIENT_HELLO[] = "RTSP Client/2.0 NAT";
const char SERVER_HELLO[] = "RTSP Server/2.0 NAT";

// CNatViewer: a viewer's socket, and the host's, which a server takes over and gives back here.
class CNatViewer {
public:
    CNatViewer() {
        const Support::CBoundSocket host(SOCK_DGRAM);
        m_host_port = host.Port();
        m_host_fd = dup(host.Fd());
    }
    // Waits for the socket, also in a test that has failed: a session's silence ends it.
    ~CNatViewer() {
        if (m_handed_in > 0) {
            EXPECT_TRUE(Support::WaitUntil([this] { return m_returns == m_handed_in; }, 60000));
            close(m_host_fd);
        }
    }
    CNatViewer(const CNatViewer&) = delete;

    // What AddNewConnect gives; `peer` empty stands for this viewer's address.
    int HandIn(CRtspSvr& svr, const std::string& peer = "") {
        NatConnectRecord record;
        record.on_return = nat_return_t(this, &CNatViewer::on_return);
        const std::string text = peer.empty() ? "127.0.0.1:" + std::to_string(m_sock->Port()) : peer;
        ++m_handed_in;  // it may come back before the call returns
        const int result =
            svr.AddNewConnect(m_host_fd, text.c_str(), static_cast<int>(text.size()), reinterpret_cast<long>(&record));
        m_handed_in -= result == 0 ? 0 : 1;
        return result;
    }

    void Send(const std::string& datagram) { m_sock->Send(datagram, m_host_port); }
    // The next datagram that is media, or one that is not.
    std::string Packet() { return next(true); }
    std::string Text() { return next(false); }
    std::string Ask(const std::string& method, const std::string& url, const std::string& headers = "") {
        m_last_request = method + " " + url + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_cseq) + "\r\n" + m_session +
                         headers + "\r\n";
        const std::string reply = Repeat();
        const size_t at = reply.find("Session:");
        m_session = at == std::string::npos ? m_session : reply.substr(at, reply.find("\r\n", at) + 2 - at);
        return reply;
    }
    // The reply to the last request, sent once more.
    std::string Repeat() {
        Send(m_last_request);
        return Text();
    }
    // Says hello, and gives whether it was answered: the server says hello of itself as well, once.
    bool Greet() {
        Send(CLIENT_HELLO);
        return Text() == SERVER_HELLO;
    }
    // Closes the viewer's socket: its system refuses what the server sends.
    void Leave() { m_sock.reset(); }
    // Whether the server has read all that was sent to it.
    bool IsRead() const {
        int unread = 0;
        return ioctl(m_host_fd, FIONREAD, &unread) == 0 && unread == 0;
    }

    // DESCRIBE, SETUP of the first track and PLAY; whether all were answered with 200.
    bool Play(const std::string& url) {
        const std::string transport = "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
        return IsOk(Ask("DESCRIBE", url)) && IsOk(Ask("SETUP", url + "/trackID=0", transport)) &&
               IsOk(Ask("PLAY", url));
    }
    static bool IsOk(const std::string& reply) { return reply.compare(0, 12, "RTSP/1.0 200") == 0; }

    // How often the socket came back; its descriptor is free to be used when that is above 0.
    int Returns() const { return m_returns; }
    // Whether it came back as it was, but non-blocking.
    bool IsAsItWas() const {
        sockaddr_in local = {};
        socklen_t length = sizeof(local);
        return m_ok && (fcntl(m_host_fd, F_GETFL) & O_NONBLOCK) != 0 &&
               getsockname(m_host_fd, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
               ntohs(local.sin_port) == m_host_port &&
               getpeername(m_host_fd, reinterpret_cast<sockaddr*>(&local), &length) < 0;
    }
    // Lets the host's socket send nowhere, or to this viewer again, while the session uses it: by bare system calls,
    // as ThreadSanitizer takes any other for a new descriptor.
    void Connect(bool on) {
        sockaddr_in peer = Support::LoopbackAddress(m_sock->Port());
        peer.sin_family = on ? AF_INET : AF_UNSPEC;
        EXPECT_EQ(0, syscall(SYS_connect, m_host_fd, &peer, sizeof(peer)));
        const sockaddr_in local = Support::LoopbackAddress(m_host_port);  // the system has taken the port away
        EXPECT_TRUE(on || syscall(SYS_bind, m_host_fd, &local, sizeof(local)) == 0);
    }
    int HostFd() const { return m_host_fd; }
    int HostPort() const { return m_host_port; }

    std::function<void()> on_came_back;

private:
    void on_return(int kind, void* data, int size) {
        m_ok = kind == NAT_SOCKET_RETURN && size == 4 && *static_cast<int*>(data) == m_host_fd;
        if (on_came_back) {
            on_came_back();
        }
        ++m_returns;
    }
    std::string next(bool media) {
        for (;;) {
            const std::string datagram = m_sock->Recv(20000);
            if (datagram.empty() || (datagram.compare(0, 4, "RTSP") != 0) == media) {
                return datagram;
            }
        }
    }

    std::unique_ptr<Support::CUdpPeer> m_sock = std::make_unique<Support::CUdpPeer>();
    int m_host_port;
    int m_host_fd;
    int m_cseq = 0;
    std::string m_session;  // the header, once there is one
    std::string m_last_request;
    std::atomic<bool> m_ok{false};
    std::atomic<int> m_handed_in{0};
    std::atomic<int> m_returns{0};
};

}  // namespace Kavio::Vidora

#endif  // VIDORA_TESTS_SERVER_NATVIEWER_H
