// Time.cpp: arithmetic on calendar times, and the clocks.
//
// Everything here is a few instructions or one clock read, except for local time: the system's
// conversion takes a lock and costs ten times a clock read. So texts that are printed
// often use the print time, a copy of the local time that all threads share and that is made anew
// after 400 ms or when the time was set.
//
// The print time is read without a lock: its words are atomics between two reads of a number that
// is odd while they change. Whoever finds it out of date or changing reads the clock for itself, so
// no thread ever waits for another.

#include "Infra/Infra3/Time.h"

#include <sys/time.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "Infra/Infra3/Utc.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/LocalTime.h"
#include "Infra3/LogFront.h"
#include "Infra3/TimeInternal.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr uint64_t printTimeLifeUs = 400000;

int64_t saturatedAdd(int64_t a, int64_t b)
{
    int64_t sum = 0;
    return __builtin_add_overflow(a, b, &sum) ? (b < 0 ? INT64_MIN : INT64_MAX) : sum;
}

int64_t saturatedSubtract(int64_t a, int64_t b)
{
    int64_t difference = 0;
    return __builtin_sub_overflow(a, b, &difference) ? (b < 0 ? INT64_MAX : INT64_MIN) : difference;
}

timeval wallClock()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return now;
}

/// The local time of `clock`, with the system's daylight-saving mark.
SystemTime localTime(const timeval& clock)
{
    const tm& local = localTimeOf(clock.tv_sec);
    return {local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_wday,
            local.tm_hour,        local.tm_min,     local.tm_sec,  local.tm_isdst};
}

SystemTime localTimeWithOwnMark(const timeval& clock)
{
    SystemTime time = localTime(clock);
    const int mark = daylightMark();
    if (mark >= 0) {
        time.isdst = mark;
    }
    return time;
}

/// The wall clock as getCurrentUTCtime means it.
timeval adjustedWallClock()
{
    timeval now = wallClock();
    if (daylightMark() > 0) {
        now.tv_sec -= 3600;
    }
    return now;
}

/// Says that the print time is out of date. A count, not a flag: a refresh notes the count that it
/// started from, so one that began before the time was set cannot hide the request.
constinit std::atomic<uint32_t> s_bTimeUpdatNow{1};

struct PrintTime
{
    SystemTime time;
    uint64_t refreshedUs; ///< monotonic
    uint64_t request;     ///< s_bTimeUpdatNow when the clock was read; 0: never was
};
constexpr size_t printTimeWords = sizeof(PrintTime) / sizeof(uint64_t);
static_assert(sizeof(PrintTime) == printTimeWords * sizeof(uint64_t), "kept as whole words");

constinit std::atomic<uint64_t> s_printTime[printTimeWords] = {};
constinit std::atomic<uint32_t> s_printTimeVersion{0}; ///< odd while the words change

/// Copies the shared print time; false while another thread is changing it.
bool loadPrintTime(PrintTime& copy)
{
    uint64_t words[printTimeWords];
    const uint32_t version = s_printTimeVersion.load(std::memory_order_acquire);
    for (size_t idx = 0; idx < printTimeWords; ++idx) {
        words[idx] = s_printTime[idx].load(std::memory_order_acquire);
    }
    memcpy(&copy, words, sizeof(words));
    return version % 2 == 0 && version == s_printTimeVersion.load(std::memory_order_relaxed);
}

void writePrintTime(const PrintTime& fresh)
{
    uint64_t words[printTimeWords];
    memcpy(words, &fresh, sizeof(words));
    const uint32_t version = s_printTimeVersion.load(std::memory_order_relaxed);
    s_printTimeVersion.store(version + 1, std::memory_order_relaxed);
    for (size_t idx = 0; idx < printTimeWords; ++idx) {
        s_printTime[idx].store(words[idx], std::memory_order_release);
    }
    s_printTimeVersion.store(version + 2, std::memory_order_release);
}

bool isNewer(const PrintTime& a, const PrintTime& b)
{
    return a.request != b.request ? static_cast<int32_t>(a.request - b.request) > 0
                                  : a.refreshedUs > b.refreshedUs;
}

/// Replaces the shared print time, unless another thread is at it or has brought a newer one.
void storePrintTime(const PrintTime& fresh)
{
    struct PrintTimeLock;
    CLeafMutex& mutex = immortal<CLeafMutex, PrintTimeLock>();
    if (!mutex.tryEnter()) {
        return;
    }
    PrintTime shared;
    loadPrintTime(shared); // nobody changes it now
    if (!isNewer(shared, fresh)) {
        writePrintTime(fresh);
    }
    mutex.leave();
}

