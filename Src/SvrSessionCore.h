#ifndef VIDORA_SVRSESSIONCORE_H
#define VIDORA_SVRSESSIONCORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "RequestBuffer.h"
#include "SessionRoll.h"
#include "SvrConversation.h"
#include "SvrLink.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CSvrSessionCore: a conversation whose texts leave on a TCP connection: all that a plain and a tunnelled session have
// in common. A derived class reads the bytes of requests into m_requests.
//
// THREADING  Everything runs on the session's strand, that is, in its reactor callbacks. A derived class that is
//            reached from another handler must do the same: Notify, with MSG_SESSION_END.
// OWNERSHIP  Owns the socket, the sender on it and the conversation. It dies by Close, in handle_close, and nowhere
//            else; a session in a roll leaves that as the very last thing.
// MEMORY     Taken from the system as untouched pages; what a session doesn't use takes no memory. A session that
//            streams has one page resident, in which everything lies that outlives a message, and some 5 kB of the
//            heap. A peer can make it keep 4 kB of unread bytes and what the conversation keeps.
class CSvrSessionCore : public CNetHandler, public ISvrLink {
public:
    // Sessions that live now, in the whole process.
    static unsigned int GetCount();
    // Only the form without exceptions: `new (std::nothrow)`.
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* memory, std::size_t size) noexcept;

    // Before the session starts.
    void SetConfig(const CRtspSvrConfig& config) { m_conversation.SetConfig(config); }
    void SetLiveSvr(const CLiveSvrRef& live_svr) { m_conversation.SetLiveSvr(live_svr); }
    // Gives the session its place in the roll of its server, which it enters when it begins: an end that came earlier
    // would find it half made. 0, or -1 if memory is short: Close it then.
    int SetRoll(const std::shared_ptr<CSessionRoll>& roll);

    int handle_output(int fd) override;
    int handle_exception(int fd) override;
    int handle_input_timeout(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

    long HandlerId() const override { return GetID(); }
    void Post(unsigned int msg, long param) override { Notify(GetID(), msg, param); }
    long StartTimer(int64_t period_us) override { return SetTimer(period_us); }
    void StopTimer(long timer_id) override { DestroyTimer(timer_id); }
    void SendText(const char* text, int length) override;
    void StopSending() override;
    void GetPeer(CSockAddrStorage& peer) override;
    std::unique_ptr<IMediaRoute> MakeRoute(const RouteWish& wish) override;
    void CloseLink() override { close_session(); }

protected:
    static const unsigned int MSG_SESSION_INIT = 0x1f01;  // runs Init with its parameter

    CSvrSessionCore();
    ~CSvrSessionCore() override;

    // Ends the session in the derived class's way. Called once.
    virtual void close_session() = 0;
    // Begins, with `count` bytes in m_requests; on the session's strand, and in the roll.
    virtual int Init(int count) = 0;

    // Takes `count` bytes that were read to m_requests. Negative: the session is ending.
    int take_requests(int count);
    // Sends texts on m_sock from now on.
    void open_sender();
    // Prepares m_sock, and puts the host's module of that type in front. Whether URLs of ONVIF are judged by it is what
    // the configuration says, on every kind of connection: none is a way round it.
    void open_connection(rtsp_auth_t auth_type);
    // Lets the system break a connection whose peer has gone.
    void watch_peer(CSockStream& sock) const;

private:
    void begin(int count);

    CStreamSender* m_stream_sender = nullptr;
    std::unique_ptr<CSessionEntry> m_entry;

protected:
    CSockStream* m_sock = nullptr;  // texts and media leave here; owned
    CRequestBuffer m_requests;
    // Behind the few fields above: what it ends with are pages that stay untouched.
    CSvrConversation m_conversation;

private:
    char m_request_space[CRequestBuffer::SPACE];  // last: untouched while it is empty
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRSESSIONCORE_H
