#ifndef VIDORA_TESTS_SUPPORT_CLIENTHOST_H
#define VIDORA_TESTS_SUPPORT_CLIENTHOST_H

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "Vidora/RtspClientSession.h"
#include "Vidora/Tramel/MediaBuffer.h"
#include "support/CollectingSink.h"
#include "support/TestHandler.h"

namespace Kavio::Support {

// A notification of a client session.
struct ClientNote {
    unsigned int msg = 0;
    long param = 0;
};

// TClientHost: an application with one client session: it plays as soon as the tracks are set up, unless told
// otherwise, and keeps the notifications. The handler of the notifications belongs to it; the session ends with it, and
// it waits for nothing.
template <typename Session>
class TClientHost {
public:
    bool play_at_ready = true;
    // Called on the handler's strand; set before Start.
    std::function<void(const ClientNote&)> on_note;

    TClientHost() : session(Session::Create()), m_handler(CTestHandler::Make(&m_handler_closed)) {
        m_handler->on_message = [this](long, unsigned int msg, long param) {
            take(ClientNote{msg, param});
            return 0;
        };
    }
    ~TClientHost() {
        Close();
        m_handler->Close();
        WaitUntil([this] { return m_handler_closed > 0; });
    }

    // `way`: the last argument of the session's Start.
    template <typename Way>
    int StartBy(const std::string& url, Way way) {
        session->GetMediaBuffer()->AddLevel2Buffer(&sink);
        return session->Start(url.c_str(), m_handler->GetID(), way);
    }
    void Close() {
        if (!m_closed.exchange(true)) {
            session->GetMediaBuffer()->DelLevel2Buffer(&sink);
            session->Close();
        }
    }
    long HandlerId() const { return m_handler->GetID(); }

    std::vector<ClientNote> Notes() const { return m_notes.All(); }
    int Count(unsigned int msg) const {
        return m_notes.CountIf([msg](const ClientNote& note) { return note.msg == msg; });
    }
    bool WaitFor(unsigned int msg) {
        return WaitUntil([this, msg] { return Count(msg) > 0; });
    }
    // Waits for the last notification; its code, or -1.
    long EndCode() {
        if (!WaitFor(Vidora::MSG_RTSP_TEARDOWN)) {
            return -1;
        }
        return Notes().back().param;
    }
    Vidora::RtspClientStatistics Statistics() const {
        Vidora::RtspClientStatistics statistics;
        session->GetStatistics(statistics);
        return statistics;
    }

    Session* session;
    CCollectingSink sink;

private:
    void take(const ClientNote& note) {
        m_notes.Add(note);
        if (on_note) {
            on_note(note);
        }
        if (play_at_ready && note.msg == Vidora::MSG_RTSP_SETUP_READY && !m_closed) {
            session->Play(0.0F, 0.0F, 1.0F, false);
        }
    }

    std::atomic<int> m_handler_closed{0};
    std::atomic<bool> m_closed{false};
    CTestHandler* m_handler;
    CGuardedList<ClientNote> m_notes;
};

class CClientHost : public TClientHost<Vidora::CRtspClientSession> {
public:
    int Start(const std::string& url, Vidora::rtp_protocol_t transport = Vidora::RTP_OVER_RTSP) {
        return StartBy(url, transport);
    }
    // Starts, and waits until it plays.
    bool Plays(const std::string& url, Vidora::rtp_protocol_t transport = Vidora::RTP_OVER_RTSP) {
        return Start(url, transport) == 0 && WaitFor(Vidora::MSG_RTSP_PLAY_READY);
    }
};

}  // namespace Kavio::Support

#endif  // VIDORA_TESTS_SUPPORT_CLIENTHOST_H
