#ifndef VIDORA_FRAMEWATCH_H
#define VIDORA_FRAMEWATCH_H

#include <atomic>

#include "FrameInfo.h"
#include "Ostra/LogGate.h"
#include "SvrLink.h"
#include "TrackTable.h"

namespace Kavio {
namespace Vidora {

// CFrameWatch: sees which frames go to one client, and so which it loses; and prints their delay, if told to.
//
// THREADING  OnFrame, OnDatagrams: the thread that writes for the sink, not twice at once. All others: the
//            conversation's strand, which hears of losses by a message.
class CFrameWatch {
public:
    // `msg` goes to the link when frames were lost.
    CFrameWatch(ISvrLink& link, unsigned int msg) : m_link(link), m_msg(msg) {}

    // 1 prints the delay of every frame to the debug console, for all sessions of the process; 0, the default, doesn't.
    // The console command "rtspdelay 0|1", which RegisterConsole adds once, does the same. Any thread.
    static void SetDelayLog(int on);
    static void RegisterConsole();

    // Before the first frame: the client, for the lines of the log.
    void SetPeer(const CSockAddrStorage& peer) { m_peer = peer; }
    // The track that is switched by `send_channel` counts anew: its next frame is no loss.
    void Forget(int send_channel);
    void ForgetAll();
    // How many gaps there were since the last call.
    unsigned int TakeLosses() { return m_losses.exchange(0); }

    // A send procedure of CMediaStreamSender, which need hear of gaps alone: `before` is the frame that the client had
    // last of the track, 0 for none.
    void OnFrame(CMediaPacket* packet, int length, int before);
    // The one of datagrams, which hears of every frame, and whose delay isn't traced.
    void OnDatagrams(CMediaPacket* packet, int length, int unused);

private:
    struct step_t {
        unsigned int last = 0;             // 0: nothing to compare with
        const CFrameInfo* info = nullptr;  // of the frame now

        bool IsLoss() const { return last != 0 && info->m_frame_index - last != 1; }
    };

    step_t take(CMediaPacket* packet, int length);
    void tell_loss();

    ISvrLink& m_link;
    const unsigned int m_msg;
    CSockAddrStorage m_peer;
    std::atomic<unsigned int> m_last[CTrackTable::MAX_TRACKS] = {};  // frame number by track; 0: none yet
    std::atomic<unsigned int> m_losses{0};
    Ostra::CLogGate m_lost_log;  // of OnFrame
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_FRAMEWATCH_H
