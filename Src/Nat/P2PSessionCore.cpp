#include "Nat/P2PSessionCore.h"

#include "Nat/NatRoute.h"
#include "Protocol/LogQuote.h"

namespace Kavio {
namespace Vidora {

namespace {

const uint64_t MAX_SILENCE_US = 15000000;

}  // namespace

CP2PSessionCore::CP2PSessionCore() : CSvrHandler(m_conversation), m_conversation(*this) {}

bool CP2PSessionCore::watch_silence() {
    note_sign_of_life();
    return m_silence.Start(MAX_SILENCE_US);
}

// The timer runs to the end of the time that was left when it was started; what came since makes it run on.
int64_t CP2PSessionCore::handle_timeout(long timer_id) {
    if (!m_silence.Is(timer_id)) {
        return CSvrHandler::handle_timeout(timer_id);
    }
    const uint64_t silent_us = CTime::getCurrentMicroSecond() - m_heard_us;
    m_silence.Stop();
    if (silent_us < MAX_SILENCE_US && m_silence.Start(static_cast<int64_t>(MAX_SILENCE_US - silent_us))) {
        return 0;
    }
    logError("%s %d P2P Client keep alive failed!\n", __FILE__, __LINE__);
    m_conversation.End(MSG_SESSION_BROKEN);
    return -1;
}

int CP2PSessionCore::take_request(const char* text, int length) {
    rtsp_msg_info info;
    if (m_conversation.LookAtMessage(text, length, info) > 0 && m_last_reply.IsRepeated(info)) {
        if (!m_last_reply.Text().empty()) {
            send(m_last_reply.Text());
        }
        return 0;
    }
    const int taken = m_conversation.TakeMessage(text, length);
    if (taken == 0) {
        logError("%s %d m_rtsp_parser failed!\n", __FILE__, __LINE__);
    }
    if (taken <= 0) {
        m_conversation.End(MSG_SRC_FAIL);
        return -1;
    }
    m_conversation.ReleaseMemory();
    return 0;
}

// What doesn't get through the client asks for again.
void CP2PSessionCore::SendText(const char* text, int length) {
    const std::string_view reply(text, static_cast<size_t>(length));
    if (!m_stopped) {
        m_last_reply.Keep(reply);
        send(reply);
    }
}

// Neither a group nor ports of the client's own lie behind its translation.
std::unique_ptr<IMediaRoute> CP2PSessionCore::MakeRoute(const RouteWish& wish) {
    return wish.transport.transport == RTP_OVER_UDP ? nullptr : CNatRoute::Create(m_sock.get());
}

}  // namespace Vidora
}  // namespace Kavio
