#include "TrackTable.h"

#include <algorithm>
#include <cstring>

#include "Tramel/StrParser.h"

namespace Kavio {
namespace Vidora {

void CTrackTable::Build() {
    const int count = m_sdp->get_media_count();
    m_count = 0;
    if (count < 1) {
        logError("%s:%d, media_num <=0, media_num=%d\n", __FILE__, __LINE__, count);
        return;
    }
    for (int i = 0; i < count && m_count < MAX_TRACKS; ++i) {
        const int track_id = m_sdp->get_track_id(i);
        if (track_id < 0) {
            continue;
        }
        CTrack& track = m_tracks[m_count++];
        track = CTrack();
        track.track_id = track_id;
        track.sends = m_sdp->get_direction(m_sdp->get_index(track_id)) != SDP_DIRECTION_SENDONLY;
    }
}

CTrack* CTrackTable::Find(int track_id) {
    CTrack* track = std::find_if(begin(), end(), [=](const CTrack& each) { return each.track_id == track_id; });
    return track == end() ? nullptr : track;
}

int CTrackTable::IdOfUrl(const char* url) const {
    const int count = m_sdp->get_media_count();
    for (int i = 0; i < count; ++i) {
        const char* control = m_sdp->get_control(i);
        CStrParser text(url, static_cast<unsigned int>(strlen(url)));
        if (control != nullptr && text.LocateStringInLineCase(control) > 0) {
            return m_sdp->get_track_id(i);
        }
    }
    return -1;
}

bool CTrackTable::NamesNone(const char* url) const {
    CStrParser text(url, static_cast<unsigned int>(strlen(url)));
    return IdOfUrl(url) < 0 && text.LocateStringInLineCase("/trackID=") > 0;
}

bool CTrackTable::AnySetUp() const {
    return std::any_of(m_tracks, m_tracks + m_count, [](const CTrack& track) { return track.set_up; });
}

}  // namespace Vidora
}  // namespace Kavio
