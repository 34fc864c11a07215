#include "StreamSource/RtspProxySrc.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "Protocol/TextWriter.h"
#include "StreamParser/RtpHeader.h"
#include "StreamSource/ProxyDescription.h"
#include "StreamSource/SrcInfoTable.h"

namespace Kavio {
namespace Vidora {

namespace {

// Room for the lines that a description must have (RFC 4566 5), which the parser adds where they are missing.
const size_t ADDED_LINES_SIZE = 128;
const double US_PER_SECOND = 1000000.0;
const int64_t MAX_OFF_US = 60000000;
const double MAX_SECONDS = 1e12;  // beyond any recording; its microseconds fit 64 bits

uint64_t to_us(double seconds) {
    return static_cast<uint64_t>(std::min(seconds, MAX_SECONDS) * US_PER_SECOND);
}

float to_seconds(uint64_t time_us) {
    return time_us == TIME_NOT_GIVEN ? -1.0F : static_cast<float>(static_cast<double>(time_us) / US_PER_SECOND);
}

}  // namespace

CRtspProxySrc::CRtspProxySrc(const char* url) {
    CTextWriter(m_url, sizeof(m_url)).Add(url);
    m_input.AddLevel2Buffer(&m_relay);
}

CRtspProxySrc::~CRtspProxySrc() {
    m_input.DelLevel2Buffer(&m_relay);
}

int CRtspProxySrc::Init(long notify_id, int) {
    if (!add_notify(notify_id)) {
        return -1;
    }
    CGuard guard(m_mutex);
    if (m_closed || m_has_engine) {
        return -1;
    }
    CRtspClient* client = CRtspClient::Create(GetID());
    if (client == nullptr) {
        return -1;
    }
    m_has_engine = true;
    client->Conversation().SetBuffer(&m_input);
    int result = -1;
    try {
        client_settings settings;
        settings.packet_type = PACKET_TYPE_RTP;
        result = client->Start(m_url, settings);
    } catch (const std::bad_alloc&) {
        result = -1;
    }
    if (result < 0) {
        client->Close();
        logError("%s:%d RtspClient Start Fail\n", __FILE__, __LINE__);
        return -1;
    }
    m_client = client;
    return 0;
}

// A channel plays at once, before the server has answered: that is made up for.
int CRtspProxySrc::play(const client_play& wish) {
    CGuard guard(m_mutex);
    if (m_client == nullptr) {
        return -1;
    }
    m_plays = false;
    m_dates = {};  // another place of the time line
    if (!m_ready) {
        m_wants_play = true;
        m_wish = wish;
        return 0;
    }
    return m_client->Conversation().Play(wish);
}

int CRtspProxySrc::Play(const UtcTime& start, const UtcTime& end, float speed, bool is_scale) {
    client_play wish;
    wish.form = client_play::CLOCK;
    wish.has_begin = start.year != 0;
    wish.has_end = end.year != 0;
    wish.clock[0] = start;
    wish.clock[1] = end;
    wish.speed = speed;
    wish.scale = is_scale;
    return play(wish);
}

int CRtspProxySrc::Play(uint64_t start_us, uint64_t end_us, float speed, bool is_scale) {
    client_play wish;
    wish.begin = to_seconds(start_us);
    wish.end = to_seconds(end_us);
    wish.speed = speed;
    wish.scale = is_scale;
    return play(wish);
}

int CRtspProxySrc::Pause() {
    CGuard guard(m_mutex);
    m_plays = false;
    m_wants_play = false;
    return m_client != nullptr ? m_client->Conversation().Pause() : -1;
}

int CRtspProxySrc::StartStreaming(packet_type_t packet_type, CMediaBuffer* buffer, int) {
    if (packet_type != PACKET_TYPE_RTP) {
        logError("%s:%d nonsupport this packet type[%d] \n", __FILE__, __LINE__, packet_type);
        return -1;
    }
    return m_relay.Add(buffer);
}

int CRtspProxySrc::StopStreaming(packet_type_t packet_type) {
    return StopFeeding(packet_type, nullptr);
}

int CRtspProxySrc::StopFeeding(packet_type_t packet_type, CMediaBuffer* buffer) {
    const int left = packet_type == PACKET_TYPE_RTP ? m_relay.Remove(buffer) : -1;
    return left > 0 ? -1 : 0;
}

int CRtspProxySrc::GetSdp(CSdpParser& sdp) {
    CGuard guard(m_mutex);
    const std::shared_ptr<client_sdp> upstream = m_client != nullptr ? m_client->Conversation().View().Sdp() : nullptr;
    if (upstream == nullptr) {
        return -1;
    }
    CClientView& view = m_client->Conversation().View();
    bool keeps[CLIENT_MAX_TRACKS] = {};
    client_track_facts facts;
    for (int i = 0; view.TrackAt(i, facts); ++i) {
        if (facts.media_index >= 0 && facts.media_index < CLIENT_MAX_TRACKS) {
            keeps[facts.media_index] = true;
        }
    }
    try {
        const std::string text =
            ProxyDescription(upstream->text, keeps, CLIENT_MAX_TRACKS, SDP_STREAM_SIZE - ADDED_LINES_SIZE);
        return text.empty() ? -1 : sdp.Parse(text.c_str(), 0);
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

// The tracks here are numbered by their places in the description.
bool CRtspProxySrc::find_track(int track_id, client_track_facts& facts, reception_stats_t& stats) {
    CGuard guard(m_mutex);
    if (m_client == nullptr || !m_client->Conversation().View().TrackAt(track_id - 1, facts)) {
        return false;
    }
    m_client->Conversation().Receive().GetStats(facts.rtp_channel, stats);
    return true;
}

int CRtspProxySrc::GetSrcInfo(SrcInfo& info, int track_id) {
    client_track_facts facts;
    reception_stats_t stats;
    if (!find_track(track_id, facts, stats)) {
        logWarn("%s:%d WARNING!! find no ssrc!\n", __FILE__, __LINE__);
        return -1;
    }
    info.track_id = track_id;
    info.octets = static_cast<uint32_t>(stats.octets);
    info.packets = (info.octets + CSrcInfoTable::COUNTED_PACKET_SIZE - 1) / CSrcInfoTable::COUNTED_PACKET_SIZE;
    info.rtp_packets = static_cast<uint32_t>(stats.packets);
    info.payload_octets = static_cast<uint32_t>(stats.octets - stats.packets * RTP_HEADER_LEN);
    // Until somebody is fed, what counts is where the server begins; then, where it is.
    const bool from_server = facts.has_rtp_info && (!m_relay.Feeds() || stats.have_seq == 0);
    info.seq = from_server ? facts.seq : static_cast<uint16_t>(stats.last_seq);
    info.timestamp = from_server ? facts.rtptime : stats.timestamp;
    info.wall_us = stats.have_seq == 0 || from_server ? 0 : date(track_id, info.timestamp, facts.clock_rate);
    return 0;
}

// The time lines of the server's tracks are laid on the wall clock once, and then followed, so that its reports here
// stay true while nothing comes from it, and while what has waited on the way comes at once. One that has left the
// clock by far is laid on anew, and so are the others, as they belong together.
uint64_t CRtspProxySrc::date(int track_id, uint32_t timestamp, uint32_t clock_rate) {
    CGuard guard(m_mutex);
    const size_t index = static_cast<size_t>(track_id - 1);
    if (index >= m_dates.size() || clock_rate == 0) {
        return 0;
    }
    const Date last = m_dates[index];
    if (last.wall_us != 0 && last.timestamp == timestamp) {
        return last.wall_us;
    }
    const int64_t now = static_cast<int64_t>(CTime::getWallMicroSecond());
    const int64_t ticks = static_cast<int32_t>(timestamp - last.timestamp);
    int64_t wall = static_cast<int64_t>(last.wall_us) + ticks * static_cast<int64_t>(US_PER_SECOND) / clock_rate;
    if (last.wall_us == 0 || std::abs(now - wall) > MAX_OFF_US) {
        m_dates = last.wall_us == 0 ? m_dates : decltype(m_dates)();
        wall = now;
    }
    m_dates[index] = {timestamp, static_cast<uint64_t>(wall)};
    return m_dates[index].wall_us;
}

int CRtspProxySrc::GetPlayRange(UtcTime& start, UtcTime& end) {
    CGuard guard(m_mutex);
    if (m_client == nullptr) {
        return -1;
    }
    const client_play_range range = m_client->Conversation().View().Range();
    start = range.clock_begin;
    end = range.clock_end;
    return 0;
}

int CRtspProxySrc::GetPlayRange(uint64_t& start_us, uint64_t& end_us) {
    CGuard guard(m_mutex);
    if (m_client == nullptr) {
        return -1;
    }
    const client_play_range range = m_client->Conversation().View().Range();
    start_us = range.begin >= 0 ? to_us(range.begin) : 0;
    end_us = range.end > 0 ? to_us(range.end) : TIME_NOT_GIVEN;
    return 0;
}

int CRtspProxySrc::GetTcpChannel(int track_id) {
    client_track_facts facts;
    reception_stats_t stats;
    return find_track(track_id, facts, stats) ? facts.rtp_channel : -1;
}

unsigned int CRtspProxySrc::GetSSRC(int track_id) {
    client_track_facts facts;
    reception_stats_t stats;
    if (!find_track(track_id, facts, stats)) {
        return 0;
    }
    return stats.have_seq != 0 ? stats.ssrc : facts.ssrc;
}

int CRtspProxySrc::handle_message(long, unsigned int msg, long) {
    if (msg == MSG_SOURCE_CLOSED) {
        finish();
        return 0;
    }
    {
        CGuard guard(m_mutex);
        if (m_closed || m_client == nullptr) {
            return 0;
        }
        m_ready = m_ready || msg == MSG_SRC_READY;
        if (msg == MSG_SRC_READY && m_wants_play) {
            m_wants_play = false;
            m_client->Conversation().Play(m_wish);
        }
        m_plays = m_plays || msg == MSG_PLAY_READY;
        msg = told_as_locked(msg);
    }
    notify_all(msg);
    return 0;
}

// A stream that plays ends with its server, its connection or its media: those who watch it are to get what is on its
// way to them. All else that ends the engine is the failure of what was asked for.
unsigned int CRtspProxySrc::told_as_locked(unsigned int msg) {
    if (!EndsClient(msg)) {
        return msg;
    }
    const rtsp_client_failure_t failure = m_client->Conversation().View().Failure();
    const bool is_refused = failure == RTSP_CLIENT_FAILURE_STATUS || failure == RTSP_CLIENT_FAILURE_UNAUTHORISED;
    return m_plays && !is_refused ? MSG_SRC_END : MSG_SRC_FAIL;
}

// The engine has gone.
void CRtspProxySrc::finish() {
    {
        CGuard guard(m_mutex);
        m_has_engine = false;
        if (!m_closed) {
            return;
        }
    }
    notify_all(MSG_SOURCE_CLOSED);
    CDataSource::Close();
}

void CRtspProxySrc::Close() {
    // First: once the engine is closed, its strand may end this source at any moment.
    m_relay.Close();
    CRtspClient* client = nullptr;
    bool waits = false;
    {
        CGuard guard(m_mutex);
        if (m_closed) {
            return;
        }
        m_closed = true;
        client = m_client;
        m_client = nullptr;
        waits = m_has_engine;
        if (waits) {
            Tramel::CReactor::CountAsEnding(*this);
        }
        if (client != nullptr) {
            client->Close();
        }
    }
    if (!waits) {
        notify_all(MSG_SOURCE_CLOSED);
        CDataSource::Close();
    }
}

int CRtspProxySrc::handle_close(CNetHandler*) {
    delete this;
    return 0;
}

}  // namespace Vidora
}  // namespace Kavio
