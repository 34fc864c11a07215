#ifndef VIDORA_SVRSESSIONCORE_H
#define VIDORA_SVRSESSIONCORE_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <new>
#include <string>

#include "AuthGate.h"
#include "MachineKeeper.h"
#include "MediaRoute.h"
#include "Protocol/RtspRspParser.h"
#include "Protocol/SdpParser.h"
#include "RtspState.h"
#include "SessionSource.h"
#include "SilenceRule.h"
#include "SvrLink.h"
#include "TrackTable.h"
#include "Vidora/Names.h"
#include "Vidora/RtspSvrConfig.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// CSvrSessionCore: one RTSP conversation on the server (RFC 2326): all that a plain and a tunnelled session have in
// common.
//
// A derived class reads bytes into m_recv_buffer and calls parse_request, which cuts them into messages and interleaved
// frames, puts each message through the authentication gate and then into the state machine. The machine calls the
// on_... operations. A session serves a live channel, which it shares with others and which answers at once, or a data
// source of its own, which answers DESCRIBE, PLAY and PAUSE by a message later. Media leaves through m_media_sender on
// the control connection, through m_udp_sender, or from the channel's own multicast sockets.
//
// THREADING  Everything runs on the session's strand, that is, in its reactor callbacks, and so no field has a lock but
//            those below. What comes on other threads only leaves a note and a message for the strand: the result of an
//            authentication module, and the frame information that runs on the source's thread. A derived class that is
//            reached from another handler must do the same: Notify, with MSG_SESSION_END. The machine is thus driven
//            from one thread at a time. The host's event and URL functions are called with no lock held.
// OWNERSHIP  Owns its sockets, senders, parsers and data source, and holds a reference on its live channel. It dies by
//            Close, in handle_close, and nowhere else.
// MEMORY     Taken from the system as untouched pages; what a session doesn't use takes no memory. A session that
//            streams has one page resident, in which everything lies that outlives a message, and some 5 kB of the
//            heap. A peer can make it keep 4 kB of unread bytes and the machine's ten messages.
class CSvrSessionCore : public CNetHandler, protected ISvrLink, private IAuthGateOwner {
public:
    // Only the form without exceptions: `new (std::nothrow)`.
    static void* operator new(std::size_t size, const std::nothrow_t&) noexcept;
    static void operator delete(void* memory, std::size_t size) noexcept;

    // Before the session starts. The event function is taken from the configuration.
    void SetConfig(const CRtspSvrConfig& config);
    void SetLiveSvr(const CLiveSvrRef& live_svr) { m_source.SetLiveSvr(live_svr); }

    // 1 prints the delay of every frame to the debug console, for all sessions of the process; 0, the default, doesn't.
    // The console command "rtspdelay 0|1" does the same.
    static void SetDelayLog(int on);
    static void RegisterConsole();

    int handle_output(int fd) override;
    int handle_exception(int fd) override;
    int handle_input_timeout(int fd) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_message(long sender_id, unsigned int msg, long param) override;

protected:
    static const int RTSP_BUF_LEN = 4096;
    static const std::size_t BUFFER_PAGE = 4096;

    // Messages that the session sends itself.
    enum session_message_t {
        MSG_SESSION_INIT = 0x1f01,  // the first request waits in m_recv_buffer
        MSG_SESSION_AUTH = 0x1f02,  // the authentication module has answered
        MSG_SESSION_LOST = 0x1f03,  // frames were lost
        MSG_SESSION_END = 0x1f04    // ends the session; the parameter goes to the machine
    };

    CSvrSessionCore();
    ~CSvrSessionCore() override;

    // Ends the session in the derived class's way. Called once.
    virtual void close_session() = 0;
    // Serves the first request; on the session's strand.
    virtual int Init() { return 0; }

    // Cuts the m_recv_len bytes of m_recv_buffer and serves what is whole; the rest moves to the front. The count that
    // is left; negative: the session has to end.
    int parse_request();
    // Posts an asynchronous message to the machine; it runs here and now unless an event is being served.
    void put_asyn_msg(unsigned int msg) { m_machine.put_asyn_msg(msg, 0); }

    CSockStream* m_sock = nullptr;  // the control connection; owned
    CStreamSender* m_stream_sender = nullptr;
    CAuthGate m_gate{*this};
    CRtspSvrConfig m_config;
    rtsp_event_func_t m_event_func = nullptr;
    CSockAddrStorage m_peer_addr;
    char* m_recv_buffer;  // RTSP_BUF_LEN bytes and a NUL
    int m_recv_len = 0;
    std::atomic<unsigned int>* m_live_count = nullptr;  // the derived class's count of its objects, or null

    void give_address_event(event_type_t event);

private:
    friend struct RtspServerOwner<CSvrSessionCore>;

    // Kinds of the replies that the machine is given; for its log alone.
    enum event_kind_t {
        EVENT_KIND_DESCRIBE = 1,
        EVENT_KIND_REFUSAL = 1,
        EVENT_KIND_PLAY = 3,
        EVENT_KIND_PAUSE = 4,
        EVENT_KIND_AUTH = 8
    };

