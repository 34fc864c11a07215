#ifndef VIDORA_RTSPCLIENTSESSION_H
#define VIDORA_RTSPCLIENTSESSION_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

class CSdpInfo;
struct client_play;

// Options of CRtspClientSession::SetOptions, joined by OR.
enum rtsp_client_option_t {
    RTSP_CLIENT_KEEP_CREDENTIALS = 1,  // the user and password of the URL stay in the URL of the requests
    RTSP_CLIENT_BACK_CHANNEL = 2,  // use the device's audio back channel (ONVIF Streaming Specification 5.3); UDP only
    RTSP_CLIENT_MULTICAST = 4      // ask for multicast on each track; UDP only
};

// Notifications of a session: handle_message(id of the session, one of these, param) at the host's handler. `param` is
// 0 unless told.
enum rtsp_client_message_t {
    MSG_RTSP_SETUP_READY = 0x1002,     // the tracks are set up: Play may be called, GetSdpInfo returns the description
    MSG_RTSP_PLAY_READY = 0x1004,      // PLAY is answered
    MSG_RTSP_PAUSE_READY = 0x1008,     // PAUSE is answered
    MSG_RTSP_TEARDOWN = 0x1010,        // the session is over: the last notification. `param` is a rtsp_client_code_t
    MSG_RTSP_PARAMETER_REPLY = 0x1014  // a SET_PARAMETER is answered with a body; or, with a rtsp_client_code_t as
                                       // `param`, a request of SendExtMsg was refused or could not be sent
};

// How a session ended. A reply with an error status is RTSP_CLIENT_CODE_STATUS plus that status: 0x10090191 is 401,
// when the user and password were refused, 0x10090194 is 404.
enum rtsp_client_code_t {
    RTSP_CLIENT_CODE_ENDED = 0,                // the server ended the stream
    RTSP_CLIENT_CODE_STATUS = 0x10090000,      // plus the RTSP status (RFC 2326 7.1.1)
    RTSP_CLIENT_CODE_REPLY = 0x110a0001,       // a reply that could not be cut out of what the connection carries
    RTSP_CLIENT_CODE_CONNECTION = 0x110a0002,  // no connection, or the connection broke
    RTSP_CLIENT_CODE_PROTOCOL = 0x110a0003  // a bad reply or description, no reply in time, or the stream went silent
};

// The same in finer steps: CRtspClientSession::GetFailure.
enum rtsp_client_failure_t {
    RTSP_CLIENT_FAILURE_NONE = 0,          // it runs, or the server ended it in order
    RTSP_CLIENT_FAILURE_NAME = 1,          // the host name has no address
    RTSP_CLIENT_FAILURE_REFUSED = 2,       // nobody listens at the server's port
    RTSP_CLIENT_FAILURE_UNREACHABLE = 3,   // no way to the server
    RTSP_CLIENT_FAILURE_TIMEOUT = 4,       // no connection in time
    RTSP_CLIENT_FAILURE_LOST = 5,          // the connection ended
    RTSP_CLIENT_FAILURE_NO_REPLY = 6,      // a request was not answered in time
    RTSP_CLIENT_FAILURE_IDLE = 7,          // no media for the time of SetStreamIdleTimeout
    RTSP_CLIENT_FAILURE_UNAUTHORISED = 8,  // user and password are missing or wrong
    RTSP_CLIENT_FAILURE_STATUS = 9,        // another error status
    RTSP_CLIENT_FAILURE_PROTOCOL = 10      // what the server said can't be used
};

// What a session has received, all its tracks together.
struct RtspClientStatistics {
    uint64_t packets = 0;  // RTP packets, or private frames
    uint64_t bytes = 0;    // of those, without interleave headers
    uint64_t lost = 0;     // RTP packets that the sequence numbers show to be missing
};

