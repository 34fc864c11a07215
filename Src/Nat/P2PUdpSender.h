#ifndef VIDORA_P2PUDPSENDER_H
#define VIDORA_P2PUDPSENDER_H

#include <cstdint>

#include "OutletSink.h"
#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CP2PUdpSender: the sink that sends a stream's packets over the one socket of a NAT session, to the peer that the
// socket is connected to. It takes the packets of all tracks with their interleave headers (RFC 2326 10.12), and sends
// each as a datagram without its header. What a full socket has no room for is lost; nobody is waited for.
//
// The socket is left in the sender's entry (see CPooledSink) unless it failed last, and the numbers of the frames are
// counted there: as long as none is missing the group sends without calling.
//
// THREADING  Put, PutRest, SentWhole, PutInfo: as CPooledSink. SetChannel, ClearChannel, PauseChannel: any thread.
//            SetSock, SetFrameProc: before it enters a buffer.
// OWNERSHIP  The socket is borrowed, and outlives the sender; other threads may send and receive on it meanwhile.
class CP2PUdpSender : public COutletSink {
public:
    typedef TFunction3<void, CMediaPacket*, int, int> frame_proc_t;

    // Sends the packets in the first `length` bytes of `packet`. The top byte of `tag` is the track; packets of one
    // that is off, or above 7, are dropped: 0. `length`, or -1 if the bytes aren't whole packets (those in front of the
    // fault are sent) or the socket failed.
    int PutRest(CMediaPacket* packet, int offset, int length, int tag) override;
    bool SentWhole() const override { return m_whole_track != NO_TRACK; }
    void PutInfo(CMediaPacket* packet, int length, int before) override { m_frame_proc(packet, length, before); }
    void EnterPlace(Tramel::CSinkEntry& entry) override;

    void SetSock(CSockDgram* sock) { m_sock = sock; }
    // Gets the side packets of frames that don't follow the one before, see CMediaStreamSender::AttachSendProc.
    void SetFrameProc(const frame_proc_t& proc) { m_frame_proc = proc; }
    // Switches tracks, 0 to 7. All are on at first; the first SetChannel leaves only its own on. Negative: all on. The
    // next frame of a track that is switched on, or was on already, counts as following.
    void SetChannel(int channel);
    void ClearChannel(int channel);
    // As ClearChannel; switched on again the track goes on with its next key frame, if it has such frames.
    void PauseChannel(int channel);

private:
    static constexpr int NO_TRACK = -1;

    void fill_locked(Tramel::CSinkEntry& entry) VIDORA_REQUIRES(m_mutex) override;
    void report_failure();

    CSockDgram* m_sock = nullptr;
    frame_proc_t m_frame_proc;
    // Of Put; the track also of SetChannel, under the entry's turn.
    int m_whole_track = NO_TRACK;                       // of the last frame, if all of it was sent
    bool m_failing VIDORA_GUARDED_BY(m_mutex) = false;  // the last Put
    uint64_t m_last_report_ms = 0;                      // of a failure
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_P2PUDPSENDER_H
