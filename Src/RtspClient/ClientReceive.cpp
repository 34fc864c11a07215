#include "RtspClient/ClientReceive.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

namespace {

const size_t MAX_REPLIES = 64;
const size_t MAX_REPLY_BYTES = 64 * 1024;
const size_t MAX_REPORTS = 64;
const size_t MAX_REPORT_BYTES = 16 * 1024;

}  // namespace

CClientReceive::CClientReceive(CClientHandler& handler, unsigned int work_msg, IReceiveUser& user)
    : m_user(user),
      m_replies(handler, work_msg, MAX_REPLIES, MAX_REPLY_BYTES),
      m_reports(handler, work_msg, MAX_REPORTS, MAX_REPORT_BYTES) {}

CClientReceive::~CClientReceive() = default;

void CClientReceive::SetBuffer(CMediaBuffer* buffer) {
    CGuard guard(m_mutex);
    m_buffer = m_dropped ? nullptr : buffer;
}

void CClientReceive::DropBuffer() {
    CGuard guard(m_mutex);
    m_dropped = true;
    m_buffer = nullptr;
    if (m_receiver != nullptr) {
        m_receiver->DropMediaBuffer();
    }
}

int CClientReceive::Begin(CStreamReceiver* receiver, const receiver_tracks_t& tracks, packet_type_t packet_type,
                          const char* url) {
    CGuard guard(m_mutex);
    m_receiver = receiver;
    m_receiver_id = receiver->GetID();
    m_counted.reset(new (std::nothrow) reception_stats_t[static_cast<size_t>(std::max(tracks.count, 0))]);
    m_tracks = m_counted != nullptr ? tracks : receiver_tracks_t();
    receiver->SetUrl(url);
    receiver->SetMediaBuffer(m_buffer);
    receiver->SetProcs(CStreamReceiver::unit_proc_t(this, &CClientReceive::on_rtcp),
                       CStreamReceiver::rtsp_proc_t(this, &CClientReceive::on_rtsp));
    if (packet_type == PACKET_TYPE_KX) {
        receiver->SetRtpProc(CStreamReceiver::unit_proc_t(this, &CClientReceive::on_frame));
    }
    return receiver->SetTracks(m_tracks) < 0 || receiver->Start(0, 1.0F) < 0 ? -1 : 0;
}

void CClientReceive::Stop() {
    if (m_receiver != nullptr) {
        m_receiver->Stop();
    }
}

void CClientReceive::End() {
    m_replies.Close();
    m_reports.Close();
    CGuard guard(m_mutex);
    if (m_receiver == nullptr) {
        return;
    }
    count_locked();
    CStreamReceiver* receiver = m_receiver;
    m_receiver = nullptr;
    receiver->DropMediaBuffer();
    receiver->Stop();
    receiver->Close();
}

bool CClientReceive::OnClosed(long sender_id) {
    if (sender_id == m_receiver_id) {
        m_receiver_id = 0;
    }
    return m_receiver_id == 0;
}

void CClientReceive::RunWork() {
    m_replies.Run();
    m_reports.Run();
    if (m_flooded.load()) {
        m_user.OnReplyFlood();
    }
}

bool CClientReceive::TakeLife() {
    if (m_receiver == nullptr) {
        return false;
    }
    const receiver_life_t life = m_receiver->GetLife();
    const bool lives = life.busy || life.units != m_last_units;
    m_last_units = life.units;
    return lives;
}

bool CClientReceive::TakeStats(int channel, reception_stats_t& stats) {
    CGuard guard(m_mutex);
    if (m_receiver == nullptr) {
        return false;
    }
    count_locked();
    stats = m_receiver->GetStats(channel, true);
    return true;
}

bool CClientReceive::GetStats(int channel, reception_stats_t& stats) {
    CGuard guard(m_mutex);
    if (m_receiver == nullptr) {
        return false;
    }
    stats = m_receiver->GetStats(channel, false);
    return true;
}

void CClientReceive::GetTotals(RtspClientStatistics& totals) {
    CGuard guard(m_mutex);
    count_locked();
    totals.packets += m_totals.packets + m_frames.load();
    totals.bytes += m_totals.bytes + m_frame_bytes.load();
    totals.lost += m_totals.lost;
}

// Adds what came since the last call: the receiver's counters have 32 bits, which a fast stream fills in minutes.
void CClientReceive::count_locked() {
    for (int i = 0; m_receiver != nullptr && i < m_tracks.count; ++i) {
        const reception_stats_t now = m_receiver->GetStats(m_tracks.tracks[i].rtp_channel, false);
        reception_stats_t& counted = m_counted[static_cast<size_t>(i)];
        m_totals.packets += now.packets - counted.packets;
        m_totals.bytes += now.octets - counted.octets;
        m_totals.lost += now.lost_total - counted.lost_total;
        counted = now;
    }
}

void CClientReceive::on_rtcp(const unsigned char* data, int length, int channel) {
    try {
        std::string compound(reinterpret_cast<const char*>(data), static_cast<size_t>(length));
        const size_t size = compound.size();
        m_reports.Put([this, compound = std::move(compound), channel] { m_user.OnReceivedRtcp(compound, channel); },
                      size);
    } catch (const std::bad_alloc&) {
        return;  // as one that the network lost
    }
}

void CClientReceive::on_rtsp(const char* text, int length) {
    bool kept = false;
    try {
        std::string reply(text, static_cast<size_t>(length));
        const size_t size = reply.size();
        kept = m_replies.Put([this, reply = std::move(reply)] { m_user.OnReceivedReply(reply); }, size) == 0;
    } catch (const std::bad_alloc&) {
        kept = false;
    }
    if (!kept) {
        m_flooded.store(true);
    }
}

void CClientReceive::on_frame(const unsigned char*, int length, int) {
    m_frames.fetch_add(1, std::memory_order_relaxed);
    m_frame_bytes.fetch_add(static_cast<uint64_t>(length), std::memory_order_relaxed);
}

}  // namespace Vidora
}  // namespace Kavio
