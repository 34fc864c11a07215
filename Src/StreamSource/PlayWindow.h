#ifndef VIDORA_STREAMSOURCE_PLAYWINDOW_H
#define VIDORA_STREAMSOURCE_PLAYWINDOW_H

#include <cstdint>

#include "Vidora/Names.h"

namespace Kavio {
namespace Vidora {

// CPlayWindow: the part of a recording that is played, as wall times between those of its first and its last frame.
// A time of zero means "not given".
//
// THREADING  None of its own: its owner guards it.
class CPlayWindow {
public:
    // Whether a range is played as RFC 2326 3.6 has it: all that it holds and nothing behind its end. Otherwise its
    // times are cut to whole seconds, the last of which is played too, but for that of the recording.
    void SetExact(bool on) { m_exact = on; }
    // The whole of a recording from `begin` to `end`, `length_us` microseconds long.
    void Open(const CTime& begin, const CTime& end, uint64_t length_us);
    // The wall time at a distance from the begin, in whole seconds, since a source seeks by them; zero for
    // TIME_NOT_GIVEN.
    CTime At(uint64_t offset_us) const;
    // The same for the end of a range: an exact one ends behind the second that its end stands in.
    CTime EndAt(uint64_t offset_us) const;

    // Sets the bound at which playing begins, forwards the start and backwards the end: `time`, but not outside the
    // recording on that side, or `now` if it isn't given. Returns that bound.
    CTime SetFirst(bool backwards, const CTime& time, const CTime& now);
    // The source begins with a picture of that time, which others refer to: an exact range says so.
    void BeginEarlier(bool backwards, const CTime& time);
    // Sets the bound at which it ends: `time` inside the recording, or the recording's own one.
    void SetLast(bool backwards, const CTime& time);
    // The rate by which frames are judged from now on; below 0 backwards.
    void SetSpeed(float speed) { m_speed = speed; }

    // False for a window that is turned round or leaves the recording.
    bool IsValid() const;
    // Whether a frame of this time isn't played. The recording's last frame forwards, and its first one backwards, are
    // outside of a range that isn't exact, too.
    bool Excludes(const CTime& time) const;

    uint64_t GetLength() const { return m_length_us; }
    const CTime& GetFileBegin() const { return m_file_begin; }
    const CTime& GetFileEnd() const { return m_file_end; }
    const CTime& GetStart() const { return m_start; }
    const CTime& GetEnd() const { return m_end; }
    // Microseconds from the recording's begin.
    uint64_t GetStartOffset() const { return offset(m_start); }
    uint64_t GetEndOffset() const { return m_exact && m_end == m_file_end ? m_length_us : offset(m_end); }

private:
    uint64_t offset(const CTime& time) const;

    uint64_t m_length_us = 0;
    float m_speed = 1.0F;
    bool m_exact = false;
    CTime m_file_begin;
    CTime m_file_end;
    CTime m_start;
    CTime m_end;
};

}  // namespace Vidora
}  // namespace Kavio

#endif  // VIDORA_STREAMSOURCE_PLAYWINDOW_H
