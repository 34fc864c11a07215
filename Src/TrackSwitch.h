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
// THREADING  Passes: the thread that sends. The others: another thread, one at a time.
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
    // Whether the next frame of the track may be sent.
    bool Passes(unsigned int track, bool is_key) {
        const uint8_t bit = track <= MAX_TRACK ? bit_of(static_cast<int>(track)) : 0;
        if ((m_on.load(std::memory_order_relaxed) & bit) == 0) {
            return false;
        }
        if (is_key) {
            m_key_tracks |= bit;
            m_rested &= static_cast<uint8_t>(~bit);
        }
        return (m_rested.load(std::memory_order_relaxed) & m_key_tracks & bit) == 0;
    }

private:
    static const int MAX_TRACK = 7;
    static const uint8_t ALL = 0xff;

    static uint8_t bit_of(int track) { return static_cast<uint8_t>(1U << track); }

    // Bit n: track n
    std::atomic<uint8_t> m_on{ALL};
    std::atomic<uint8_t> m_rested{0};  // waits for a key frame since it was paused
    uint8_t m_key_tracks = 0;          // has had a key frame; of the thread that sends
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_TRACKSWITCH_H
