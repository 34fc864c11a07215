#ifndef VIDORA_TRACKTABLE_H
#define VIDORA_TRACKTABLE_H

#include <memory>

#include "Protocol/SdpParser.h"
#include "Vidora/Types.h"

namespace Kavio {
namespace Vidora {

// One medium of the description that the client was given.
struct CTrack {
    int track_id = -1;      // CSdpParser's number
    int send_channel = -1;  // of the sink, half the interleaved channel; -1 until the first SETUP
    bool sends = true;      // a medium that the client would have to send is refused
    bool set_up = false;    // SETUP has named it, even if its transport was refused
    bool playing = false;
    bool reports = false;   // since its SETUP: reports are sent and taken in
    bool reported = false;  // since its PLAY
    unsigned int ssrc = 0;  // under this source identifier
    SrcInfo last_report;    // what it said of the source, which may be gone when its BYE is due
};

// CTrackTable: the tracks of one conversation, in the order of the description.
//
// THREADING  The conversation's strand.
// OWNERSHIP  Borrows its owner's pointer to the description, which is never null.
class CTrackTable {
public:
    static const int MAX_TRACKS = 8;  // channel pairs of a sink

    explicit CTrackTable(const std::shared_ptr<const CSdpParser>& sdp) : m_sdp(sdp) {}

    // Takes the tracks of the description as it is now. Media beyond MAX_TRACKS can't be set up.
    void Build();
    // No track is known until the next Build.
    void Clear() { m_count = 0; }

    // Null if it isn't known.
    CTrack* Find(int track_id);
    // The number of the track whose control text is in the URL, whatever precedes it; -1, which PLAY, PAUSE and
    // TEARDOWN take as all tracks, for none. A control that is a prefix of another one matches the first media of the
    // two. It reads the description, also when the table is empty.
    int IdOfUrl(const char* url) const;
    // Whether the URL names a track that the description doesn't have.
    bool NamesNone(const char* url) const;
    bool AnySetUp() const;

    int Count() const { return m_count; }
    // In the order of the description; `index` from 0 to Count() - 1.
    CTrack& At(int index) { return m_tracks[index]; }
    CTrack* begin() { return m_tracks; }
    CTrack* end() { return m_tracks + m_count; }

private:
    const std::shared_ptr<const CSdpParser>& m_sdp;
    int m_count = 0;
    CTrack m_tracks[MAX_TRACKS];
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TRACKTABLE_H
