#ifndef VIDORA_P2PUDPSENDER_H
#define VIDORA_P2PUDPSENDER_H

#include <cstdint>

#include "TrackSwitch.h"
#include "Tramel/PooledSink.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CP2PUdpSender: the sink that sends a stream's packets over the one socket of a NAT session, to the peer that the
// socket is connected to. It takes the packets of all tracks with their interleave headers (RFC 2326 10.12), and sends
// each as a datagram without its header. What a full socket has no room for is lost; nobody is waited for.
//
// THREADING  Put, PutInfo: the thread that writes for the buffer, not twice at once. SetChannel, ClearChannel,
//            PauseChannel: another thread, one at a time. SetSock, SetFrameProc: before the first Put.
// OWNERSHIP  The socket is borrowed, and outlives the sender; other threads may send and receive on it meanwhile.
class CP2PUdpSender : public Tramel::CPooledSink {
public:
    typedef TFunction3<void, CMediaPacket*, int, int> frame_proc_t;

    // Sends the packets in the first `length` bytes of `packet`. The top byte of `tag` is the track; packets of one
    // that is off, or above 7, are dropped: 0. `length`, or -1 if the bytes aren't whole packets (those in front of the
    // fault are sent) or the socket failed.
    int Put(CMediaPacket* packet, int length, int flag, int tag) override;

    // Tells of the frame that has just been put if all of it was sent.
    void PutInfo(CMediaPacket* packet, int length) override;

    void SetSock(CSockDgram* sock) { m_sock = sock; }
    // Gets the side packets of the frames that were sent whole, see CMediaStreamSender::AttachSendProc.
    void SetFrameProc(const frame_proc_t& proc) { m_frame_proc = proc; }
    // Switches tracks, 0 to 7. All are on at first; the first SetChannel leaves only its own on. Negative: all on.
    void SetChannel(int channel) { m_tracks.On(channel); }
    void ClearChannel(int channel) { m_tracks.Off(channel); }
    // As ClearChannel; switched on again the track goes on with its next key frame, if it has such frames.
    void PauseChannel(int channel) { m_tracks.Pause(channel); }

private:
    void report_failure();

    CSockDgram* m_sock = nullptr;
    frame_proc_t m_frame_proc;
    CTrackSwitch m_tracks;
    // Of Put.
    bool m_sent_whole = false;      // the last frame
    bool m_failing = false;         // the last Put
    uint64_t m_last_report_ms = 0;  // of a failure
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_P2PUDPSENDER_H