    // Request dispatch.
    int parse_interleaved(char* cursor);
    int take_message(char* cursor);
    void empty_buffer(int used, bool messages);
    void on_interleaved(const unsigned char* data, unsigned int length, int channel);
    int parse_event(const StateEvent& event);
    int send_data(const char* text, int length);  // for the machine
    int send_text(const char* text);
    int send_error(int status);
    int on_options(const StateEvent& event);
    int refuse_parse(const StateEvent& event);

    // The link, on a TCP connection.
    long HandlerId() const override { return GetID(); }
    void Post(unsigned int msg, long param) override { Notify(GetID(), msg, param); }
    long StartTimer(int64_t period_us) override { return SetTimer(period_us); }
    void StopTimer(long timer_id) override { DestroyTimer(timer_id); }
    void SendText(const char* text, int length) override;
    void StopSending() override;
    void GetPeer(CSockAddrStorage& peer) override;
    std::unique_ptr<IMediaRoute> MakeRoute(const RouteWish& wish) override;
    void CloseLink() override { close_session(); }

    // For the gate.
    bool PassRequest(const rtsp_msg_info& info, const char* text, unsigned int length) override;
    bool SendChallenge(const char* request, unsigned int length, const char* challenge) override;
    void BreakOff() override { put_asyn_msg(MSG_SRC_FAIL); }
    void WakeGate() override { Notify(GetID(), MSG_SESSION_AUTH, 0); }

    // DESCRIBE.
    int on_describe(const StateEvent& event);
    int open_data_source(const StateEvent& event, const char* content, int proto);
    int open_live_channel(const StateEvent& event, const char* content, int proto);
    void release_source();
    int read_sdp();
    int wait_for_sdp();
    void stop_waiting_for_sdp();
    int retry_describe();
    int reply_describe();

    // SETUP.
    int on_setup(const StateEvent& event);
    IMediaRoute* find_route(const transport_info& transport);
    int finish_setup(CTrack& track, transport_info& transport, int channel);

    // PLAY.
    int on_play(const StateEvent& event);
    int on_replay(const StateEvent& event);
    int play_data_source(const StateEvent& event);
    int reply_play();
    int warn_play();
    int build_rtp_info(const CTrack* single, rtp_info_entry* table, int* count);
    const char* generate_play_reply(const rtp_info_entry* entries, int count);
    void restart_report_timer();
    int start_media(const CTrack* single, int cseq);
    int enter_route();

    // Parameters, PAUSE, TEARDOWN.
    int on_set_parameter(const StateEvent& event);
    int on_get_parameter(const StateEvent& event);
    int on_pause(const StateEvent& event);
    int reply_pause();
    int on_teardown(const StateEvent& event);
    int teardown_track(CTrack& track);
    int refuse_here(const StateEvent& event);
    int on_unsupported(const StateEvent& event);

    // Timers, reports, failures and the end.
    int send_rtcp_report(int track_filter, bool with_bye);
    int send_track_report(const CTrack& track, bool with_bye);
    void on_frame_info(CMediaPacket* packet, int length, int unused);
    void give_lost_events();
    void on_source_end();
    bool has_media_to_send();
    void stop_draining();
    int on_sdp_update();
    bool has_same_sdp();
    void stop_media();
    int stop_source() { return m_source.Stop(m_packet_type); }
    void on_asyn_msg(const StateEvent& event);

    CSessionSource m_source;
    int m_sdp_result = SDP_UNICAST;  // of the last GetSdp

    // Where it goes.
    enum route_kind_t { ROUTE_INTERLEAVED, ROUTE_UDP, ROUTE_CHANNEL, ROUTE_KINDS };
    std::unique_ptr<IMediaRoute> m_routes[ROUTE_KINDS];
    IMediaRoute* m_route = nullptr;                  // of the last SETUP
    packet_type_t m_packet_type = PACKET_TYPE_NONE;  // of the last SETUP
    bool m_streaming = false;                        // from the end of a PLAY to a PAUSE or whole TEARDOWN

    CTrackTable m_tracks{m_sdp};

    // Dialogue.
    uint64_t m_wait_id = 0;  // the event that a late reply answers
    bool m_described = false;
    bool m_closed = false;          // close_session was called
    unsigned int m_play_round = 0;  // counts what ends a PLAY, for a reply that is overtaken by it
    long m_sdp_timer = 0;           // runs while DESCRIBE waits for an SDP
    int m_sdp_tries = 0;
    long m_end_timer = 0;  // runs while the last media of a source that has ended leaves
    int m_end_tries = 0;   // since the client took something
    uint64_t m_end_unsent = 0;
    long m_rtcp_timer = 0;
    CSilenceRule m_silence;
    bool m_wants_reports = true;  // cleared by a SETUP for private frames

    // Frame loss; m_last_frame belongs to the source's thread while a sink is attached.
    unsigned int m_last_frame[CTrackTable::MAX_TRACKS] = {};
    std::atomic<unsigned int> m_lost_count{0};

    CMachineKeeper m_machine;
    CSdpParser m_sdp;
    CRtspRspParser m_rsp_parser;

    // The last member. m_recv_buffer begins at a page of it, which is given back while nothing is in the buffer.
    char m_recv_space[3 * BUFFER_PAGE];
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SVRSESSIONCORE_H
