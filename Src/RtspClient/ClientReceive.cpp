#include "RtspClient/ClientReceive.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

namespace {

// A server that only answers finds room for each reply: those to the application may be long, the others are short.
const size_t MAX_REPLIES = CLIENT_MAX_REQUESTS;
const size_t MAX_REPLY_BYTES = (CLIENT_MAX_PENDING + 16) * static_cast<size_t>(RTSP_MAX_MESSAGE);
const int MAX_BYES = 32;  // beside them: two a track

}  // namespace

CClientReceive::CClientReceive(CClientHandler& handler, unsigned int work_msg, IReceiveUser& user)
    : m_user(user), m_inbox(handler, work_msg, MAX_REPLIES + MAX_BYES, MAX_REPLY_BYTES) {}

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
    receiver->SetProcs(CStreamReceiver::rtcp_proc_t(this, &CClientReceive::on_rtcp),
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
    m_inbox.Close();
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
    m_inbox.Run();
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

// Adds what came since the last call: the receiver's count of losses has 32 bits.
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

// One that isn't kept is as one that the network lost.
void CClientReceive::on_rtcp(const rtcp_digest_t& digest, int channel) {
    if (!digest.has_bye || m_byes.load() >= MAX_BYES) {
        return;
    }
    ++m_byes;
    const auto take = [this, digest, channel] {
        --m_byes;
        m_user.OnReceivedBye(digest, channel);
    };
    if (m_inbox.Put(take) < 0) {
        --m_byes;
    }
}

void CClientReceive::on_rtsp(const char* text, int length) {
    bool kept = false;
    try {
        std::string reply(text, static_cast<size_t>(length));
        const size_t size = reply.size();
        kept = m_inbox.Put([this, reply = std::move(reply)] { m_user.OnReceivedReply(reply); }, size) == 0;
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
