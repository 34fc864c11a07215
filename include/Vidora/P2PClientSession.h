#ifndef VIDORA_P2PCLIENTSESSION_H
#define VIDORA_P2PCLIENTSESSION_H

#include "Vidora/Export.h"
#include "Vidora/Names.h"
#include "Vidora/RtspClientSession.h"

namespace Kavio {
namespace Vidora {

// CP2PClientSession: pulls a stream through NATs: the RTSP conversation (RFC 2326) and the RTP packets (RFC 3550) share
// one UDP socket, for which the host has opened the way to the server, by whatever rendezvous both have. It is used as
// CRtspClientSession is, whose header lists the messages, codes and failures.
//
//     CP2PClientSession* session = CP2PClientSession::Create();
//     session->Start("rtsp://192.0.2.7:40000/Live/Channel=1", GetID(), sock);  // this handler gets the notifications
//     at MSG_RTSP_SETUP_READY: GetSdpInfo, GetMediaBuffer()->AddLevel2Buffer, Play
//     at MSG_RTSP_TEARDOWN, or whenever the host has had enough:
//         GetMediaBuffer()->DelLevel2Buffer, Close, and then delete the sink
//
// The client says hello to the URL's address each second until the server answers, and every five seconds from then on.
// Without an answer in five seconds the session is over, with RTSP_CLIENT_CODE_CONNECTION. A request that isn't
// answered is repeated each second; one that waits 31 seconds ends a session that doesn't play. There is no TCP,
// multicast, back channel or private kind, no receiver report, and no redirect: a server that redirects ends the
// session with its status.
//
// THREADING, OWNERSHIP  As with CRtspClientSession.
// MEMORY     About 40 kB before the media come. A server can make a session keep its description, 320 kB of replies,
//            and frames in work of 2 MiB a track.
class VIDORA_API CP2PClientSession : public CNetHandler {
public:
    // A session; null if memory is short.
    static CP2PClientSession* Create();

    // `url`: as in CRtspClientSession::Start, but the host must be an IPv4 or IPv6 address: where the server's NAT is
    // reached. `handler_id`: the handler that gets the notifications. `sock_handle`: a bound UDP socket, which is
    // connected to the server when that answers. 0: the session owns it, and closes it when it has ended, after Close.
    // -1 with a log line: null, not such a URL or socket, a second start; the socket stays the caller's, and may have
    // been made non-blocking.
    int Start(const char* url, long handler_id, int sock_handle);
    // Ends the session, see CRtspClientSession::Close. Any thread, also inside callbacks. A second call does nothing.
    void Close() override;

    // Where the media go, see CRtspClientSession::GetMediaBuffer; never null before Close.
    CMediaBuffer* GetMediaBuffer();
    // Starts the stream, moves in it, or resumes it. 0, or -1 before MSG_RTSP_SETUP_READY or after the end.
    int Play(float begin, float end, float speed, bool scale);
    // Holds the stream until the next Play; nothing before MSG_RTSP_SETUP_READY.
    void Pause();
    // What the session is going to deliver; null before MSG_RTSP_SETUP_READY. Valid until Close.
    CSdpInfo* GetSdpInfo();

    // The user and password for the server's challenges; before Start. A null password is empty. 0, or -1 for a null
    // user.
    int SetAuthInfo(const char* user, const char* password);
    // Ends the session when a playing stream is silent for that long, in whole seconds, and at most twice that; 0 (the
    // default): never. 0.
    int SetStreamIdleTimeout(unsigned int ms);

    // What was received since Start.
    void GetStatistics(RtspClientStatistics& statistics);
    // Why it ended; to be asked at MSG_RTSP_TEARDOWN.
    rtsp_client_failure_t GetFailure();

    // True: as CRtspClientSession::SetConformance, and what the server sends of RTCP is read (RFC 3550 6, on the one
    // socket as in RFC 5761): its BYE ends the session, with RTSP_CLIENT_CODE_ENDED when all tracks have had one, and
    // its sender reports serve GetWallTime. Otherwise (the default) RTCP is dropped, and the end of a recording shows
    // as silence alone. Before Start.
    void SetConformance(bool on);
    // See CRtspClientSession::GetWallTime.
    int GetWallTime(char kind, uint32_t rtp_timestamp, int64_t& utc_us);

    // Of the library.
    int handle_message(long sender_id, unsigned int msg, long param) override;
    int handle_close(CNetHandler* handler) override;

private:
    struct VIDORA_LOCAL Internal;
    CP2PClientSession();
    ~CP2PClientSession() override;

    void pass_on(unsigned int msg, long param);

    Internal* m_internal;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_P2PCLIENTSESSION_H
