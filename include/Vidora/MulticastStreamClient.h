#ifndef VIDORA_MULTICASTSTREAMCLIENT_H
#define VIDORA_MULTICASTSTREAMCLIENT_H

#include <cstdint>

#include "Vidora/Export.h"
#include "Vidora/Flumen/MediaFrame.h"
#include "Vidora/Names.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// What the datagrams of a group hold.
enum ClientType {
    ClientType_RTP = 1,  // one RTP packet each (RFC 3550)
    ClientType_TS = 2    // packets of a transport stream of 188 bytes each (ISO 13818-1), without RTP
};

// What a client for RTP has to know of a track, since there is no description.
struct multicast_track_info_t {
    int32_t encode = 0;  // enc_type_t, 1 to 6: up to 3 the track is video, of payload type 96; from 4 on audio, of 8
    int32_t sample_rate = 0;  // audio, in hertz: a rate of kx_sample_rate; any other counts as 8000
};

// IMulticastStreamClient: receives a multicast stream without RTSP. It joins the group and hands out whole frames in
// the private format (see KXFrame.h). Of a transport stream these are the frames of its first track; of RTP one video
// and one audio track, each from a group or port of its own.
//
// Order of use:
//     CNetThread::CreateThreadPool
//     Create
//     Start, for RTP once for each track
//     Stop
//
// Datagrams that are no part of the stream are dropped: what is not RTP of the track's payload type, and what does not
// begin with the sync byte of a transport stream, and one that is the same as the one before. Of a datagram that ends
// within a TS packet the whole packets count. Whoever may send to the group is heard, there is no filter of senders.
// Silence is no end: a group may rest for any time.
//
// THREADING  Create: any thread. Start: any thread, also inside the callback; of two at once for one kind of track one
//            may fail. Stop: any thread, also inside the callback, once, and no call begins after it; a Start that runs
//            by then fails, or its track ends at once. The callback runs on a thread of the pool, one at a time for all
//            tracks of the client; a slow one holds up its own client only. Start and Stop wait for a callback that
//            runs on another thread: hold no lock then that the callback takes, and let no two clients' callbacks stop
//            each other.
// OWNERSHIP  The client frees itself after Stop and is never deleted by the host. When the thread pool is destroyed
//            after Stop, or there is none, it ends at the next one. What `proc` binds is borrowed until Stop returns;
//            if Stop is called inside the callback, until that callback returns.
// MEMORY     For each track a socket with 1 MiB of room in the system and a frame in the making, at most 2 MiB of a
//            transport stream and 8 MiB of RTP; all clients of a thread share what datagrams are read into.
class VIDORA_API IMulticastStreamClient {
public:
    // Gets each frame; the handle may be kept. As there is no description, an audio frame bears the encode code 10
    // (KX_AUDIO_PCMU) whatever its samples are; those are the payload as it came, by the payload type 8 A-law (RFC
    // 3551). A host that knows its group reads them by what it knows, not by that code. An invalid frame says that a
    // socket failed: it is the last call for the track, and Stop or another Start is what is left.
    typedef TFunction1<void, const Flumen::CMediaFrame&> frame_proc_t;

    // For the client itself: hosts call Stop.
    virtual ~IMulticastStreamClient();
    // Leaves the groups and ends the client. No callback starts after it.
    virtual void Stop() = 0;
    // Joins the group `multicast_addr`, in dotted text, on the interface that the system routes it to, and receives on
    // `multicast_port`, 1 to 65535. An address that is no group is one of this host, to which the stream is sent by
    // unicast. `info` null: a transport stream. Otherwise a track of RTP, copied within the call. A track of the same
    // kind that is received by now ends first, whatever comes of the new one; its callback is not called any more.
    // 0, or -1 with a log line: null or not valid, the wrong type of client, `encode` out of range, no socket; without
    // a thread pool, or if memory is short.
    virtual int Start(const char* multicast_addr, int multicast_port, frame_proc_t proc,
                      const multicast_track_info_t* info) = 0;

    // A client for RTP, or for anything else than ClientType_RTP one for a transport stream; null if memory is short.
    static IMulticastStreamClient* Create(ClientType type);

protected:
    IMulticastStreamClient();
    IMulticastStreamClient(const IMulticastStreamClient&) = delete;
    IMulticastStreamClient& operator=(const IMulticastStreamClient&) = delete;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_MULTICASTSTREAMCLIENT_H
