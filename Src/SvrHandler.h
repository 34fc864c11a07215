#ifndef VIDORA_SVRHANDLER_H
#define VIDORA_SVRHANDLER_H

#include <memory>

#include "SessionRoll.h"
#include "SvrConversation.h"
#include "SvrLink.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CSvrHandler: the handler of a server's session, whatever the connection under it: its beginning, its place in the
// roll of the server, its timers and messages, and its end. A derived class owns the connection and the conversation.
//
// THREADING  Everything runs on the session's strand, that is, in its reactor callbacks. A derived class that is
//            reached from another handler must do the same: Notify, with MSG_SESSION_END.
// OWNERSHIP  It dies by Close, in handle_close, and nowhere else; a session in a roll leaves that as the very last
//            thing.
class CSvrHandler : public CNetHandler, public ISvrLink {
public:
    // Sessions that live now, in the whole process.
    static unsigned int GetCount();

    // Before the session starts.
    void SetConfig(const CRtspSvrConfig& config) { m_talk.SetConfig(config); }
    void SetLiveSvr(const CLiveSvrRef& live_svr) { m_talk.SetLiveSvr(live_svr); }
    // Reserves the session's place in the roll of its server, which it enters when it begins: an end that came earlier
    // would find it half made. 0, or -1 if memory is short: Discard it then.
    int SetRoll(const std::shared_ptr<CSessionRoll>& roll);
    // The end of a session that isn't started, also of one that the reactor doesn't know.
    void Discard();

    int handle_exception(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

    long HandlerId() const override { return GetID(); }
    void Post(unsigned int msg, long param) override { Notify(GetID(), msg, param); }
    long StartTimer(int64_t period_us) override { return SetTimer(period_us); }
    void StopTimer(long timer_id) override { DestroyTimer(timer_id); }
    void CloseLink() override { close_session(); }

protected:
    static const unsigned int MSG_SESSION_INIT = 0x1f01;  // runs Init with its parameter

    // `conversation`: the derived class's, which need not be made yet.
    explicit CSvrHandler(CSvrConversation& conversation);
    ~CSvrHandler() override = default;

    // Ends the session in the derived class's way. Called once.
    virtual void close_session() { CNetHandler::Close(); }
    // Begins, with `count` bytes that have come already; on the session's strand, and in the roll.
    virtual int Init(int count) = 0;

    // The place in the roll, for who has something to do when nothing of the session is left.
    std::unique_ptr<CSessionEntry> take_entry() { return std::move(m_entry); }

private:
    void begin(int count);

    CSvrConversation& m_talk;
    std::unique_ptr<CSessionEntry> m_entry;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRHANDLER_H
