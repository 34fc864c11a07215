#ifndef VIDORA_TESTS_SUPPORT_SCRIPTEDSERVER_H
#define VIDORA_TESTS_SUPPORT_SCRIPTEDSERVER_H

#include <atomic>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/GuardedList.h"
#include "support/Loopback.h"

namespace Kavio::Support {

// A request as it came.
struct ServerRequest {
    std::string method;
    std::string url;
    std::string cseq;
    std::string text;
    int connection = 0;  // from 0

    static ServerRequest Read(const std::string& text);
    // Where the client wants RTP by UDP; 0: nowhere.
    int ClientPort() const;
};

// CScriptedServer: an RTSP server on the loopback address that answers what a test tells it to: it knows nothing of the
// protocol but where a request ends. Media that a client sends in between is passed over.
//
// THREADING  The answer runs on the threads of the connections.
class CScriptedServer {
public:
    // The bytes to send; empty: nothing at all; CLOSE: ends the connection.
    typedef std::function<std::string(const ServerRequest&)> answer_t;
    static const char* const CLOSE;

    // `piece`: bytes a send, 0 for all at once.
    explicit CScriptedServer(answer_t answer, size_t piece = 0);
    ~CScriptedServer();
    CScriptedServer(const CScriptedServer&) = delete;
    CScriptedServer& operator=(const CScriptedServer&) = delete;

    int Port() const { return m_listener.Port(); }
    std::string Url(const std::string& path = "stream") const {
        return "rtsp://127.0.0.1:" + std::to_string(Port()) + "/" + path;
    }
    // Sends bytes on all connections that live.
    void SendAll(const std::string& bytes);
    int Count(const std::string& method) const {
        return requests.CountIf([&](const ServerRequest& request) { return request.method == method; });
    }
    // Whether a request holds `text`.
    bool Holds(const std::string& text) const {
        return requests.CountIf([&](const ServerRequest& request) { return request.text.find(text) != text.npos; }) > 0;
    }

    CGuardedList<ServerRequest> requests;

    // What an orderly server says, with one H.264 track by the way that the client asks for.
    static std::string Answer(const ServerRequest& request);
    // A reply with that status and those header lines.
    static std::string Reply(const ServerRequest& request, const std::string& status, const std::string& headers = "",
                             const std::string& body = "");
    static std::string Sdp(const std::string& media =
                               "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                               "a=control:track1\r\n");
    // An RTP packet behind its interleave header.
    static std::string Rtp(unsigned int sequence, int channel = 0);

private:
    void accept_all();
    void serve(int fd, int number);
    bool answer(const std::string& text, int number, int fd);
    void send(int fd, const std::string& bytes);

    answer_t m_answer;
    size_t m_piece;
    CBoundSocket m_listener{SOCK_STREAM};
    std::atomic<bool> m_stops{false};
    std::mutex m_send_mutex;  // nothing comes between the pieces of an answer; above m_mutex
    std::mutex m_mutex;
    std::vector<int> m_fds;
    std::list<std::thread> m_threads;
    std::thread m_accepter;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_SCRIPTEDSERVER_H
