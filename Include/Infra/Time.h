#ifndef INFRA_TIME_H
#define INFRA_TIME_H

#include <cstdint>
#include <string>

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Time.h"

using Tarsel::Infra::SystemTime;

/// The older calendar time. Unlike Tarsel::Infra::CTime it is converted by the system, with daylight
/// saving, and written by format settings of its own, which setFormat() shares with the newer one.
///
/// Threads: a value like any other; the settings are process-wide and meant to be made at the start.
class INFRA_API CTime : public SystemTime
{
public:
    /// The order of year, month and day in a text.
    enum DataFormat : int
    {
        ymd = 0,
        mdy = 1,
        dmy = 2
    };
    /// What stands between them.
    enum date_spec : int
    {
        DS_DOT = 0,
        DS_DASH = 1,
        DS_SLASH = 2
    };
    enum time_fmt : int
    {
        TF_24 = 0,
        TF_12 = 1
    };

    static const CTime minTime; ///< 2000-01-01 00:00:00
    static const CTime maxTime; ///< 2038-01-01 00:00:00

    /// All fields 0, `isdst` -1.
    constexpr CTime() : SystemTime{0, 0, 0, 0, 0, 0, 0, -1} {}
    constexpr CTime(const SystemTime& time) : SystemTime(time) {} // NOLINT: a newer one, say
    /// The given fields, brought into the calendar, with the day of the week.
    CTime(int year, int month, int day, int hour, int minute, int second);
    /// breakTime().
    CTime(unsigned long long time); // NOLINT(google-explicit-constructor)

    /// Seconds since 1970 in UTC of this local time; 0 when the system cannot tell. A time before
    /// 1970 gives the negative number in 64 bits. `isdst` counts, where the clock shows an hour twice
    /// and elsewhere.
    unsigned long long makeTime() const;
    /// Sets all fields to the local time of `time` seconds since 1970 in UTC; if its year is beyond
    /// an int, to 0, and `isdst` to -1.
    void breakTime(unsigned long long time);

    /// By year to second.
    bool operator==(const CTime& time) const { return newer() == time.newer(); }
    bool operator!=(const CTime& time) const { return newer() != time.newer(); }
    bool operator<(const CTime& time) const { return newer() < time.newer(); }
    bool operator<=(const CTime& time) const { return newer() <= time.newer(); }
    bool operator>(const CTime& time) const { return newer() > time.newer(); }
    bool operator>=(const CTime& time) const { return newer() >= time.newer(); }
    /// This time moved by `seconds`, no zone applied.
    CTime operator+(int64_t seconds) const { return newer() + seconds; }
    CTime operator-(int64_t seconds) const { return newer() - seconds; }
    /// The same in place; `isdst` stays, which makeTime() heeds. With + and - it is unknown after.
    CTime& operator+=(int64_t seconds);
    CTime& operator-=(int64_t seconds);
    /// Seconds from `time` to this one.
    int64_t operator-(const CTime& time) const { return newer() - time.newer(); }

    /// Writes the time in the form of `format` (see Tarsel::Infra::CTime::format), with date order,
    /// separator and 12 or 24 hours as they are set here.
    /// @param buf  has room for the text and its terminator: for each letter of `format` four
    ///             characters at most, or eleven if a field is outside the calendar. Null, like a
    ///             null `format`, is logged
    void format(char* buf, const char* format) const;

    /// Sets the default text and derives the three settings from it, here and in
    /// Tarsel::Infra::CTime; both log what they cannot derive.
    static void setFormat(std::string format);
    /// Sets the three settings, here alone. A separator or hours that are none of the values leave
    /// theirs as they are; a date order that is none is kept, and written as year, month, day.
    static void setFormat(int dateFormat, int dateSeparator, int timeFormat);
    /// The text set last, "yyyy-MM-dd HH:mm:ss" at first.
    static std::string getFormat();
    static DataFormat getDateFormat();
    static date_spec getDateSeparator();
    /// The separator itself.
    static char getSpliter();
    static time_fmt getTimeFormat();
    static bool get12Hour();

    static CTime getCurrentTime();
    static void setCurrentTime(const CTime& time, int toleranceSeconds = 0);
    static uint64_t getCurrentMilliSecond();
    static uint64_t getCurrentMicroSecond();
    static void sleep(int ms);

private:
    Tarsel::Infra::CTime newer() const
    {
        Tarsel::Infra::CTime time;
        static_cast<SystemTime&>(time) = *this;
        return time;
    }
};

/// Where the time went: named points of time, and a log of the times between them.
///
/// Threads: one thread at a time. Ownership: names are kept as pointers, so they have to live until
/// stat() is done; text constants are best.
///
///     CTimeRecord record("request", 8);
///     record.sample("parse");
///     ...
///     record.sample("answer");
///     ...
///     record.stat(1000); // a line for each part, if all took a millisecond or more
class INFRA_API CTimeRecord
{
public:
    /// @param size  points at most; below 0 is none. Without memory for them there are none either
    CTimeRecord(const char* name, int size);
    ~CTimeRecord();

    /// Begins the part of that name. Points beyond `size` are not taken, which is logged for the
    /// first of them.
    void sample(const char* name);
    /// Drops all points; a full recorder says so again from then on.
    void reset();
    /// Ends the last part, for this look only, and logs a line for each part at info level.
    /// @param threshold  microseconds; nothing is logged if all parts together took less. 0 is none
    void stat(unsigned int threshold);

private:
    CTimeRecord(const CTimeRecord&);
    CTimeRecord& operator=(const CTimeRecord&);

    struct TimePoint
    {
        const char* name;
        uint64_t us;
    };

    TimePoint* m_points; ///< null without memory
    const char* m_name;
    int m_size;
    int m_pos; ///< points taken
    bool m_saidFull;
};

#endif
