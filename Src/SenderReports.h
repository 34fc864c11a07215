#ifndef VIDORA_SENDERREPORTS_H
#define VIDORA_SENDERREPORTS_H

#include "LinkTimer.h"
#include "SessionSource.h"
#include "TrackTable.h"

namespace Kavio {
namespace Vidora {

// CSenderReports: the RTCP sender reports of one conversation (RFC 3550 6.4.1), one every five seconds for each track
// that plays. With conformance the first one follows the first media of each PLAY, and the figures are those of RFC
// 3550.
class CSenderReports {
public:
    CSenderReports(ISvrLink& link, CSessionSource& source, CTrackTable& tracks)
        : m_link(link), m_source(source), m_tracks(tracks), m_timer(link) {}

    void SetConformance(bool on) { m_conformance = on; }
    // No reports by the timer from now on: a client of private frames wants none.
    void Forbid() { m_forbidden = true; }
    // The five seconds begin now, if this client gets reports at all.
    void Restart();
    void Stop() { m_timer.Stop(); }
    // The timer has fired: sends what is due. 0 or -1.
    int OnTimer(IMediaRoute* route);
    // The last reports before a conversation ends, if there is one that hears them. Whether there is.
    bool SayBye(IMediaRoute* route);
    bool Is(long timer_id) const { return m_timer.Is(timer_id); }

    // Sends the reports of all tracks that play, or of that one alone (-1 means all), over `route`; with a BYE
    // behind them if they are the last (RFC 3550 6.6). 0 or -1.
    int Send(IMediaRoute* route, int track_filter, bool with_bye);

private:
    bool has_media(const CTrack& track);
    int send_one(IMediaRoute& route, CTrack& track, bool with_bye);

    ISvrLink& m_link;
    CSessionSource& m_source;
    CTrackTable& m_tracks;
    CLinkTimer m_timer;
    bool m_forbidden = false;
    bool m_conformance = false;
    int m_early_ticks = 0;  // that are left of the wait for a PLAY's first media
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_SENDERREPORTS_H
