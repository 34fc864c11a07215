#include "Nat/P2PSessionCore.h"

#include "Nat/NatHello.h"
#include "Nat/NatRoute.h"
#include "Protocol/LogQuote.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t MIN_RTCP = 8;
const uint64_t MAX_SILENCE_US = 15000000;
const uint64_t MAX_LEAVE_US = 2000000;  // for a client that misses the reply to its TEARDOWN, and sends that again

}  // namespace

CP2PSessionCore::CP2PSessionCore() : CSvrHandler(m_conversation), m_conversation(*this) {}

bool CP2PSessionCore::watch_silence() {
    m_max_silence_us = MAX_SILENCE_US;
    note_sign_of_life();
    return m_silence.Start(MAX_SILENCE_US);
}

// A client that has torn all down has no more to say, or else its next request counts as any. Where others close their
// connection it falls silent.
void CP2PSessionCore::watch_leaving() {
    m_max_silence_us = MAX_LEAVE_US;
    m_silence.Stop();
    if (!m_silence.Start(MAX_LEAVE_US)) {
        m_conversation.End(MSG_SESSION_BROKEN);
    }
}

// The timer runs to the end of the time that was left when it was started; what came since makes it run on.
int64_t CP2PSessionCore::handle_timeout(long timer_id) {
    if (!m_silence.Is(timer_id)) {
        return CSvrHandler::handle_timeout(timer_id);
    }
    const uint64_t silent_us = CTime::getCurrentMicroSecond() - m_heard_us;
    m_silence.Stop();
    if (silent_us < m_max_silence_us && m_silence.Start(static_cast<int64_t>(m_max_silence_us - silent_us))) {
        return 0;
    }
    if (m_max_silence_us == MAX_SILENCE_US) {
        logError("%s %d P2P Client keep alive failed!\n", __FILE__, __LINE__);
    }
    m_conversation.End(MSG_SESSION_BROKEN);
    return -1;
}

// RFC 3550 6.4.1: version 2, then the packet type.
bool CP2PSessionCore::is_report(std::string_view datagram) const {
    return SendsReports() && datagram.size() >= MIN_RTCP && static_cast<uint8_t>(datagram[0]) >> 6 == 2 &&
           IsNatRtcp(static_cast<uint8_t>(datagram[1]));
}

int CP2PSessionCore::take_request(const char* text, int length) {
    rtsp_msg_info info;
    if (m_conversation.LookAtMessage(text, length, info) > 0 && m_last_reply.IsRepeated(info)) {
        if (!m_last_reply.Text().empty()) {
            send(m_last_reply.Text());
        }
        return 0;
    }
    m_max_silence_us = MAX_SILENCE_US;
    const int taken = m_conversation.TakeMessage(text, length);
    if (taken == 0) {
        logError("%s %d m_rtsp_parser failed!\n", __FILE__, __LINE__);
    }
    if (taken <= 0) {
        m_conversation.End(MSG_SRC_FAIL);
        return -1;
    }
    if (info.method == RTSP_METHOD_TEARDOWN && !m_conversation.IsStreaming()) {
        watch_leaving();
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
    return wish.transport.transport == RTP_OVER_UDP ? nullptr : CNatRoute::Create(m_sock.get(), wish);
}

}  // namespace Vidora
}  // namespace Kavio
