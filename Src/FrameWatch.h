#ifndef VIDORA_FRAMEWATCH_H
#define VIDORA_FRAMEWATCH_H

#include <atomic>

#include "FrameInfo.h"
#include "Ostra/LogGate.h"
#include "SvrLink.h"

namespace Kavio {
namespace Vidora {

// CFrameWatch: hears which frames one client lost; and prints the delay of all, if told to.
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
    // How many gaps there were since the last call.
    unsigned int TakeLosses() { return m_losses.exchange(0); }

    // The send procedure of a client's sender, which need hear of gaps alone: `before` is the frame that the client had
    // last of the track, 0 for none.
    void OnFrame(CMediaPacket* packet, int length, int before);
    // The one of datagrams, whose delay isn't traced.
    void OnDatagrams(CMediaPacket* packet, int length, int before);

private:
    void tell_loss();

    ISvrLink& m_link;
    const unsigned int m_msg;
    CSockAddrStorage m_peer;
    std::atomic<unsigned int> m_losses{0};
    Ostra::CLogGate m_lost_log;  // of the procedures
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_FRAMEWATCH_H
