#ifndef INFRA_INFRA3_TIME_H
#define INFRA_INFRA3_TIME_H

#include <cstdint>
#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/StandardString.h"
#include "Infra/Infra3/Function.h"

namespace Tarsel
{
namespace Infra
{

/// A calendar time to the second.
struct SystemTime
{
    int32_t year;   ///< 2019
    int32_t month;  ///< 1 to 12
    int32_t day;    ///< 1 to 31
    int32_t wday;   ///< 0 for Sunday to 6
    int32_t hour;   ///< 0 to 23
    int32_t minute; ///< 0 to 59
    int32_t second; ///< 0 to 59
    int32_t isdst;  ///< -1 unknown, 0 no, 1 daylight saving
};

/// A calendar time to the millisecond.
struct SystemTimeEx
{
    int32_t year;
    int32_t month;
    int32_t day;
    int32_t wday;
    int32_t hour;
    int32_t minute;
    int32_t second;
    int32_t millisecond; ///< 0 to 999
    int32_t isdst;
    int32_t reserved1;
    int32_t reserved2;
    int32_t reserved3;
};

/// One row of the zone table.
struct _TIME_ZONE // NOLINT(bugprone-reserved-identifier): the table's published name
{
    int index;
    int zone_time; ///< seconds east of UTC
    const char* str;
};

/// The zones by their external number, 0 to 35. The numbers follow the offset only up to 32.
INFRA_API extern const _TIME_ZONE g_ntp_timezone_table[36];

/// A calendar time with arithmetic, text, and the clocks of the process.
///
/// Behaviour: a value of eight integers, without a zone of its own. Arithmetic and comparison treat
/// it as it stands; makeTime and breakTime shift it by the local zone (without daylight saving).
/// Dates are never refused, they are clamped to the calendar of the years 1970 to 2106 (Utc.h).
///
/// Threads: a value like any other. The static functions are safe from any thread. The settings
/// (format, zone, daylight saving, hooks) are process-wide and meant to be made once, at the start.
///
///     char text[32];
///     CTime::getCurrentTime().format(text, "yyyy-MM-dd HH:mm:ss", CTime::fmAll);
class INFRA_API CTime : public SystemTime
{
public:
    /// The order of year, month and day in a text.
    enum DateFormat
    {
        ymd = 0,
        mdy = 1,
        dmy = 2
    };

    /// What format() takes from its format text instead of the process-wide settings.
    enum FormatMask
    {
        fmGeneral = 0,    ///< nothing
        fmSeparator = 1,  ///< the date separators
        fmDateFormat = 2, ///< the date order
        fmHourFormat = 4, ///< 12 or 24 hours
        fmAll = 7
    };

    /// The time in UTC with the zone and daylight saving that were set.
    struct UTCTimeDef
    {
        uint64_t second; ///< since 1970, in UTC
        int diffSecond;  ///< the zone, in seconds east of UTC
        int isdst;
        int reserved[4];
    };

    /// Told of every new system time; the result is not used.
    typedef TFunction1<bool, SystemTime> ModifyProc;
    /// Sets the system time. The second argument is the caller's tolerance in seconds.
    typedef TFunction2<void, const CTime&, int> SetCurrentTimeHook;
    typedef TFunction2<void, const SystemTimeEx&, int> SetCurrentTimeHookEx;

    /// What may be set as system time: 2000-01-01 00:00:00 to 2038-01-01 00:00:00. Constants: they
    /// may be used before main().
    static const CTime minTime;
    static const CTime maxTime;

    /// All fields 0, `isdst` -1: no date yet.
    constexpr CTime() : SystemTime{0, 0, 0, 0, 0, 0, 0, -1} {}
    /// The given fields, normalised (Utc.h), with `wday` by the date and `isdst` -1.
    CTime(int vyear, int vmonth, int vday, int vhour, int vmin, int vsec);
    /// The local time of `time` seconds since 1970 in UTC.
    CTime(uint64_t time); // NOLINT(google-explicit-constructor)
    /// The same; without `addTimezone` the time in UTC.
    CTime(uint64_t time, bool addTimezone);

