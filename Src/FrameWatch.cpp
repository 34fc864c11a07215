#include "FrameWatch.h"

#include <cstdlib>
#include <mutex>

#include "FrameInfo.h"

namespace Kavio {
namespace Vidora {

namespace {

std::atomic<bool> delay_log{false};

void set_delay_log_command(int argc, char** argv) {
    CFrameWatch::SetDelayLog(argc > 1 ? atoi(argv[1]) : 1);
}

void print_delay(const CSockAddrStorage& peer, const CFrameInfo& info, const void* session) {
    char text[64];
    peer.GetIpStr(text, sizeof(text));
    R3Printf("[Vidora]  Client[%s:%d] frame index[%d], frame type=%c,  delay %llu ms, this %p\n", text, peer.GetPort(),
             static_cast<int>(info.m_frame_index), info.m_frame_type,
             static_cast<unsigned long long>(CTime::getCurrentMilliSecond() - info.m_time_ms), session);
}

}  // namespace

void CFrameWatch::SetDelayLog(int on) {
    delay_log = on != 0;
}

void CFrameWatch::RegisterConsole() {
    static std::once_flag once;
    std::call_once(once, [] {
        Ostra::R3Register(reinterpret_cast<void*>(&set_delay_log_command), "rtspdelay",
                          "rtspdelay 0|1: print the delay of each frame of each RTSP session");
    });
}

void CFrameWatch::Forget(int send_channel) {
    if (send_channel >= 0 && send_channel < CTrackTable::MAX_TRACKS) {
        m_last[send_channel] = 0;
    }
}

void CFrameWatch::ForgetAll() {
    for (std::atomic<unsigned int>& last : m_last) {
        last = 0;
    }
}

void CFrameWatch::OnFrame(CMediaPacket* packet, int length, int /*unused*/) {
    if (packet == nullptr || length < 1) {
        return;
    }
    const CFrameInfo& info = *static_cast<const CFrameInfo*>(packet);
    if (info.m_track >= static_cast<unsigned int>(CTrackTable::MAX_TRACKS)) {
        return;
    }
    const unsigned int last = m_last[info.m_track].exchange(info.m_frame_index);
    if (last == 0) {
        return;
    }
    const bool lost = info.m_frame_index - last != 1;
    if (lost && m_lost_log.Pass()) {
        logError("%s %d The Event:Lost Packet Happened! Statis: last[%d] -> new[%d], frame type=%c. \n", __FILE__,
                 __LINE__, static_cast<int>(last), static_cast<int>(info.m_frame_index), info.m_frame_type);
    }
    if (delay_log.load(std::memory_order_relaxed)) {
        print_delay(m_peer, info, this);
    }
    if (lost && m_losses.fetch_add(1) == 0) {
        m_link.Post(m_msg, 0);
    }
}

}  // namespace Vidora
}  // namespace Kavio
