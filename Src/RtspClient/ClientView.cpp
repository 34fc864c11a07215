#include "RtspClient/ClientView.h"

#include <algorithm>
#include <new>

namespace Kavio {
namespace Vidora {

void CClientView::PublishSdp(const std::shared_ptr<client_sdp>& sdp) {
    CGuard guard(m_mutex);
    m_sdp = sdp;
}

void CClientView::PublishTracks(const client_track_facts* facts, int count) {
    CGuard guard(m_mutex);
    m_track_count = std::min(count, CLIENT_MAX_TRACKS);
    std::copy(facts, facts + m_track_count, m_tracks);
}

void CClientView::PublishRange(const client_play_range& range) {
    CGuard guard(m_mutex);
    m_range = range;
}

void CClientView::PublishFailure(rtsp_client_failure_t failure) {
    CGuard guard(m_mutex);
    if (m_failure == RTSP_CLIENT_FAILURE_NONE) {
        m_failure = failure;
    }
}

void CClientView::PublishRedirect(const char* url) {
    CGuard guard(m_mutex);
    try {
        m_redirect = url;
    } catch (const std::bad_alloc&) {
        m_redirect.clear();
    }
}

std::shared_ptr<client_sdp> CClientView::Sdp() {
    CGuard guard(m_mutex);
    return m_sdp;
}

template <typename Matches>
bool CClientView::find(Matches matches, client_track_facts& facts) {
    CGuard guard(m_mutex);
    const client_track_facts* end = m_tracks + m_track_count;
    const client_track_facts* found = std::find_if(static_cast<const client_track_facts*>(m_tracks), end, matches);
    if (found == end) {
        return false;
    }
    facts = *found;
    return true;
}

bool CClientView::TrackById(int track_id, client_track_facts& facts) {
    return find([track_id](const client_track_facts& track) { return track.track_id == track_id; }, facts);
}

bool CClientView::TrackByType(int media_type, client_track_facts& facts) {
    return find([media_type](const client_track_facts& track) { return track.media_type == media_type; }, facts);
}

bool CClientView::TrackAt(int place, client_track_facts& facts) {
    CGuard guard(m_mutex);
    if (place < 0 || place >= m_track_count) {
        return false;
    }
    facts = m_tracks[place];
    return true;
}

client_play_range CClientView::Range() {
    CGuard guard(m_mutex);
    return m_range;
}

rtsp_client_failure_t CClientView::Failure() {
    CGuard guard(m_mutex);
    return m_failure;
}

std::string CClientView::Redirect() {
    CGuard guard(m_mutex);
    try {
        return m_redirect;
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

}  // namespace Vidora
}  // namespace Kavio
