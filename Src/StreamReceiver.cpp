#include "StreamReceiver.h"

#include <algorithm>
#include <new>
#include <utility>

#include "FrameMerger.h"
#include "MediaFrame.h"
#include "Protocol/LogQuote.h"
#include "RtpRun.h"
#include "Tramel/Interleave.h"
#include "Tramel/MediaTag.h"
#include "Vidora/KXFrame.h"
#include "Vidora/Ostra/ByteWriter.h"

namespace Kavio {
namespace Vidora {

namespace {

const size_t MAX_URL = 1025;

int tag_of(int channel, bool key) {
    return Tramel::MediaTag{static_cast<uint8_t>(channel / 2),
                            key ? Tramel::MediaTag::KEY_FRAME : Tramel::MediaTag::SKIPPABLE_FRAME}
        .Pack();
}

}  // namespace

CStreamReceiver::CStreamReceiver() = default;

CStreamReceiver::~CStreamReceiver() = default;

int CStreamReceiver::SetTracks(const receiver_tracks_t& tracks) {
    if (tracks.count < 1 || tracks.count > RECEIVER_MAX_TRACKS) {
        return -1;
    }
    m_stats.reset(new (std::nothrow) track_stats_t[static_cast<size_t>(tracks.count)]);
    m_tracks = m_stats != nullptr ? tracks : receiver_tracks_t();
    return m_stats != nullptr ? 0 : -1;
}

// The former buffer's contents, if this is the last user, end outside the lock.
void CStreamReceiver::DropMediaBuffer() {
    CMediaBufferRef former;
    CGuard guard(m_put_mutex);
    std::swap(m_buffer, former);
    m_replaced = true;
}

// Puts into the new buffer that begin meanwhile aren't waited for.
int CStreamReceiver::SetMediaBuffer(CMediaBuffer* buffer) {
    CMediaBufferRef former(buffer);
    CGuard guard(m_put_mutex);
    std::swap(m_buffer, former);
    m_replaced = true;
    const uint64_t put = m_put_count;
    while (m_putting && m_put_count == put && m_put_thread != std::this_thread::get_id()) {
        m_put_wait.Wait(m_put_mutex);
    }
    return 0;
}

void CStreamReceiver::SetProcs(const rtcp_proc_t& rtcp_proc, const rtsp_proc_t& rtsp_proc) {
    m_rtcp_proc = rtcp_proc;
    m_rtsp_proc = rtsp_proc;
}

void CStreamReceiver::SetRtpProc(const unit_proc_t& rtp_proc) {
    m_rtp_proc = rtp_proc;
}

void CStreamReceiver::SetNotifyId(long handler_id) {
    m_notify_id.store(handler_id);
}

void CStreamReceiver::SetUrl(const char* url) {
    try {
        m_url.assign(url != nullptr ? url : "", 0, MAX_URL);
    } catch (const std::bad_alloc&) {
        m_url.clear();
    }
}

reception_stats_t CStreamReceiver::GetStats(int channel, bool clear) {
    const int track = find_rtp_track(channel);
    if (track < 0) {
        return reception_stats_t();
    }
    CGuard guard(m_stats_mutex);
    const reception_stats_t stats = stats_of(track).published.Get(CTime::getCurrentMicroSecond());
    if (clear) {
        stats_of(track).published.Clear();
    }
    return stats;
}

receiver_life_t CStreamReceiver::GetLife() const {
    receiver_life_t life;
    life.busy = m_busy.load();
    life.units = m_units.load();
    return life;
}

// What the receiver holds goes before the owner hears of its end: the owner may then delete what the procedures and the
// buffer belong to.
int CStreamReceiver::handle_close(CNetHandler*) {
    release_socks();
    m_mergers.reset();
    SetMediaBuffer(nullptr);
    const long notify_id = m_notify_id.load();
    if (notify_id != 0) {
        Notify(notify_id, MSG_SOURCE_CLOSED, 0);
    }
    delete this;
    return 0;
}

int CStreamReceiver::find_rtp_track(int channel) const {
    for (int i = 0; i < m_tracks.count; ++i) {
        if (m_tracks.tracks[i].rtp_channel == channel) {
            return i;
        }
    }
    return -1;
}

int CStreamReceiver::find_rtcp_track(int channel) const {
    for (int i = 0; i < m_tracks.count; ++i) {
        if (m_tracks.tracks[i].rtcp_channel == channel) {
            return i;
        }
    }
    return -1;
}

int CStreamReceiver::find_payload_track(int payload_type) const {
    for (int i = 0; i < m_tracks.count; ++i) {
        if (m_tracks.tracks[i].payload_type == payload_type || m_tracks.tracks[i].payload_type < 0) {
            return i;
        }
    }
    return -1;
}

int CStreamReceiver::find_source_track(uint32_t ssrc) const {
    for (int i = 0; i < m_tracks.count; ++i) {
        if (m_stats[static_cast<size_t>(i)].reception.IsOf(ssrc, m_tracks.tracks[i].ssrc)) {
            return i;
        }
    }
    return -1;
}

void CStreamReceiver::mark_arrival() {
    m_arrival_us = CTime::getCurrentMicroSecond();
}

// ---- what the sockets brought ----

int CStreamReceiver::take_datagram(int track, const unsigned char* data, int length) {
    RtpHeader header;
    if (!rtp_parse_header(data, static_cast<size_t>(length), header)) {
        count_short(track);
        return 0;
    }
    const uint32_t size = static_cast<uint32_t>(length);
    const uint8_t channel = m_tracks.tracks[track].rtp_channel;
    count_packet(track, header, size);
    tell_rtp(data, length, channel);
    CFrameMerger* merger = merger_of(track);
    if (merger == nullptr) {
        return -1;
    }
    Ostra::CMemoryTrail::Note(*merger);
    if (merger->EndsBefore(header, size) && put_run(track, merger->Take()) < 0) {
        return -1;
    }
    if (merger->Append(channel, data, size, header) < 0) {
        logError("%s:%d append_data failed!\n", __FILE__, __LINE__);
        return -1;
    }
    const bool ends = header.marker || track >= RECEIVER_MERGED_TRACKS;
    return ends ? put_run(track, merger->Take()) : 0;
}

// The tracks that aren't merged share one merger, which holds nothing from one packet to the next.
CFrameMerger* CStreamReceiver::merger_of(int track) {
    if (m_mergers == nullptr) {
        m_mergers.reset(new (std::nothrow) CFrameMerger[RECEIVER_MERGED_TRACKS + 1]);
    }
    const auto index = static_cast<size_t>(track < RECEIVER_MERGED_TRACKS ? track : RECEIVER_MERGED_TRACKS);
    return m_mergers != nullptr ? &m_mergers[index] : nullptr;
}

int CStreamReceiver::take_run(int track, const Flumen::CMediaFrame& run) {
    CByteReader reader(run.getBuffer(), run.size());
    interleaved_unit_t unit;
    RtpHeader header;
    bool counted = false;
    while (ReadInterleavedUnit(reader, unit)) {
        if (rtp_parse_header(unit.data, unit.length, header)) {
            count_packet(track, header, unit.length);
            counted = true;
        } else {
            count_short(track);
        }
    }
    if (!counted) {
        return 0;
    }
    tell_rtp(run.getBuffer() + Tramel::INTERLEAVE_HEADER_SIZE,
             static_cast<int>(run.size() - Tramel::INTERLEAVE_HEADER_SIZE), m_tracks.tracks[track].rtp_channel);
    return put_run(track, run);
}

int CStreamReceiver::take_kx_frame(int channel, const Flumen::CMediaFrame& frame) {
    count_unit();
    tell_rtp(frame.getBuffer(), static_cast<int>(frame.size()), channel);
    KXHeader header;
    const bool known = kx_read_header(frame.getBuffer(), frame.size(), header);
    const int tag = tag_of(channel, known && header.frame_type == KX_TYPE_I);
    CMediaFrame* head = new (std::nothrow) CMediaFrame(Tramel::PRIVATE_HEADER_SIZE);
    CMediaFrame* body = new (std::nothrow) CMediaFrame(frame);
    if (head == nullptr || !head->valid() || body == nullptr) {
        logError("%s:%d CMediaFrame alloc failed\n", __FILE__, __LINE__);
        delete head;
        delete body;
        return -1;
    }
    CByteWriter writer(head->getBuffer(), Tramel::PRIVATE_HEADER_SIZE);
    writer.WriteU8(Tramel::INTERLEAVE_MARK);
    writer.WriteU8(static_cast<uint8_t>(channel));
    writer.WriteU32(frame.size());
    CMediaBufferRef buffer = begin_put();
    if (put_packet(buffer, head, Tramel::PRIVATE_HEADER_SIZE, 0, tag) == 0) {
        put_packet(buffer, body, frame.size(), 1, tag);
    } else {
        delete body;
    }
    end_put(std::move(buffer));
    return 0;
}

void CStreamReceiver::take_rtcp(int track, const unsigned char* data, int length) {
    rtcp_digest_t digest;
    if (!ReadRtcp(data, static_cast<size_t>(length), digest)) {
        return;
    }
    stats_of(track).reception.TakeReport(digest, m_arrival_us);
    m_changed |= 1u << track;
    if (digest.has_bye && is_end(track, digest)) {
        end_track(track);
    }
    publish_stats();  // whoever hears of a BYE asks whose it is
    if (m_rtcp_proc) {
        m_rtcp_proc(digest, m_tracks.tracks[track].rtcp_channel);
    }
}

// Others may send from the server's address, and those who leave a group say BYE as well.
bool CStreamReceiver::is_end(int track, const rtcp_digest_t& digest) {
    read_rest(track);
    const CReceptionStats& reception = stats_of(track).reception;
    return std::any_of(digest.bye, digest.bye + digest.bye_count,
                       [&](uint32_t source) { return reception.IsOf(source, m_tracks.tracks[track].ssrc); });
}

void CStreamReceiver::end_track(int track) {
    put_rest(track);
    CMediaBufferRef buffer = begin_put();
    buffer.End(tag_of(m_tracks.tracks[track].rtp_channel, false));
    end_put(std::move(buffer));
}

void CStreamReceiver::put_rest(int track) {
    CFrameMerger* merger = m_mergers != nullptr ? merger_of(track) : nullptr;
    if (merger != nullptr && !merger->IsEmpty()) {
        put_run(track, merger->Take());
    }
}

void CStreamReceiver::take_rtsp(const char* text, int length) {
    if (m_rtsp_proc) {
        m_rtsp_proc(text, length);
    }
}

void CStreamReceiver::tell_rtp(const unsigned char* data, int length, int channel) {
    if (m_rtp_proc) {
        m_rtp_proc(data, length, channel);
    }
}

// ---- statistics ----

void CStreamReceiver::count_packet(int track, const RtpHeader& header, uint32_t length) {
    const uint32_t last = stats_of(track).reception.LastSeq();
    count_unit();
    m_changed |= 1u << track;
    const uint32_t skipped = stats_of(track).reception.Count(header.sequence, header.timestamp, header.ssrc, length,
                                                             m_arrival_us, m_tracks.tracks[track].clock_rate);
    if (skipped > 0 && m_loss_log.Pass()) {
        const CLogQuote quote(Ostra::LOG_LEVEL_WARN, m_url.c_str());
        logWarn(">>> RTP SEQ DISORDER! last[%u] now[%u] url[%s]\n", last, static_cast<unsigned int>(header.sequence),
                quote.Text());
    }
}

void CStreamReceiver::count_unit() {
    m_units.store(m_units.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

void CStreamReceiver::count_short(int track) {
    stats_of(track).reception.CountShort();
    m_changed |= 1u << track;
}

void CStreamReceiver::publish_stats() {
    if (m_changed == 0) {
        return;
    }
    CGuard guard(m_stats_mutex);
    for (int i = 0; i < m_tracks.count; ++i) {
        if ((m_changed & 1u << i) != 0) {
            Ostra::CMemoryTrail::Note(stats_of(i));
            stats_of(i).published.Follow(stats_of(i).reception);
        }
    }
    m_changed = 0;
}

// ---- into the media buffer ----

int CStreamReceiver::put_run(int track, const Flumen::CMediaFrame& run) {
    if (!run.valid()) {
        return -1;
    }
    CMediaFrame* packet = new (std::nothrow) CMediaFrame(run);
    if (packet == nullptr) {
        return -1;
    }
    packet->setChannel(track);
    CMediaBufferRef buffer = begin_put();
    put_packet(buffer, packet, run.size(), 1, run_tag(track, run));
    end_put(std::move(buffer));
    return 0;
}

int CStreamReceiver::run_tag(int track, const Flumen::CMediaFrame& run) const {
    const receiver_track_t& row = m_tracks.tracks[track];
    const bool key = row.enc_type != ENC_TYPE_H264 || H264RunKind(run.getBuffer(), run.size()) == RUN_KIND_KEY;
    return tag_of(row.rtp_channel, key);
}

// The buffer takes the packet over, or it ends here. 0 or -1.
int CStreamReceiver::put_packet(const CMediaBufferRef& buffer, CMediaPacket* packet, unsigned int length, int flag,
                                int tag) {
    if (buffer.Put(packet, static_cast<int>(length), flag, tag) < 0) {
        packet->Release();
        return -1;
    }
    return 0;
}

// The buffer comes back by end_put: so its count of users isn't touched with each put.
CMediaBufferRef CStreamReceiver::begin_put() {
    m_busy.store(true);
    CGuard guard(m_put_mutex);
    m_putting = true;
    m_replaced = false;
    ++m_put_count;
    m_put_thread = std::this_thread::get_id();
    return std::exchange(m_buffer, CMediaBufferRef());
}

void CStreamReceiver::end_put(CMediaBufferRef buffer) {
    m_busy.store(false);
    CGuard guard(m_put_mutex);
    m_putting = false;
    if (!m_replaced) {
        std::swap(m_buffer, buffer);
    }
    m_put_wait.Wake();
}

}  // namespace Vidora
}  // namespace Kavio
