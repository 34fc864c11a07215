#ifndef VIDORA_SVRCONVERSATION_H
#define VIDORA_SVRCONVERSATION_H

#include <memory>

#include "AuthGate.h"
#include "FrameWatch.h"
#include "MachineKeeper.h"
#include "Ostra/LogLimit.h"
#include "Protocol/RtspRspParser.h"
#include "Protocol/SdpParser.h"
#include "Refusal.h"
#include "RtspState.h"
#include "SdpWait.h"
#include "SenderReports.h"
#include "SessionSource.h"
#include "SilenceRule.h"
#include "SourceDrain.h"
#include "SvrLink.h"
#include "TrackTable.h"
#include "Vidora/RtspSvrConfig.h"

namespace Kavio {
namespace Vidora {

// Messages that a conversation sends to itself, and by which others end it.
enum conversation_message_t {
    MSG_SESSION_AUTH = 0x1f02,  // the authentication module has answered
    MSG_SESSION_LOST = 0x1f03,  // frames were lost
    MSG_SESSION_END = 0x1f04    // ends the session; the parameter goes to the machine
};

// CSvrConversation: one RTSP conversation on the server (RFC 2326), over whatever connection lies under it.
//
// The owner of the connection hands it whole messages. The gate passes each one, the machine calls the on_... operation
// of its method, which asks the source, finds the track, gets a route from the link, and answers by the link. A live
// channel answers at once; a source of the session's own by a message later, upon which the reply_... operation goes
// on. See docs/architecture.md.
//
// THREADING  The strand of the link's handler, and so no field has a lock. What comes on other threads only leaves a
//            note and a message for the strand. The machine is thus driven from one thread at a time. Functions of the
//            host are called with no lock held; whatever they close or delete notifies this conversation by a message.
// OWNERSHIP  A value inside the object that is the link, and that calls Release before it dies.
// MEMORY     Some 2 kB, the description of a source of its own, a channel's being shared, and a CMessageMemory while a
//            request comes, is served or waits for its answer. A peer can make it keep the machine's ten messages and
//            the gate's one.
class CSvrConversation : private IAuthGateOwner {
public:
    explicit CSvrConversation(ISvrLink& link);
    ~CSvrConversation() override;
    CSvrConversation(const CSvrConversation&) = delete;
    CSvrConversation& operator=(const CSvrConversation&) = delete;

    // False if memory was short: nothing can be served, and nothing ended.
    bool IsValid() const { return m_machine.valid(); }
    // Before the first message.
    void SetConfig(const CRtspSvrConfig& config);
    void SetLiveSvr(const CLiveSvrRef& live_svr) { m_source.SetLiveSvr(live_svr); }
    const CRtspSvrConfig& Config() const { return m_config; }
    // Puts the host's module of that type in front; see CAuthGate::Open.
    void OpenGate(rtsp_auth_t type);
    // The client goes on by another connection: the gate judges it anew.
    void RearmGate() { m_gate.Rearm(); }
    // Reports the client to the host, which its events and lines of the log name from then on.
    void Welcome(const CSockAddrStorage& peer);

    // What the message at the start of `length` bytes is, as TakeMessage finds it: the bytes that it takes, 0 or
    // negative. Nothing is served.
    int LookAtMessage(const char* text, int length, rtsp_msg_info& info);
    // Serves the message at the start of `length` bytes, which a NUL follows: the bytes that it takes, 0 if it
    // isn't whole, negative if the conversation has to end.
    int TakeMessage(const char* text, int length);
    // Takes an RTCP packet of the client in (RFC 2326 10.12).
    void TakeReport(const unsigned char* data, unsigned int length, int channel);
    // Whether media flow: nothing may come for a long time.
    bool IsStreaming() const { return m_streaming; }
    // The memory of what comes now. Null if memory is short: end it then.
    CMessageMemory* OpenMemory() { return m_codec.open_memory(); }
    // Releases that memory, unless a part of a message waits in it, or a reply is still to be made of it.
    void ReleaseMemory();

    // What the handler is told: its messages, with the handler that sent them, its timers, a time-out of its control
    // connection, an error of it.
    void OnMessage(long sender_id, unsigned int msg, long param);
    void OnTimer(long timer_id);
    void OnControlSilence();
    void OnLinkError();

    // Ends it by an asynchronous message to the machine, here and now unless an event is being served.
    void End(unsigned int msg) { m_machine.put_asyn_msg(msg, 0); }
    // Lets all go that it holds of others; before the link dies.
    void Release();
    // Reports to the host that the client which it was told of has gone.
    void Farewell();

private:
    friend struct RtspServerOwner<CSvrConversation>;

    // Kinds of the replies that the machine is given. Nothing looks at them.
    enum reply_kind_t {
        REPLY_KIND_DESCRIBE = 1,
        REPLY_KIND_REFUSAL = 1,
        REPLY_KIND_PLAY = 3,
        REPLY_KIND_PAUSE = 4,
        REPLY_KIND_AUTH = 8
    };
    enum route_kind_t { ROUTE_INTERLEAVED, ROUTE_UDP, ROUTE_CHANNEL, ROUTE_KINDS };

    // Results, where an operation doesn't say otherwise: of an on_... and of what it is made of, 0 when it is answered,
    // 1 when the source answers later, a refusal_t when it isn't served; of a reply_..., 0 or a refusal_t; of the
    // senders of texts always 0. What else returns an int: 0, or negative, which ends the session.

