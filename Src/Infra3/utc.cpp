// utc.cpp: the calendar.
//
// Dates and day numbers are turned into each other by closed formulas over the whole range, without
// loops over years and without the system's calendar functions:
//   - a date has the day number 365 y + (leap days before it) + (days before its month) + d;
//   - a day number gives year and rest by a division by 365. The leap days before that year are
//     taken off the rest, and where the rest is too small for it, it is the year before.
// The formulas count a leap day every four years. The calendar proper leaves out the one of 2100,
// so the two are a day apart behind it (Utc.h says how). Stored seconds of such dates depend on it:
// it is kept.
//
// Days are counted in int, seconds in 64 bits. Seconds are bounded to what the formulas reach
// before anything is looked up by them.

#include "Infra/Infra3/Utc.h"

#include <time.h>

#include <algorithm>
#include <atomic>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Time.h"
#include "Infra3/Immortal.h"
#include "Infra3/LeafMutex.h"
#include "Infra3/PlainShared.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr int firstYear = 1970;
constexpr int lastYear = 2106;
constexpr int february = 2;

constexpr int secondsPerMinute = 60;
constexpr int secondsPerHour = 3600;
constexpr int secondsPerDay = 86400;

/// Both are indexed by the month, 1 to 12. The last entry ends the search for a month.
constexpr int daysBeforeMonth[] = {0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};
constexpr int daysOfMonth[] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

/// Behind this many years of 365 days the leap days outgrow a year, and days_to_date would have to
/// go back by more than one.
constexpr int reachOfYears = 1462;
constexpr uint64_t lastSecond = uint64_t{reachOfYears} * 365 * secondsPerDay - 1;

struct Date
{
    int year;
    int month;
    int day;
};

bool isLeapYear(int year)
{
    return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
}

Date normalize_date(int year, int month, int day)
{
    Date date = {std::clamp(year, firstYear, lastYear), std::clamp(month, 1, 12), std::max(day, 1)};
    if (date.day > daysOfMonth[date.month]) {
        const bool leapDay = date.month == february && date.day == 29 && isLeapYear(date.year);
        date.day = leapDay ? 29 : daysOfMonth[date.month];
    }
    return date;
}

/// Leap days from 1968 to the end of `date`, less the one that is yet to come in a leap year.
int leapDays(const Date& date)
{
    const bool stillToCome = date.month <= february && isLeapYear(date.year);
    return (date.year - 1968) / 4 - (stillToCome ? 1 : 0);
}

/// Days since 1970-01-01.
int date_to_days(const Date& date)
{
    return date.year * 365 + leapDays(date) + daysBeforeMonth[date.month] + date.day - 719051;
}

int date_to_weekday(const Date& date)
{
    return (date.year + leapDays(date) - 1967 + daysBeforeMonth[date.month] + date.day) % 7;
}

/// The last month with no more than `dayOfYear` days before it in a common year. No month is longer
/// than 32 days, so the division finds it or the one before.
int monthOfDay(int dayOfYear)
{
    const int month = dayOfYear / 32 + 1;
    return month + (daysBeforeMonth[month + 1] <= dayOfYear ? 1 : 0);
}

/// `dayOfYear` counts from 0.
Date dayOfYearToDate(int year, int dayOfYear)
{
    if (dayOfYear >= 59 && isLeapYear(year)) {
        if (dayOfYear == 59) {
            return {year, february, 29};
        }
        --dayOfYear;
    }
    const int month = monthOfDay(dayOfYear);
    return {year, month, dayOfYear - daysBeforeMonth[month] + 1};
}

/// `days` since 1970-01-01, at most 365 * reachOfYears.
Date days_to_date(int days)
{
    const int years = days / 365;
    int year = firstYear + years;
    int rest = days % 365;
    const int leaps = (years + 1) / 4;
    if (rest < leaps) {
        --year;
        rest += isLeapYear(year) ? 366 : 365;
    }
    return dayOfYearToDate(year, rest - leaps);
}

/// Seconds since midnight. An hour behind the day's end is the end of the day.
int secondOfDay(const SystemTime& time)
{
    if (time.hour > 23) {
        return secondsPerDay - 1;
    }
    return std::max(time.hour, 0) * secondsPerHour +
           std::clamp(time.minute, 0, 59) * secondsPerMinute + std::clamp(time.second, 0, 59);
}

uint64_t inReach(uint64_t secs)
{
    const bool belowZero = static_cast<int64_t>(secs) < 0;
    return belowZero ? 0 : std::min(secs, lastSecond);
}

/// enableTimezone: when false, local time is UTC. Never set again.
constinit std::atomic<bool> enableTimezone{true};

/// The system reads its zone once and keeps it in `timezone`, unguarded: one thread does it, the
/// others wait.
void readZoneOnce()
{
    static constinit std::atomic<bool> zoneRead{false};
    if (zoneRead.load(std::memory_order_acquire)) {
        return;
    }
    struct ZoneLock;
    CGuard guard(immortal<CLeafMutex, ZoneLock>());
    if (!zoneRead.load(std::memory_order_relaxed)) {
        tzset();
        zoneRead.store(true, std::memory_order_release);
    }
}

} // namespace

uint64_t time_to_seconds(const SystemTime& time)
{
    const Date date = normalize_date(time.year, time.month, time.day);
    return static_cast<uint64_t>(date_to_days(date)) * secondsPerDay +
           static_cast<uint64_t>(secondOfDay(time));
}

void seconds_to_time(uint64_t secs, SystemTime& time)
{
    const uint64_t bounded = inReach(secs);
    const uint64_t days = bounded / secondsPerDay;
    const auto second = static_cast<unsigned>(bounded - days * secondsPerDay);
    const Date date = days_to_date(static_cast<int>(days));
    time.year = date.year;
    time.month = date.month;
    time.day = date.day;
    time.wday = date_to_weekday(date);
    time.hour = static_cast<int>(second / secondsPerHour);
    time.minute = static_cast<int>(second / secondsPerMinute % 60);
    time.second = static_cast<int>(second % secondsPerMinute);
}

uint64_t time_to_utc(const SystemTime& time)
{
    const int64_t utc = static_cast<int64_t>(time_to_seconds(time)) + get_timezone();
    return static_cast<uint64_t>(std::max<int64_t>(utc, 0));
}

void utc_to_time(uint64_t utc, SystemTime& time)
{
    seconds_to_time(inReach(utc) - static_cast<uint64_t>(get_timezone()), time);
}

void normalize_time(SystemTime& time)
{
    const Date date = normalize_date(time.year, time.month, time.day);
    const int second = secondOfDay(time);
    time.year = date.year;
    time.month = date.month;
    time.day = date.day;
    time.wday = date_to_weekday(date);
    time.hour = second / secondsPerHour;
    time.minute = second / secondsPerMinute % 60;
    time.second = second % secondsPerMinute;
}

int Date_to_weekday(int year, int month, int day)
{
    return date_to_weekday(normalize_date(year, month, day));
}

long get_timezone()
{
    if (!enableTimezone.load(std::memory_order_relaxed)) {
        return 0;
    }
    readZoneOnce();
    return loadPlain(::timezone);
}

int disable_timezone()
{
    enableTimezone.store(false, std::memory_order_relaxed);
    return 0;
}

} // namespace Infra
} // namespace Tarsel
