#ifndef VIDORA_BENCH_SUPPORT_RTSPDIALOGUE_H
#define VIDORA_BENCH_SUPPORT_RTSPDIALOGUE_H

#include <cstdint>
#include <string>

namespace Bench {

// The four round trips of a session: OPTIONS, DESCRIBE, SETUP of the first media, PLAY.
const int DIALOGUE_STEPS = 4;

const char FIRST_CHANNEL[] = "cam/realmonitor?channel=1&subtype=0";

// CRtspDialogue: the client's side of the four round trips, as text.
class CRtspDialogue {
public:
    CRtspDialogue() = default;
    // `client_port`: the RTP port for UDP, 0 for interleaved. `content`: what is asked for, behind the URL's host.
    CRtspDialogue(uint16_t server_port, uint16_t client_port, const std::string& content = FIRST_CHANNEL);

    bool Done() const { return m_step == DIALOGUE_STEPS; }
    // The request of the step that is due.
    std::string Request() const;
    // Bytes that the whole reply at the start of `text` takes, or 0 while it isn't whole.
    static size_t ReplySize(const std::string& text);
    // Takes the reply and goes to the next step. False for any status but 200, or a reply without what is needed.
    bool Take(const std::string& reply);

private:
    int m_step = 0;
    uint16_t m_client_port = 0;
    std::string m_url;
    std::string m_control;  // URL for SETUP
    std::string m_session;
};

// The value of the first header line with that name, in any case; empty if there is none.
std::string HeaderValue(const std::string& text, const char* name);

}  // namespace Bench

#endif  // VIDORA_BENCH_SUPPORT_RTSPDIALOGUE_H
