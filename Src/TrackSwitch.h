#ifndef VIDORA_TRACKSWITCH_H
#define VIDORA_TRACKSWITCH_H

#include <atomic>
#include <cstdint>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CTrackSwitch: which of a sink's tracks, 0 to 7, may be sent. One that was paused goes on with its next key frame, if
// it has such frames.
//
// THREADING  Passes: the thread that sends. On, Off, Pause: another thread, one at a time. The others: any thread.
class CTrackSwitch {
public:
    // All tracks are on at first; the first one that is switched on leaves only its own on. Negative: all on.
    void On(int track) {
        if (track < 0) {
            m_on = ALL;
        } else if (track <= MAX_TRACK) {
            const uint8_t others = m_on;
            m_on = static_cast<uint8_t>((others == ALL ? 0 : others) | bit_of(track));
        }
    }
    void Off(int channel) {
        if (OSTRA_ASSERT(channel <= 7 && channel >= 0)) {
            m_on = static_cast<uint8_t>(m_on & ~bit_of(channel));
        }
    }
    void Pause(int track) {
        Off(track);
        if (track >= 0 && track <= MAX_TRACK) {
            m_rested |= bit_of(track);
        }
    }
    // The tracks that are on, bit n: track n; and those of them that wait for a key frame.
    uint8_t Tracks() const { return m_on.load(std::memory_order_relaxed); }
    bool AnyWaiting() const { return (m_on & m_rested & m_key_tracks) != 0; }
    // Key frames of these tracks, bit n: track n, have been sent without a call of Passes.
    void KeysPassed(uint8_t tracks) {
        m_key_tracks |= tracks;
        m_rested &= static_cast<uint8_t>(~tracks);
    }
    // Whether the next frame of the track may be sent.
    bool Passes(unsigned int track, bool is_key) {
        const uint8_t bit = track <= MAX_TRACK ? bit_of(static_cast<int>(track)) : 0;
        if ((m_on.load(std::memory_order_relaxed) & bit) == 0) {
            return false;
        }
        if (is_key) {
            KeysPassed(bit);
        }
        return (m_rested.load(std::memory_order_relaxed) & m_key_tracks.load(std::memory_order_relaxed) & bit) == 0;
    }

private:
    static const int MAX_TRACK = 7;
    static const uint8_t ALL = 0xff;

    static uint8_t bit_of(int track) { return static_cast<uint8_t>(1U << track); }

    // Bit n: track n
    std::atomic<uint8_t> m_on{ALL};
    std::atomic<uint8_t> m_rested{0};      // waits for a key frame since it was paused
    std::atomic<uint8_t> m_key_tracks{0};  // has had a key frame
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TRACKSWITCH_H
