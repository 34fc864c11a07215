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

// Null if there is nothing to compare it with.
const CFrameInfo* frame_of(CMediaPacket* packet, int length, int before) {
    return packet != nullptr && length > 0 && before != 0 ? static_cast<const CFrameInfo*>(packet) : nullptr;
}

bool is_gap(const CFrameInfo& info, int before) {
    return info.m_frame_index - static_cast<unsigned int>(before) != 1;
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

void CFrameWatch::OnFrame(CMediaPacket* packet, int length, int before) {
    const CFrameInfo* info = frame_of(packet, length, before);
    if (info == nullptr) {
        return;
    }
    const bool is_loss = is_gap(*info, before);
    if (is_loss && m_lost_log.Pass()) {
        logError("%s %d The Event:Lost Packet Happened! Statis: last[%d] -> new[%d], frame type=%c. \n", __FILE__,
                 __LINE__, before, static_cast<int>(info->m_frame_index), info->m_frame_type);
    }
    if (delay_log.load(std::memory_order_relaxed)) {
        print_delay(m_peer, *info, this);
    }
    if (is_loss) {
        tell_loss();
    }
}

void CFrameWatch::OnDatagrams(CMediaPacket* packet, int length, int before) {
    const CFrameInfo* info = frame_of(packet, length, before);
    if (info == nullptr || !is_gap(*info, before)) {
        return;
    }
    if (m_lost_log.Pass()) {
        logError("%s %d The Event:Lost Packet Happened! Statis: last[%d] -> new[%d]\n", __FILE__, __LINE__, before,
                 static_cast<int>(info->m_frame_index));
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
