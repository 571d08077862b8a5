// utc.cpp: the calendar.
//
// Dates and day numbers are turned into each other by closed formulas over the whole range, without
// loops over years and without the system's calendar functions:
//   - a date has the day number 365 y + (leap days before it) + (days before its month) + d;
//   - a day number gives year and rest by a division by 365. The leap days before that year are
//     taken off the rest, and where the rest is too small for it, it is the year before.
// Before 2100, where almost all times are, the way back is shorter still, because there every
// fourth year is a leap year.
//
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

#include "Infra/Infra3/Time.h"
#include "Infra3/LocalTime.h"
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

/// Days before each month, 1 to 12, of a common and of a leap year. The last entry is the year's
/// length: it ends the search for a month.
constexpr int daysBeforeMonth[2][14] = {
    {0, 0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365},
    {0, 0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366}};
constexpr int daysOfMonth[] = {0, 31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

/// Behind this many years of 365 days the leap days outgrow a year, and days_to_date would have to
/// go back by more than one.
constexpr int reachOfYears = 1462;
constexpr uint32_t firstDayOf2100 = 47482;
constexpr uint64_t lastSecond = uint64_t{reachOfYears} * 365 * secondsPerDay - 1;

struct Date
{
    int year;
    int month;
    int day;
};

/// 1 for a leap year, else 0. Written without branches, because years come in no order.
int isLeapYear(int year)
{
    const auto y = static_cast<unsigned>(year);
    return static_cast<int>((y % 4 == 0) & ((y % 100 != 0) | (y % 400 == 0)));
}

Date normalize_date(int year, int month, int day)
{
    Date date = {std::clamp(year, firstYear, lastYear), std::clamp(month, 1, 12), std::max(day, 1)};
    if (date.day > daysOfMonth[date.month]) {
        const bool leapDay = date.month == february && date.day == 29 && isLeapYear(date.year) != 0;
        date.day = leapDay ? 29 : daysOfMonth[date.month];
    }
    return date;
}

/// Leap days from 1968 to the end of the year before `year`.
int leapDaysBefore(int year)
{
    return (year - 1968) / 4 - isLeapYear(year);
}

/// Days before `date` in its year.
int dayOfYear(const Date& date)
{
    return daysBeforeMonth[isLeapYear(date.year)][date.month] + date.day - 1;
}

/// Days since 1970-01-01.
int date_to_days(const Date& date)
{
    return date.year * 365 + leapDaysBefore(date.year) + dayOfYear(date) - 719050;
}

int date_to_weekday(const Date& date)
{
    return (date.year + leapDaysBefore(date.year) + dayOfYear(date) - 1966) % 7;
}

/// `dayOfYear` counts from 0. A month is no longer than 32 days and the whole is less than a month
/// behind 32 days each, so a division finds the month or the one before it.
Date dayOfYearToDate(int year, int dayOfYear)
{
    const int* const daysBefore = daysBeforeMonth[isLeapYear(year)];
    int month = dayOfYear / 32 + 1;
    month += daysBefore[month + 1] <= dayOfYear ? 1 : 0;
    return {year, month, dayOfYear - daysBefore[month] + 1};
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
        rest += 365 + isLeapYear(year);
    }
    return dayOfYearToDate(year, rest - leaps);
}

/// days_to_date for the days before 2100, where every fourth year is a leap year. Counted from a
/// 1 March, the leap day is the last of four years and months follow each other as a straight line
/// of 30.6 days each: 2141 / 65536 is a month a day, and 197913 / 65536 puts the line on March.
Date days_to_date_before2100(uint32_t days)
{
    constexpr uint32_t since1March1968 = 671;
    const uint32_t quarters = (days + since1March1968) * 4 + 3;
    const uint32_t dayOfYear = quarters % 1461 / 4;
    const uint32_t months = dayOfYear * 2141 + 197913;
    const uint32_t nextYear = dayOfYear >= 306 ? 1 : 0; // January and February
    return {static_cast<int>(1968 + quarters / 1461 + nextYear),
            static_cast<int>((months >> 16) - 12 * nextYear),
            static_cast<int>((months & 0xFFFF) / 2141 + 1)};
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

void setDate(SystemTime& time, const Date& date, int weekday)
{
    time.year = date.year;
    time.month = date.month;
    time.day = date.day;
    time.wday = weekday;
}

[[gnu::cold, gnu::noinline]] void setDayFrom2100(SystemTime& time, uint32_t days)
{
    const Date date = days_to_date(static_cast<int>(days));
    setDate(time, date, date_to_weekday(date));
}

/// `days` since 1970-01-01, a Thursday.
void setDay(SystemTime& time, uint32_t days)
{
    static_assert(firstDayOf2100 + 4 <= UINT16_MAX, "a short division is enough");
    if (days < firstDayOf2100) [[likely]] {
        setDate(time, days_to_date_before2100(days), static_cast<uint16_t>(days + 4) % 7);
        return;
    }
    setDayFrom2100(time, days);
}

/// enableTimezone: when false, local time is UTC. Never set again.
constinit std::atomic<bool> enableTimezone{true};

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
    const auto second = static_cast<uint32_t>(bounded - days * secondsPerDay);
    setDay(time, static_cast<uint32_t>(days));
    const uint32_t minute = second / secondsPerMinute;
    const uint32_t hour = second / secondsPerHour;
    time.hour = static_cast<int>(hour);
    time.minute = static_cast<int>(minute - hour * 60);
    time.second = static_cast<int>(second - minute * secondsPerMinute);
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
    setDate(time, date, date_to_weekday(date));
    const bool behindTheDay = time.hour > 23;
    time.hour = std::clamp(time.hour, 0, 23);
    time.minute = behindTheDay ? 59 : std::clamp(time.minute, 0, 59);
    time.second = behindTheDay ? 59 : std::clamp(time.second, 0, 59);
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