// CRtspClientSession: pulls one stream from an RTSP server (RFC 2326): as RTP (RFC 3550), interleaved on the
// connection, by unicast UDP or by multicast, or as private frames on the connection. It answers Basic and Digest
// challenges (RFC 2617), follows redirects, keeps the server's session alive and sends receiver reports. The media go
// into a CMediaBuffer, to which the host adds its sinks: a CLevel2Buffer_IF of its own for packets, or a
// CRtspClientBuffer for frames.
//
// Order of use:
//     CNetThread::CreateThreadPool
//     Create, then any of SetAuthInfo, SetOptions, SetPacketType, SetKeepAlive, SetStreamIdleTimeout, SetCmdExtKey,
//         SetConformance
//     Start
//     at MSG_RTSP_SETUP_READY: GetSdpInfo, GetMediaBuffer()->AddLevel2Buffer, Play
//     at MSG_RTSP_TEARDOWN, or whenever the host has had enough:
//         GetMediaBuffer()->DelLevel2Buffer, Close, and then delete the sink
// A session is started once. It always ends by Close, also after MSG_RTSP_TEARDOWN and after a Start that failed, and
// is never deleted by the host.
//
// The results 0 and -1 of the operations report whether a call was accepted. What comes of it is reported by
// notifications: any number of the others, then one MSG_RTSP_TEARDOWN, and none after that or after Close. A redirect
// after PLAY brings MSG_RTSP_SETUP_READY again; the host then calls Play again.
//
// THREADING  All operations: any thread, also inside the callbacks of sinks and inside handle_message, also with locks
//            of the host's held: they post their work and return. Notifications come on the strand of the host's
//            handler. Sinks are called on the thread of the pool that receives, one packet at a time; a slow one holds
//            up its own session only.
// OWNERSHIP  The session owns its media buffer and frees itself after Close: the pointer to it, the buffer and the SDP
//            view are dead when Close has returned. Calls of other threads that have begun by then are waited for. When
//            the thread pool is destroyed after Close, the session still ends; without a pool it ends at the next one.
// MEMORY     About 70 kB before the media come, of which 40 kB are message buffers that few sessions touch; then what
//            the receiver takes, 64 kB for RTP over TCP, and private frames as large as they come (16 MiB at most). A
//            server can make a session keep its description, 320 kB of replies and 8 kB of reports.
class VIDORA_API CRtspClientSession : public CNetHandler {
public:
    // A session; null if memory is short.
    static CRtspClientSession* Create();

    // Connects to the server of `url`, "rtsp://[user:password@]host[:port]/path" of at most 1024 characters, and sets
    // its stream up. A user and password of the URL are those of SetAuthInfo. `notify_id`: the handler that gets the
    // notifications. A path that holds "/qms/" or "/monitor/" is set up without a description, as one track. 0, or -1
    // with a log line: null, no RTSP URL, a second start.
    int Start(const char* url, long notify_id, rtp_protocol_t transport);
    // The same, interleaved over a TCP socket that is connected to the server. The session owns `sock` when the result
    // is 0.
    int Start(const char* url, long notify_id, int sock);
    // Adds to the set of rtsp_client_option_t; before Start. 0.
    int SetOptions(int options);
    // Ends the session: no notification is posted and no packet put any more when it has returned, but for a packet
    // whose sink is inside the call now. A TEARDOWN leaves if there is a connection; nobody waits for its answer. A
    // second call does nothing.
    void Close() override;

    // Where the media go; never null before Close. Packets are runs of RTP packets of one frame, each behind its
    // interleave header ("$", channel, 16-bit length, RFC 2326 10.12), or a 6-byte header and a private frame. The
    // channel word of its Put has 1 in its low bits for a key frame and 5 otherwise, and the track in its top byte.
    CMediaBuffer* GetMediaBuffer();

    // Starts the stream, moves in a recording, or resumes after Pause. Seconds from the beginning of the recording; a
    // `begin` below 0: from where it is; an `end` of 0 or less: to its end. `speed`: 1.0 is real time; with `scale` it
    // is the Scale header (RFC 2326 12.34), otherwise Speed (12.35). 0, or -1 before MSG_RTSP_SETUP_READY or after the
    // end. MSG_RTSP_PLAY_READY follows; of more than 20 calls without an answer, the last one counts.
    int Play(float begin, float end, float speed, bool scale);
    // The same by wall time (RFC 2326 3.7), and by SMPTE time (3.5). Null: not given.
    int Play(UtcTime* begin, UtcTime* end, float speed, bool scale);
    int Play(SmpteTime* begin, SmpteTime* end, float speed, bool scale);
    // Holds the stream until the next Play; nothing before MSG_RTSP_SETUP_READY. MSG_RTSP_PAUSE_READY follows,
    // one for all calls that come before the server's answer.
    void Pause();

    // What the session is going to deliver; null before MSG_RTSP_SETUP_READY, and for a stream without a description.
    // Valid until Close; but if a server redirects again and again after PLAY, only the views of the last eight
    // MSG_RTSP_SETUP_READY are kept.
    CSdpInfo* GetSdpInfo();