    /// Seconds since 1970 in UTC of this local time.
    uint64_t makeTime() const;
    /// Sets all fields but `isdst` to the local time of `time` seconds since 1970 in UTC.
    void breakTime(uint64_t time);
    /// Seconds from 1970-01-01 00:00:00 to `time`, no zone applied.
    static uint64_t timeToSeconds(const SystemTime& time);

    /// By year to second; `wday` and `isdst` do not count.
    bool operator==(const CTime& time) const { return compare(time) == 0; }
    bool operator!=(const CTime& time) const { return compare(time) != 0; }
    bool operator<(const CTime& time) const { return compare(time) < 0; }
    bool operator<=(const CTime& time) const { return compare(time) <= 0; }
    bool operator>(const CTime& time) const { return compare(time) > 0; }
    bool operator>=(const CTime& time) const { return compare(time) >= 0; }

    /// This time moved by `seconds`, no zone applied; not before 1970. `isdst` is -1 in the result.
    CTime operator+(int64_t seconds) const;
    CTime operator-(int64_t seconds) const;
    /// The same in place; `isdst` stays.
    CTime& operator+=(int64_t seconds);
    CTime& operator-=(int64_t seconds);
    /// Seconds from `time` to this one.
    int64_t operator-(const CTime& time) const;

    /// Writes the time into `buf` in the form of `format`.
    ///
    /// | in `format`      | written                                                           |
    /// |------------------|-------------------------------------------------------------------|
    /// | run of y, M or d | the next of year, month, day in the date order                    |
    /// | run of H and h   | the hour; two digits from a run of two on, else as many as needed |
    /// | run of m, of s   | minute, second, likewise                                          |
    /// | t                | "AM" or "PM"; with 24 hours nothing, and blanks before it go      |
    /// | - . /            | the date separator                                                |
    /// | anything else    | itself                                                            |
    ///
    /// All 'y' of the text together say how the year is written (three and more: four digits, else
    /// two), all 'M' and all 'd' how month and day are (two and more: two digits); what has no
    /// letter is left out. Date order, separator and 12 or 24 hours are the process-wide settings
    /// except where `mask` (FormatMask) takes them from `format`. Without all three letters the
    /// order cannot be taken from `format`: year, month, day is used and an error logged.
    /// @param buf     the caller's, with room for the result and its NUL; null is an error
    /// @param format  null is the default text (getFormat)
    void format(char* buf, const char* format, int mask) const;

    /// Reads six numbers (date, hour, minute, second) from `buf`, whatever stands between them, and
    /// normalises.
    ///
    /// `format` gives the order of the date by its first 'y', 'M' and 'd'; with another order than
    /// the three of DateFormat the date stays as it is. With an 'h' in it, `buf` has to contain
    /// "PM" or "AM" and an hour up to 12. `mask` is not used.
    /// @return false after an error line when there are fewer numbers or the hour does not fit:
    ///         date and time are 0 then, `wday` and `isdst` as before
    bool parse(const char* buf, const char* format, int mask);

    /// Sets the default text, and from it the process-wide separator ('.', '/' or '-', the first of
    /// these that it contains), date order, and 12 hours if it contains 'h'. Null is "". A text
    /// without separator or without a date order gives '-' and year, month, day, with an error
    /// line.
    static void setFormatString(const char* format);
    static void setFormat(const std::string& format);
    /// A copy of the default text, "yyyy-MM-dd HH:mm:ss" at first.
    static CString2 getFormat();
    static DateFormat getDateFormat();
    static bool get12Hour();
    static char getSeparator();

    /// The monotonic clock in milliseconds: the time base of threads, timers and deadlines. One
    /// read of the clock, no lock. 0 after an error line when the system has no such clock.
    static uint64_t getCurrentMilliSecond();
    /// The same in microseconds.
    static uint64_t getCurrentMicroSecond();

    /// The wall clock in local time; `isdst` as set by setDst, else the system's.
    static CTime getCurrentTime();
    static SystemTimeEx getCurrentTimeEx();
    /// The wall clock in local time, up to 400 ms old unless the time was set meanwhile: for texts
    /// that are printed often. Costs a read of the monotonic clock. `isdst` is -1.
    static CTime getCurTimeForPrint();
    /// Seconds since 1970 by the wall clock, an hour less while setDst(true) holds.
    static uint64_t getCurrentUTCtime();
    /// The same in milliseconds.
    static uint64_t getCurrentUTCMilliSecond();

