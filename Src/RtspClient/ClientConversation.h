#ifndef VIDORA_RTSPCLIENT_CLIENTCONVERSATION_H
#define VIDORA_RTSPCLIENT_CLIENTCONVERSATION_H

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "MachineKeeper.h"
#include "Protocol/RtspReqParser.h"
#include "RtspClient/ClientAuth.h"
#include "RtspClient/ClientBackChannel.h"
#include "RtspClient/ClientHandler.h"
#include "RtspClient/ClientKeepAlive.h"
#include "RtspClient/ClientLink.h"
#include "RtspClient/ClientMailbox.h"
#include "RtspClient/ClientReceive.h"
#include "RtspClient/ClientReports.h"
#include "RtspClient/ClientRequests.h"
#include "RtspClient/ClientTracks.h"
#include "RtspClient/ClientTypes.h"
#include "RtspClient/ClientView.h"
#include "RtspState.h"

namespace Kavio {
namespace Vidora {

// How a PLAY was asked for.
struct client_play {
    enum form_t { NPT = 0, CLOCK = 1, SMPTE = 2 };

    form_t form = NPT;
    float begin = -1.0F;  // seconds
    float end = -1.0F;
    bool has_begin = false;  // of the two forms below
    bool has_end = false;
    UtcTime clock[2];
    SmpteTime smpte[2];
    float speed = 1.0F;
    bool scale = false;

    static client_play Npt(float begin, float end, float speed, bool scale) {
        client_play play;
        play.begin = begin;
        play.end = end;
        play.speed = speed;
        play.scale = scale;
        return play;
    }
};

// A request of the application.
struct client_request {
    rtsp_method_t method = RTSP_METHOD_GET_PARAMETER;
    bool has_body = false;
    std::string body;
};

// CClientConversation: one RTSP conversation of a client (RFC 2326), over whatever link its owner has: it asks for
// OPTIONS, DESCRIBE, a SETUP for each track and PLAY, answers challenges, keeps the session alive, and has the media
// received. It is no handler: a value inside the handler that owns the link, and runs on that handler's strand.
//
// Every failure ends it, with one message to the owner (see client_state_t in ClientTypes.h); a TEARDOWN leaves before
// the end takes effect. A redirect is such a failure: the target is in the view.
//
// THREADING  "Any thread" operations check their arguments and leave the work for the strand; all others run there. The
//            state machine, too, is driven by the strand alone, so that an event has run when the call that puts it is
//            over, unless it is put from inside another one: then right after that.
// OWNERSHIP  Lives until IsOver: its receiver has gone then.
class CClientConversation final : public ILinkUser, public IReceiveUser {
public:
    // Messages that the owner's handler passes on.
    enum { MSG_WORK = 0x3001, MSG_REPLIES = 0x3002 };

    CClientConversation(CClientHandler& handler, IClientLink& link, long owner_id);
    ~CClientConversation();
    CClientConversation(const CClientConversation&) = delete;
    CClientConversation& operator=(const CClientConversation&) = delete;
    // False if memory was short.
    bool IsValid() const { return m_machine.valid(); }

    // Any thread.
    void SetBuffer(CMediaBuffer* buffer) { m_receive.SetBuffer(buffer); }
    // The end is asked for: nothing is put into the buffer or written for the application any more, and what waits for
    // the strand is dropped.
    void Cut();
    int Play(const client_play& play);
    int Pause();
    int SendExtMsg(const client_request& request, char* out, int out_length);
    int SetExtKey(rtsp_method_t method, const std::string& key, const std::string& value);
    int SetKeepAlive(rtsp_method_t method);
    int SetIdleTimeout(unsigned int ms);
    int PutBackChannel(const unsigned char* data, int length);
    // Leaves work of the owner's for the strand.
    template <typename Work>
    int PutWork(Work&& work) {
        return m_work.Put(std::forward<Work>(work));
    }
    CClientView& View() { return m_view; }
    CClientReceive& Receive() { return m_receive; }

    // The strand. Takes what the application has set, before the link is made; `url` holds credentials perhaps.
    int Begin(const std::string& url, const client_settings& settings);
    void OnMessage(long sender_id, unsigned int msg);
    // The timer. 0, or -1: it has ended.
    int OnTimer(long timer_id);
    // Ends it without a further message: TEARDOWN, receiver, timer.
    void End();
    bool IsEnded() const { return m_state == CLIENT_STOPPING; }
    // After End: nothing is waited for any more.
    bool IsOver() const { return m_receive.IsGone(); }
    void Fail(unsigned int msg, long code, rtsp_client_failure_t failure);

    // ILinkUser and IReceiveUser.
    void OnLinkUp() override;
    int TakeMessage(const char* text, unsigned int length) override;
    void TakeDatagram(const char* text, unsigned int length) override;
    void OnLinkFlooded() override;
    void OnLinkFailed(rtsp_client_failure_t failure) override;
    void OnReceivedReply(const std::string& text) override;
    void OnReceivedBye(const rtcp_digest_t& digest, int channel) override;
    void OnReplyFlood() override;