/// Another thread may have refreshed it after this one read the clock. Without a clock (0) nothing
/// is fresh.
bool isFresh(const PrintTime& shared, uint64_t nowUs, uint32_t request)
{
    return shared.request == request && nowUs < shared.refreshedUs + printTimeLifeUs && nowUs != 0;
}

SystemTime refreshPrintTime(uint64_t nowUs, uint32_t request)
{
    const PrintTime fresh = {localTime(wallClock()), nowUs, request};
    storePrintTime(fresh);
    return fresh.time;
}

bool readMonotonic(timespec& now)
{
    return clock_gettime(CLOCK_MONOTONIC, &now) == 0;
}

} // namespace

CTime::CTime(int vyear, int vmonth, int vday, int vhour, int vmin, int vsec)
    : SystemTime{vyear, vmonth, vday, 0, vhour, vmin, vsec, -1}
{
    normalize_time(*this);
}

CTime::CTime(uint64_t time) : CTime()
{
    breakTime(time);
}

CTime::CTime(uint64_t time, bool addTimezone) : CTime()
{
    if (addTimezone) {
        breakTime(time);
    } else {
        seconds_to_time(time, *this);
    }
}

uint64_t CTime::makeTime() const
{
    return time_to_utc(*this);
}

void CTime::breakTime(uint64_t time)
{
    utc_to_time(time, *this);
}

uint64_t CTime::timeToSeconds(const SystemTime& time)
{
    return time_to_seconds(time);
}

int CTime::compare(const CTime& time) const
{
    const int32_t here[] = {year, month, day, hour, minute, second};
    const int32_t there[] = {time.year, time.month, time.day, time.hour, time.minute, time.second};
    for (int idx = 0; idx < 6; ++idx) {
        if (here[idx] != there[idx]) {
            return here[idx] < there[idx] ? -1 : 1;
        }
    }
    return 0;
}

CTime CTime::operator+(int64_t seconds) const
{
    CTime sum;
    seconds_to_time(
        static_cast<uint64_t>(saturatedAdd(static_cast<int64_t>(time_to_seconds(*this)), seconds)),
        sum);
    return sum;
}

CTime CTime::operator-(int64_t seconds) const
{
    CTime difference;
    seconds_to_time(static_cast<uint64_t>(
                        saturatedSubtract(static_cast<int64_t>(time_to_seconds(*this)), seconds)),
                    difference);
    return difference;
}

CTime& CTime::operator+=(int64_t seconds)
{
    const int32_t mark = isdst;
    *this = *this + seconds;
    isdst = mark;
    return *this;
}

CTime& CTime::operator-=(int64_t seconds)
{
    const int32_t mark = isdst;
    *this = *this - seconds;
    isdst = mark;
    return *this;
}

int64_t CTime::operator-(const CTime& time) const
{
    return static_cast<int64_t>(time_to_seconds(*this) - time_to_seconds(time));
}

uint64_t CTime::getCurrentMilliSecond()
{
    timespec now;
    if (!readMonotonic(now)) {
        INFRA_LOG_ERROR("CTime::getCurrentMilliSecond, sys_clock_gettime failed, error:%ld\n",
                        static_cast<long>(errno));
        return 0;
    }
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

uint64_t CTime::getCurrentMicroSecond()
{
    timespec now;
    if (!readMonotonic(now)) {
        INFRA_LOG_ERROR("CTime::getCurrentMicroSecond, sys_clock_gettime failed, error:%ld\n",
                        static_cast<long>(errno));
        return 0;
    }
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

CTime CTime::getCurrentTime()
{
    return CTime(localTimeWithOwnMark(wallClock()));
}

SystemTimeEx CTime::getCurrentTimeEx()
{
    const timeval now = wallClock();
    const SystemTime time = localTimeWithOwnMark(now);
    return {time.year,  time.month,  time.day,    time.wday,
            time.hour,  time.minute, time.second, static_cast<int32_t>(now.tv_usec / 1000),
            time.isdst, 0,           0,           0};
}

CTime CTime::getCurTimeForPrint()
{
    const uint64_t nowUs = getCurrentMicroSecond();
    const uint32_t request = s_bTimeUpdatNow.load(std::memory_order_acquire);
    PrintTime shared;
    const bool usable = loadPrintTime(shared) && isFresh(shared, nowUs, request);
    CTime time(usable ? shared.time : refreshPrintTime(nowUs, request));
    time.isdst = -1;
    return time;
}

void renewPrintTime()
{
    s_bTimeUpdatNow.fetch_add(1, std::memory_order_acq_rel);
}

uint64_t CTime::getCurrentUTCtime()
{
    return static_cast<uint64_t>(adjustedWallClock().tv_sec);
}

uint64_t CTime::getCurrentUTCMilliSecond()
{
    const timeval now = adjustedWallClock();
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_usec) / 1000;
}

} // namespace Infra
} // namespace Tarsel