    // Adds a header to the requests of `method`, or replaces it: at most 256 characters of `key` and 1024 of `value`,
    // which may be null for an empty one. 0, or -1 for an unknown method, or a null or too long text, or one with line
    // ends.
    int SetCmdExtKey(rtsp_method_t method, const char* key, const char* value);
    // Sends a request of `method`, usually SET_PARAMETER or GET_PARAMETER, with `body` as text/parameters; null for
    // none. When it is answered with a body, `out` (may be null) gets the first `out_length` - 1 bytes of that and a
    // NUL. It is written once at most: before MSG_RTSP_PARAMETER_REPLY, which a successful GET_PARAMETER doesn't bring,
    // and never after MSG_RTSP_TEARDOWN is posted or Close has returned; it must live until then. A refusal ends that
    // request only. 0; -1: an unknown method, a body that doesn't fit a message, before Start or after Close, between
    // the two servers of a redirect, or 64 requests wait for their reply.
    int SendExtMsg(rtsp_method_t method, const char* body, char* out, int out_length);
    // The user and password for the server's challenges; before Start. They go to the host and port of the URL of Start
    // only, and never into the log. A null password is empty. 0, or -1 for a null user.
    int SetAuthInfo(const char* user, const char* password);
    // What keeps the server's session alive: RTSP_METHOD_OPTIONS (the default; GET_PARAMETER once the server has
    // offered that) or RTSP_METHOD_GET_PARAMETER, every 30 seconds or half of the time-out that the server announces;
    // any other method: nothing. 0.
    int SetKeepAlive(rtsp_method_t method);
    // The form of packets to ask for over TCP: PACKET_TYPE_RTP, PACKET_TYPE_KX, or PACKET_TYPE_NONE for what the
    // server's description offers (the default). UDP always takes RTP. Before Start.
    void SetPacketType(packet_type_t packet_type);
    // Ends the session when a playing stream is silent for that long, in whole seconds, and at most twice that; 0 (the
    // default): never. The time in which a sink keeps the receiver isn't counted. 0.
    int SetStreamIdleTimeout(unsigned int ms);
    // True: as the RFCs have it, where the default differs for older peers: receiver reports with loss, jitter, LSR and
    // DLSR and an SSRC of their own (RFC 3550 6.4), sent to the source that the server names and going on after one
    // that could not be sent, a BYE of all tracks ends the stream in order, every request but TEARDOWN is repeated
    // after a challenge and TEARDOWN is signed, challenges are read and answered as RFC 2617 has them, the best of
    // several, and given up at the first refusal of an answer to a fresh one, user and password of a URL may be
    // percent-encoded (RFC 3986 2.1), and requests of the server's own are answered, OPTIONS and GET_PARAMETER by 200
    // and others by 501 (RFC 2326 10). Before Start.
    void SetConformance(bool on);

    // Sends `length` bytes of A-law audio (8000 Hz mono) over the device's back channel: one packet each. Nothing
    // happens without RTSP_CLIENT_BACK_CHANNEL, before Play, or for a stream without a back channel. At most 64 kB
    // wait to be sent; what comes beyond that is dropped.
    void Put(unsigned char* data, int length);

    // Maps an RTP time stamp of the video ('V') or audio ('A') track to the server's wall clock, by its last sender
    // report (RFC 3550 6.4.1): microseconds since 1970 UTC. 0, or -1 without such a track or before its first report.
    int GetWallTime(char kind, uint32_t rtp_timestamp, int64_t& utc_us);
    // What was received since Start.
    void GetStatistics(RtspClientStatistics& statistics);
    // Why it ended; to be asked at MSG_RTSP_TEARDOWN.
    rtsp_client_failure_t GetFailure();

    // Of the library.
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int64_t handle_timeout(long timer_id) override;
    int handle_close(CNetHandler* handler) override;

private:
    struct VIDORA_LOCAL Internal;
    CRtspClientSession();
    ~CRtspClientSession() override;

    int make_engine();
    int start(const char* url, long notify_id, rtp_protocol_t transport, int sock);
    int play(const client_play& play);
    void report_progress(unsigned int msg, long param);
    void finish(long param);
    void take_end_of_engine();
    void redirect(long param);
    void follow_redirect();
    void start_redirected();

    Internal* m_internal;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTSPCLIENTSESSION_H
