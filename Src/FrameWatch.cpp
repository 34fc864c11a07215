#include "FrameWatch.h"

#include <cstdlib>
#include <mutex>

#include "Tramel/MediaStreamSender.h"

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
    Tramel::CMediaStreamSender::TellAll(on != 0);
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

CFrameWatch::step_t CFrameWatch::take(CMediaPacket* packet, int length) {
    step_t step;
    if (packet == nullptr || length < 1) {
        return step;
    }
    step.info = static_cast<const CFrameInfo*>(packet);
    if (step.info->m_track < static_cast<unsigned int>(CTrackTable::MAX_TRACKS)) {
        step.last = m_last[step.info->m_track].exchange(step.info->m_frame_index);
    }
    return step;
}

void CFrameWatch::OnFrame(CMediaPacket* packet, int length, int before) {
    if (packet == nullptr || length < 1 || before == 0) {
        return;
    }
    step_t step;
    step.last = static_cast<unsigned int>(before);
    step.info = static_cast<const CFrameInfo*>(packet);
    const CFrameInfo& info = *step.info;
    if (step.IsLoss() && m_lost_log.Pass()) {
        logError("%s %d The Event:Lost Packet Happened! Statis: last[%d] -> new[%d], frame type=%c. \n", __FILE__,
                 __LINE__, static_cast<int>(step.last), static_cast<int>(info.m_frame_index), info.m_frame_type);
    }
    if (delay_log.load(std::memory_order_relaxed)) {
        print_delay(m_peer, info, this);
    }
    if (step.IsLoss()) {
        tell_loss();
    }
}

void CFrameWatch::OnDatagrams(CMediaPacket* packet, int length, int /*unused*/) {
    const step_t step = take(packet, length);
    if (!step.IsLoss()) {
        return;
    }
    if (m_lost_log.Pass()) {
        logError("%s %d The Event:Lost Packet Happened! Statis: last[%d] -> new[%d]\n", __FILE__, __LINE__,
                 static_cast<int>(step.last), static_cast<int>(step.info->m_frame_index));
    }
    tell_loss();
}

void CFrameWatch::tell_loss() {
    if (m_losses.fetch_add(1) == 0) {
        m_link.Post(m_msg, 0);
    }
}

}  // namespace Vidora
}  // namespace Kavio
