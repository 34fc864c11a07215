#ifndef VIDORA_TESTS_SUPPORT_RTSPTESTCLIENT_H
#define VIDORA_TESTS_SUPPORT_RTSPTESTCLIENT_H

#include <deque>
#include <string>

namespace Kavio::Support {

// A reply as it came.
struct RtspReply {
    int status = 0;  // 0: none came
    std::string head;
    std::string body;

    // The value of a header, or "".
    std::string Header(const std::string& name) const;
    bool Holds(const std::string& text) const { return head.find(text) != std::string::npos; }
};

// One interleaved frame.
struct RtspFrame {
    int channel = -1;  // -1: none came
    std::string data;
};

// CRtspTestClient: a test's end of an RTSP conversation, in plain text, with blocking calls that give up at a deadline.
// It knows nothing of the library. One thread at a time.
class CRtspTestClient {
public:
    // Connects to the loopback address, from the address `from` unless null.
    explicit CRtspTestClient(int port, const char* from = nullptr);
    ~CRtspTestClient();
    CRtspTestClient(const CRtspTestClient&) = delete;
    CRtspTestClient& operator=(const CRtspTestClient&) = delete;

    bool Connected() const { return m_fd >= 0; }
    int Fd() const { return m_fd; }
    // Sends bytes as they are. False if the connection is broken.
    bool Send(const std::string& bytes);
    // The text of a request with the next CSeq, the session of the last SETUP reply, and `headers` (whole lines).
    std::string Request(const std::string& method, const std::string& url, const std::string& headers = "",
                        const std::string& body = "");
    // Sends that request and waits for its reply.
    RtspReply Ask(const std::string& method, const std::string& url, const std::string& headers = "",
                  const std::string& body = "");
    // The next reply; interleaved frames that come before it are kept for Frame.
    RtspReply Reply(int timeout_ms = 10000);
    // The next interleaved frame; replies that come before it are kept for Reply.
    RtspFrame Frame(int timeout_ms = 10000);
    // Whether the server closes the connection in that time. What comes before is dropped.
    bool Closed(int timeout_ms = 10000);
    // Whether the server is known to have closed it.
    bool Ended() const { return m_eof; }
    // Whether nothing at all comes in that time, the connection being open.
    bool Silent(int timeout_ms);
    // Ends the connection.
    void Close();

private:
    bool receive(int timeout_ms);
    template <typename T>
    T next(std::deque<T>& queue, int timeout_ms);
    template <typename Done>
    void read_until(Done done, int timeout_ms);

    int m_fd = -1;
    bool m_eof = false;
    int m_cseq = 0;
    std::string m_session;
    std::string m_bytes;  // received and not yet cut
    std::deque<RtspReply> m_replies;
    std::deque<RtspFrame> m_frames;
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_RTSPTESTCLIENT_H
