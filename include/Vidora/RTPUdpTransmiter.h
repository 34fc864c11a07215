#ifndef VIDORA_RTPUDPTRANSMITER_H
#define VIDORA_RTPUDPTRANSMITER_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Ostra/Function.h"

namespace Kavio {
namespace Vidora {

// What a transmitter has received since Create.
struct RtpUdpStatistics {
    uint64_t packets = 0;   // RTP packets that were taken
    uint64_t bytes = 0;     // of those, with their RTP headers
    uint64_t foreign = 0;   // datagrams that another than the remote has sent: dropped
    uint64_t repeated = 0;  // RTP packets that came twice in a row: the second is dropped
    uint64_t damaged = 0;   // datagrams that are no RTP packet of the track, or that couldn't be decoded: dropped
};

// IRTPUdpTransmiter: sends the frames of one track as RTP over UDP (RFC 3550), and receives such a track by the same
// socket. For a host that negotiates the track by a signalling of its own, such as SIP (RFC 3261), and has the socket:
// each direction is described by a piece of SDP (RFC 4566).
//
// Order of use:
//     CNetThread::CreateThreadPool, for receiving
//     Create
//     SetSdpInfo for each direction
//     Attach
//     SetRemote
//     StartRecv, and any number of Put
//     Detach, Close
// Each may be called again, and in another order; what comes of it is told below. An object always ends by Close, and
// is never deleted by the host. No RTCP is sent, and what comes of it is dropped.
//
// THREADING  All operations: any thread, also inside the callback. Put of several threads follow one another. Frames
//            come on a thread of the pool, one at a time; a slow callback holds up its own object only. Attach,
//            StartRecv, Detach and Close wait for a callback that runs on another thread (call them with no lock held
//            that it may want), never for one that they are called from. Calls of other threads that have begun when
//            Close is called end in order and do nothing any more.
// OWNERSHIP  The socket is the host's and is never closed here; between Attach and Detach or Close the host leaves it
//            alone. The object frees itself in Close.
// MEMORY     Little of its own. A peer can make it hold the packets of one frame, 8 MiB at most. While receiving, each
//            thread of the pool reads into memory of its own, which all receivers share.
class VIDORA_API IRTPUdpTransmiter {
public:
    // Gets a frame in the private format, see KXFrame.h; its facts are set. An empty frame: the socket has failed and
    // nothing more will come until StartRecv.
    typedef Ostra::TFunction1<void, const Flumen::CMediaFrame&> frame_proc_t;

    // What a description is for.
    enum SDP_TYPE { SDP_TYPE_SEND = 0, SDP_TYPE_RECV = 1 };
    // Whom SetRemote sets the address of.
    enum remote_mode_t { REMOTE_SEND = 0, REMOTE_RECV = 1, REMOTE_BOTH = 2 };

    // A transmitter; null if memory is short.
    static IRTPUdpTransmiter* Create();

    IRTPUdpTransmiter();
    IRTPUdpTransmiter(const IRTPUdpTransmiter& other);
    IRTPUdpTransmiter& operator=(const IRTPUdpTransmiter& other);

protected:
    // First of the virtual operations, whose order hosts that derive from this class rely on.
    virtual ~IRTPUdpTransmiter();

public:
    // Ends it: releases the socket, so that no callback starts and nothing is sent any more, and frees the object.
    virtual void Close();
    // Sets the track of a direction: the first medium of `sdp`, audio (any payload name: G.711, ...) or video (H264,
    // MPEG4, MP4V-ES, JPEG, MP2T). Its addresses and ports are not used. A running direction goes on with it: packets
    // keep their numbers and SSRC; a frame that is half received is dropped. False, with a log line and nothing
    // changed: null, no such direction, no medium, or one that can't be sent or received.
    virtual bool SetSdpInfo(SDP_TYPE type, const char* sdp);
    // Uses the UDP socket `fd`, IPv4 or IPv6, bound as the host likes, which becomes non-blocking and close-on-exec. A
    // former one is given up as by Detach. False, with nothing changed, if it is no UDP socket.
    virtual bool Attach(int fd);
    // Sets the remote's numeric address and port (1 to 65535): to the sending direction, which sends there; to the
    // receiving one, which then drops what others send; or to both. When receiving, an empty `ip` and a `port` of -1
    // mean any; without SetRemote anyone may send. False, with nothing changed: null, no address, another port,
    // or no remote_mode_t.
    virtual bool SetRemote(const char* ip, int port, int mode);
    // Begins to receive, or goes on with another callback. What `proc` is bound to must live until Detach or Close has
    // returned, or the empty frame has come. False, with a log line: an empty `proc` or no socket (a former callback
    // then goes on), or no thread pool.
    virtual bool StartRecv(frame_proc_t proc);
    // Sends a frame, bare (H.264 with start codes) or in the private format, as packets of at most an Ethernet frame;
    // its time stamp in milliseconds becomes that of the packets. It returns when all are with the system: true. False,
    // with a log line once a second at most: the frame doesn't suit the track, there is no socket or no remote, or the
    // socket had no room for all of them; the rest of the frame is then lost.
    virtual bool Put(const Flumen::CMediaFrame& frame);
    // Ends receiving and returns the socket, non-blocking; -1 if there is none.
    virtual int Detach();
    // What was received.
    virtual void GetStatistics(RtpUdpStatistics& statistics);
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_RTPUDPTRANSMITER_H
