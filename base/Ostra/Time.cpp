#include "Vidora/Ostra/Time.h"

#include <atomic>
#include <ctime>

#include "Ostra/Clock.h"

namespace Kavio {
namespace Ostra {

namespace {

const int64_t SECONDS_OF_DAY = 86400;
const uint64_t MICROS_PER_SECOND = 1000000;

std::atomic<uint64_t> shift{0};  // of CClock, in microseconds

// Days from 1970-01-01 to the first day of a month of the Gregorian calendar. The year is taken to begin in March, so
// that the leap day is its last one; 400 such years have 146097 days.
int64_t days_to_month(int64_t year, int64_t month) {
    year += (month - 1) / 12;
    month = (month - 1) % 12;
    if (month < 0) {
        month += 12;
        --year;
    }
    const int64_t march_year = month < 2 ? year - 1 : year;
    const int64_t march_month = month < 2 ? month + 10 : month - 2;
    const int64_t era = (march_year >= 0 ? march_year : march_year - 399) / 400;
    const int64_t year_of_era = march_year - era * 400;
    const int64_t day_of_year = (153 * march_month + 2) / 5;
    return era * 146097 + year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year - 719468;
}

// The calendar fields of a time below FIELDS_LIMIT, by the same reckoning backwards.
struct CalendarTime {
    int year;
    int month;
    int day;
    int second_of_day;
};

const uint64_t FIELDS_LIMIT = uint64_t{1} << 36;  // the year 4147

CalendarTime to_calendar(uint64_t seconds) {
    const int64_t days = static_cast<int64_t>(seconds) / SECONDS_OF_DAY + 719468;  // from 0000-03-01
    const int64_t era = days / 146097;
    const int64_t day_of_era = days % 146097;
    const int64_t year_of_era = (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const int64_t day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const int64_t march_month = (5 * day_of_year + 2) / 153;
    CalendarTime time = {};
    time.day = static_cast<int>(day_of_year - (153 * march_month + 2) / 5 + 1);
    time.month = static_cast<int>(march_month < 10 ? march_month + 3 : march_month - 9);
    time.year = static_cast<int>(era * 400 + year_of_era) + (time.month <= 2 ? 1 : 0);
    time.second_of_day = static_cast<int>(static_cast<int64_t>(seconds) % SECONDS_OF_DAY);
    return time;
}

// False for a time whose year doesn't fit an int.
bool split(uint64_t seconds, struct tm* fields) {
    *fields = {};
    const time_t time = static_cast<time_t>(seconds);
    return time >= 0 && gmtime_r(&time, fields) != nullptr;
}

void store(int* field, int value) {
    if (field != nullptr) {
        *field = value;
    }
}

}  // namespace

CTime::CTime(int year, int month, int day, int hour, int minute, int second) {
    const int64_t days = days_to_month(year, month) + day - 1;
    const int64_t seconds = days * SECONDS_OF_DAY + int64_t{hour} * 3600 + int64_t{minute} * 60 + second;
    m_seconds = seconds > 0 ? static_cast<uint64_t>(seconds) : 0;
}

void CTime::getFields(int* year, int* month, int* day, int* hour, int* minute, int* second) const {
    // Each frame has its time written in fields: gmtime_r, with its lock and time zone, is for the far future.
    struct tm fields = {};
    if (m_seconds < FIELDS_LIMIT) {
        const CalendarTime time = to_calendar(m_seconds);
        fields.tm_year = time.year - 1900;
        fields.tm_mon = time.month - 1;
        fields.tm_mday = time.day;
        fields.tm_hour = time.second_of_day / 3600;
        fields.tm_min = time.second_of_day / 60 % 60;
        fields.tm_sec = time.second_of_day % 60;
    } else if (!split(m_seconds, &fields)) {
        split(0, &fields);
    }
    store(year, fields.tm_year + 1900);
    store(month, fields.tm_mon + 1);
    store(day, fields.tm_mday);
    store(hour, fields.tm_hour);
    store(minute, fields.tm_min);
    store(second, fields.tm_sec);
}

int CTime::format(char* buffer, const char* format, int size) const {
    if (buffer == nullptr || size < 1) {
        return 0;
    }
    buffer[0] = '\0';
    struct tm fields;
    if (format == nullptr || !split(m_seconds, &fields)) {
        return 0;
    }
    const size_t length = strftime(buffer, static_cast<size_t>(size), format, &fields);
    buffer[length] = '\0';  // the contents are unspecified after a failure
    return static_cast<int>(length);
}

CTime CTime::operator+(int64_t seconds) const {
    const uint64_t magnitude = seconds < 0 ? 0 - static_cast<uint64_t>(seconds) : static_cast<uint64_t>(seconds);
    if (seconds >= 0) {
        return CTime(m_seconds + magnitude < m_seconds ? UINT64_MAX : m_seconds + magnitude);
    }
    return CTime(m_seconds > magnitude ? m_seconds - magnitude : 0);
}

CTime CTime::operator-(int64_t seconds) const {
    return seconds == INT64_MIN ? *this + INT64_MAX + 1 : *this + -seconds;
}

namespace {

uint64_t read_clock(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * MICROS_PER_SECOND + static_cast<uint64_t>(now.tv_nsec) / 1000 +
           CClock::Shift();
}

}  // namespace

CTime CTime::getCurrentTime() {
    return CTime(static_cast<uint64_t>(time(nullptr)) + CClock::Shift() / MICROS_PER_SECOND);
}

uint64_t CTime::getWallMicroSecond() {
    return read_clock(CLOCK_REALTIME);
}

uint64_t CTime::getCurrentMilliSecond() {
    return getCurrentMicroSecond() / 1000;
}

uint64_t CTime::getCurrentMicroSecond() {
    return read_clock(CLOCK_MONOTONIC);
}

uint64_t CClock::Shift() {
    return shift.load(std::memory_order_relaxed);
}

void CClock::Advance(uint64_t microseconds) {
    shift.fetch_add(microseconds);
}

}  // namespace Ostra
}  // namespace Kavio