    // Texts in and out. parse_event: negative if the request can't be read. refuse_awaited, take_refused: whether the
    // refusal was sent; 1 of the latter lets the machine refuse it.
    int parse_event(const StateEvent& event);
    int refuse_parse(const StateEvent& event);
    int send_data(const char* text, int length);
    int send_text(const char* text);
    int send_error(int status);
    int refuse_here(const StateEvent& event);
    int on_options(const StateEvent& event);
    int on_set_parameter(const StateEvent& event);
    int on_get_parameter(const StateEvent& event);
    int on_unsupported(const StateEvent& event);
    int on_unknown(const StateEvent& event);
    int on_refused(const StateEvent& event, int refusal);
    bool refuse_awaited(int refusal);
    int take_refused(int refusal, const char* text, int size);
    int read_aside(CRtspRspParser& codec, const char* request, unsigned int length) const;

    // For the gate: false if the machine takes no more.
    bool PassRequest(const rtsp_msg_info& info, const char* text, unsigned int length) override;
    bool SendChallenge(const char* request, unsigned int length, const char* challenge) override;
    void BreakOff() override { End(MSG_SRC_FAIL); }
    void WakeGate() override { m_link.Post(MSG_SESSION_AUTH, 0); }

    // DESCRIBE and SETUP. read_sdp: whether there is a description. find_route: the table's; null refuses the
    // transport.
    int on_describe(const StateEvent& event);
    int open_source(const char* content, int proto);
    int describe_live();
    bool read_sdp();
    int retry_describe();
    int reply_describe();
    bool has_same_sdp();
    int on_setup(const StateEvent& event);
    bool parts_from_others(const CTrack& track, const IMediaRoute& route);
    IMediaRoute* find_route(const transport_info& transport);
    void change_route(IMediaRoute* to);
    int setup_track(CTrack& track);
    void take_packet_type();

    // PLAY, PAUSE and TEARDOWN. warn_play: its refusal. generate_play_reply: the codec's text, or null. build_rtp_info:
    // -1 if the source knows nothing of a track.
    int on_play(const StateEvent& event);
    int on_replay(const StateEvent& event);
    int play_own_source(const StateEvent& event);
    bool names_no_track() const;
    bool turns_round(float speed) const;
    bool plays_from_edge() const;
    int reply_play();
    int reply_live_replay();
    const char* describe_play(const CTrack* single);
    int warn_play(refusal_t refusal);
    int build_rtp_info(const CTrack* single, rtp_info_entry* table, int* count);
    const char* generate_play_reply(const rtp_info_entry* entries, int count);
    int find_played(const CTrack*& single);
    int answer_own_play(const char* reply, const CTrack* single);
    int start_media(const CTrack* single, int cseq);
    int open_media(int cseq);
    void let_pass(const CTrack& track);
    int enter_route();
    int on_pause(const StateEvent& event);
    int pause_live();
    int reply_pause();
    int on_teardown(const StateEvent& event);
    int teardown_track(CTrack& track);
    void stop_media();

    // Messages and the end. release: whether the end waits for MSG_SOURCE_CLOSED.
    int take_own_message(unsigned int msg, long param);
    bool is_stale(long sender_id, unsigned int msg) const;
    int take_source_message(unsigned int msg);
    int on_source_ready();
    bool ends_former_play() const;
    int on_source_end();
    int on_sdp_update();
    int take_awaited_sdp();
    void report_address(event_type_t event);
    void report_losses();
    bool say_bye();
    bool release(bool hears_end);
    void on_asyn_msg(const StateEvent& event);

    ISvrLink& m_link;
    CRtspSvrConfig m_config;
    CSockAddrStorage m_peer;
    CAuthGate m_gate{*this};
    CSessionSource m_source;
    CTrackTable m_tracks{m_sdp};
    std::unique_ptr<IMediaRoute> m_routes[ROUTE_KINDS];
    IMediaRoute* m_route = nullptr;                  // of the last SETUP
    packet_type_t m_packet_type = PACKET_TYPE_NONE;  // of the last SETUP
    int m_sdp_result = SDP_UNICAST;                  // of the last GetSdp
    bool m_welcomed = false;                         // the host was told of its client
    bool m_described = false;
    bool m_has_played = false;      // since the DESCRIBE
    bool m_streaming = false;       // from the end of a PLAY to a PAUSE, a whole TEARDOWN or the source's release
    bool m_closed = false;          // CloseLink was called
    unsigned int m_play_round = 0;  // counts what ends a PLAY, for a reply that is overtaken by it
    uint64_t m_wait_id = 0;         // the event that a late reply answers
    int m_awaited = 0;              // the refusal_t of the request that waits for its source to answer; 0: none waits
    CSilenceRule m_silence;
    CSdpWait m_sdp_wait{m_link};
    CSourceDrain m_drain{m_link};
    CSenderReports m_reports{m_link, m_source, m_tracks};
    Ostra::CLogLimit m_log;
    CFrameWatch m_frames{m_link, MSG_SESSION_LOST};
    CMachineKeeper m_machine;
    std::shared_ptr<const CSdpParser> m_sdp = CSdpParser::None();
    CRtspRspParser m_codec;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRCONVERSATION_H
