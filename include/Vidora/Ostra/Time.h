#ifndef VIDORA_OSTRA_TIME_H
#define VIDORA_OSTRA_TIME_H

#include <cstdint>

#include "Vidora/Export.h"

namespace Kavio {
namespace Ostra {

// CTime: a point of wall time in whole seconds since 1970-01-01 00:00:00 UTC. A value, no lock.
//
// Calendar fields are UTC, as in the clock ranges of RFC 2326 3.7, so that they don't depend on the host's time zone.
// The zero time means "not given" wherever the library takes a CTime.
class VIDORA_API CTime {
public:
    // The zero time.
    CTime() = default;
    // `seconds` since the epoch.
    explicit CTime(uint64_t seconds) : m_seconds(seconds) {}
    // Year as written (1970 and up), month 1 to 12, day 1 to 31, hour, minute, second. Fields outside their range
    // carry over into the next one; a result before the epoch is the zero time.
    CTime(int year, int month, int day, int hour, int minute, int second);

    // Seconds since the epoch.
    uint64_t makeTime() const { return m_seconds; }

    // Splits the time into calendar fields; any pointer may be null.
    void getFields(int* year, int* month, int* day, int* hour, int* minute, int* second) const;

    // Writes the time in the form of strftime's `format` into `buffer` of `size` bytes, always NUL-terminated, and
    // returns the length; 0 if it doesn't fit or an argument is null.
    int format(char* buffer, const char* format, int size) const;

    // A result before the epoch is the zero time.
    CTime operator+(int64_t seconds) const;
    CTime operator-(int64_t seconds) const;
    // Difference in seconds.
    int64_t operator-(const CTime& other) const { return static_cast<int64_t>(m_seconds - other.m_seconds); }

    bool operator==(const CTime& other) const { return m_seconds == other.m_seconds; }
    bool operator!=(const CTime& other) const { return m_seconds != other.m_seconds; }
    bool operator<(const CTime& other) const { return m_seconds < other.m_seconds; }
    bool operator<=(const CTime& other) const { return m_seconds <= other.m_seconds; }
    bool operator>(const CTime& other) const { return m_seconds > other.m_seconds; }
    bool operator>=(const CTime& other) const { return m_seconds >= other.m_seconds; }

    // The wall clock now.
    static CTime getCurrentTime();
    // The same in microseconds since 1970.
    static uint64_t getWallMicroSecond();
    // Monotonic milliseconds and microseconds, for intervals and time-outs; they never step back.
    static uint64_t getCurrentMilliSecond();
    static uint64_t getCurrentMicroSecond();

private:
    uint64_t m_seconds = 0;
};

}  // namespace Ostra
}  // namespace Kavio

#endif  // VIDORA_OSTRA_TIME_H