    /// get_timezone() and disable_timezone() of Utc.h.
    static long getTimeZone();
    static int disableTimezone();

    /// Sets the zone that getUTCForEmbed reports, in seconds east of UTC, -43200 to 50400; false
    /// for another value. The conversions of this class stay with the system's zone.
    static bool setTimeZone(int diffSecond);
    /// Sets the daylight-saving mark of the process. Returns true.
    static bool setDst(bool flag);
    /// The mark: 0 or 1; -1 as long as none was set, and the system's counts.
    static int getDst();
    /// `zone_time` of a row of the zone table; 0 after an error line for a number outside 0 to 35.
    static int getTimeZonefromTable(int zoneIndex);
    /// The print time in UTC by the zone and the mark that were set. False, and `utc` untouched,
    /// until both have been.
    static bool getUTCForEmbed(UTCTimeDef& utc);

    /// Sets the system time, by way of the hook.
    ///
    /// The hook that the process has by default is setSysCurrentTime. A hook of the application's
    /// own is called instead, and the modify procedures afterwards if it was attached so.
    /// @param time              local time; normalised first
    /// @param toleranceSeconds  nonzero: leave the clock if it is off by no more than this
    static void setCurrentTime(const CTime& time, int toleranceSeconds = 0);
    /// The same, without renewing the print time at once. False when the thread's last error is
    /// infraErrorModifySysTimeFailed or infraErrorSyncRtcTimeFailed, from whatever call: clear it
    /// first where the answer matters.
    static bool setCurrentTimeEx(const CTime& time, int toleranceSeconds = 0);
    /// The same to the millisecond, by way of the second hook (setSysCurrentTimeEx by default).
    static bool setCurrentTime(const SystemTimeEx& time, int toleranceSeconds = 0);

    /// Appends `proc` to the modify procedures; it cannot be taken away again. True, or false for
    /// an empty one, which is not stored. Procedures run on the thread that sets the time, in the
    /// order attached, without a lock held.
    static bool attachModifyProc(ModifyProc proc);

    /// Installs a hook and returns the one before; an empty one sets nothing. `callModifyProc` says
    /// whether the modify procedures are called after it; without it that stays as it was.
    static SetCurrentTimeHook attachSetCurrentTimeHook(SetCurrentTimeHook proc);
    static SetCurrentTimeHook attachSetCurrentTimeHook(SetCurrentTimeHook proc,
                                                       bool callModifyProc);
    static SetCurrentTimeHookEx attachSetCurrentTimeHookEx(SetCurrentTimeHookEx proc);
    static SetCurrentTimeHookEx attachSetCurrentTimeHookEx(SetCurrentTimeHookEx proc,
                                                           bool callModifyProc);

private:
    constexpr explicit CTime(const SystemTime& fields) : SystemTime(fields) {}

    /// Below 0, 0 or above 0 as this time is before, equal to or after `time`.
    int compare(const CTime& time) const;
};

inline constexpr CTime CTime::minTime{SystemTime{2000, 1, 1, 6, 0, 0, 0, -1}};
inline constexpr CTime CTime::maxTime{SystemTime{2038, 1, 1, 5, 0, 0, 0, -1}};

/// Sets the system clock and the hardware clock: the hook that is in place until another one is.
///
/// `time` is clamped to CTime::minTime and maxTime. Within `toleranceSeconds` (nonzero) of the
/// clock nothing happens. Else the clock is set, "hwclock -w" is run, and the modify procedures are
/// called. Failure: logged, with the last error infraErrorModifySysTimeFailed (the clock was
/// refused, and nothing more is done) or infraErrorSyncRtcTimeFailed (the hardware clock was, and
/// there is no modify procedure).
INFRA_API void setSysCurrentTime(const CTime& time, int toleranceSeconds);
/// The same to the millisecond.
INFRA_API void setSysCurrentTimeEx(const SystemTimeEx& time, int toleranceSeconds);

} // namespace Infra
} // namespace Tarsel

#endif
