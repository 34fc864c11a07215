#ifndef VIDORA_RTSPCLIENT_CLIENTENGINE_H
#define VIDORA_RTSPCLIENT_CLIENTENGINE_H

#include <new>
#include <string>

#include "Ostra/LogLimit.h"
#include "RtspClient/ClientConversation.h"
#include "RtspClient/ClientHandler.h"

namespace Kavio {
namespace Vidora {

// TClientEngine: a client engine: the handler whose strand runs one conversation and its link, of the kind `Link`. The
// kinds derive from it and add how the link is made.
//
// Its owner is a handler: it gets the conversation's messages, and MSG_SOURCE_CLOSED last, after Close, when the
// engine, its receiver and its socket have gone. Everything that the owner gave it must live until then.
//
// THREADING  Close and the "any thread" operations of Conversation(): any thread; they return at once. What the
//            conversation publishes may be read until Close; the engine itself, until the owner has called Close. All
//            else: its strand.
template <typename Link>
class TClientEngine : public CClientHandler {
public:
    // Messages of the kinds to themselves begin behind it.
    enum { MSG_CLOSE = 0x3010 };

    CClientConversation& Conversation() { return m_conversation; }
    // Begins the end. No message but MSG_SOURCE_CLOSED is posted by what begins later, nothing put into the buffer and
    // nothing written for the application. Once.
    void Close() override {
        CountAsEnding();
        m_conversation.Cut();
        Notify(GetID(), MSG_CLOSE, 0);
    }

    int handle_input(int fd) override {
        const Ostra::CLogLimit::CScope log(m_log);
        return m_link.OnInput(fd);
    }
    int handle_message(long sender_id, unsigned int msg, long) override {
        const Ostra::CLogLimit::CScope log(m_log);
        if (msg == MSG_CLOSE) {
            m_ending = true;
            m_conversation.End();
        } else {
            m_conversation.OnMessage(sender_id, msg);
        }
        if (m_ending && m_conversation.IsOver()) {
            EndHandler();
        }
        return 0;
    }
    int handle_close(CNetHandler*) override {
        logDebug("%s:%s client:%p \n", __FILE__, __func__, static_cast<void*>(this));
        Notify(m_owner_id, MSG_SOURCE_CLOSED, 0);
        delete this;
        return 0;
    }

protected:
    explicit TClientEngine(long owner_id)
        : m_link(*this, m_conversation), m_conversation(*this, m_link, owner_id), m_owner_id(owner_id) {}
    ~TClientEngine() override = default;

    // `engine`, which may be null, or null if it lacks memory.
    template <typename Engine>
    static Engine* checked(Engine* engine) {
        if (engine != nullptr && (engine->GetID() == 0 || !engine->m_conversation.IsValid())) {
            delete engine;
            return nullptr;
        }
        return engine;
    }
    // Leaves the beginning for the strand; `open` then makes the link. 0, or -1 if memory is short.
    template <typename Open>
    int put_start(const std::string& url, const client_settings& settings, Open open) {
        return GuardedCall([&] {
            return m_conversation.PutWork([this, url, settings, open] {
                if (begin(url, settings)) {
                    open();
                }
            });
        });
    }

    Ostra::CLogLimit m_log;  // each callback of the kinds that logs has its scope
    Link m_link;
    CClientConversation m_conversation;

private:
    bool begin(const std::string& url, const client_settings& settings) {
        int result = -1;
        try {
            result = m_conversation.Begin(url, settings);
        } catch (const std::bad_alloc&) {
            result = -1;
        }
        if (result < 0) {
            m_conversation.Fail(MSG_SRC_FAIL, RTSP_CLIENT_CODE_PROTOCOL, RTSP_CLIENT_FAILURE_PROTOCOL);
        }
        return result == 0;
    }

    const long m_owner_id;
    bool m_ending = false;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTENGINE_H