    // The state machine's: each gets the reply to its method, or what is to be sent. 0 or -1.
    int on_options_reply(const StateEvent& event);
    int on_describe_reply(const StateEvent& event);
    int on_setup_reply(const StateEvent& event);
    int on_setup_reply_ready(const StateEvent& event) { return on_setup_reply(event); }
    int on_play_reply(const StateEvent& event);
    int on_pause_reply(const StateEvent& event);
    int on_teardown_reply(const StateEvent& event);
    int on_set_parameter_reply(const StateEvent& event);
    int on_get_parameter_reply(const StateEvent& event);
    int on_unsupported(const StateEvent&) { return -1; }
    int send_request(const char* text, int length);
    void on_async_msg(const StateEvent&) {}

private:
    // A call of Play or Pause.
    struct play_wish {
        rtsp_method_t method;
        client_play play;
    };

    // Results of those that return an int: 0, or -1 when the request isn't sent or the reply ends the session, which is
    // notified then.

    // Requests.
    int queue(rtsp_method_t method, const char* text, request_kind_t kind, const std::string& body = std::string());
    int send_keepalive();
    int send_setup(client_track& track);
    int send_play();
    int send_application(const client_request& request, int slot);
    void report_request_failure(long code);
    void send_teardown();
    int begin_conversation();
    int transmit(const char* text);
    void leave(bool teardown);

    // Replies. repeat...: whether the request was sent anew.
    void answer_request(const char* text, unsigned int length);
    void take_reply(const char* text, unsigned int length, const rtsp_msg_info& info);
    void take_refusal(const pending_request& request, int status);
    void take_challenge(const pending_request& request, const char* text, unsigned int length, rtsp_msg_info info);
    void take_redirect(const char* text, unsigned int length, rtsp_msg_info info);
    void take_success(const pending_request& request, const char* text, unsigned int length, const rtsp_msg_info& info);
    bool can_take(rtsp_method_t method) const;
    void give_memory_back();
    int parse(const StateEvent& event);
    int take_parameter(const StateEvent& event);
    bool repeat(const pending_request& request);
    bool repeat_parameter(const pending_request& request);
    bool repeat_own(const pending_request& request);
    static long status_code(int status) { return static_cast<long>(RTSP_CLIENT_CODE_STATUS) + status; }

    // Set-up and media.
    int take_sdp();
    int follow_transport(client_track& track);
    int follow_interleaved(client_track& track, const transport_info& reply);
    int follow_udp(client_track& track, const transport_info& reply);
    void fail_track(long code, rtsp_client_failure_t failure);
    int set_up_next();
    int finish_set_up();
    void publish_tracks();
    void publish_range();
    int start_media();
    int open_back_channel();
    CStreamReceiver* make_receiver();
    void play(const client_play& play);
    void pause();
    void play_now(const client_play& play);
    void pause_now();
    bool defer(const play_wish& wish);
    void play_deferred();

    // Liveness. check_...: false if the session has ended.
    bool check_requests();
    bool check_reports();
    bool check_idle();
    int send_reports();
    int send_report(const client_track& track);
    void take_bye(client_track& track, uint32_t ssrc);
    void end_by_byes();
    bool has_ended(const client_track& track);

    CClientHandler& m_handler;
    IClientLink& m_link;
    const long m_owner_id;

    CClientView m_view;  // any thread, as the next two
    CReplySlots m_slots;
    CClientMailbox m_work;   // of the application,
    CClientMailbox m_audio;  // and its back channel data
    CClientReceive m_receive;

    long m_timer = 0;
    client_state_t m_state = CLIENT_INIT;
    client_start_t m_start_mode = CLIENT_START_OPTIONS;
    client_settings m_settings;
    std::string m_url;  // without credentials, for the log
    std::shared_ptr<client_sdp> m_sdp;
    CClientTracks m_tracks;
    client_track* m_cur_track = nullptr;  // whose SETUP is under way
    long m_track_code = 0;                // of the first track that failed
    rtsp_client_failure_t m_track_failure = RTSP_CLIENT_FAILURE_NONE;
    client_play m_play;
    std::vector<play_wish> m_wishes;  // asked for, and still to be sent
    int m_reply_result = 0;           // of the operation that the last reply led to
    CClientRequests m_requests;
    CClientKeepAlive m_keepalive;
    CClientReports m_reports;
    CClientBackChannel m_back_channel;
    CMachineKeeper m_machine;
    CRtspReqParser m_parser;
    CClientAuth m_auth;
};

template <>
struct RtspStateOwner<CClientConversation> : RtspClientOwner<CClientConversation> {};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENT_CLIENTCONVERSATION_H
