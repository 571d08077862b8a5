#ifndef INFRA_TOOLS_LOG_RECORD_H
#define INFRA_TOOLS_LOG_RECORD_H

// Records from lines. A line without a prefix goes on with the record before it: a message may have
// several lines, and a message may be made by several calls. What the log had to cut has no line end,
// so the next prefix follows in the same line.

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Prefix.h"

/// Local time, as the lines give it.
typedef std::chrono::local_time<std::chrono::milliseconds> Moment;

struct Record
{
    std::string_view text; ///< as it stands in the log, with its line ends
    Prefix prefix;         ///< all missing where the log begins in the middle of a record
    std::optional<Moment> moment;
    bool goesOn = false; ///< the record before this one does; its prefix was given out with it
};

/// Knows the date of lines that give only the time of day: it is the next day when time steps back by
/// more than half a day.
class CCalendar
{
public:
    /// The date of the next line.
    void start(std::chrono::year_month_day date);
    std::optional<Moment> momentOf(const Prefix& prefix);
    /// How often a day has ended.
    int daysEnded() const { return m_daysEnded; }

private:
    std::optional<std::chrono::local_days> m_day;
    std::optional<std::chrono::milliseconds> m_last;
    int m_daysEnded = 0;
};

/// Takes the bytes of a log in pieces of any length and gives out its records.
class CRecords
{
public:
    typedef std::function<void(const Record&)> Take;

    explicit CRecords(Take take);

    /// What comes next is of another file, whose first line has this date. A line that the file before
    /// leaves open goes on there, unless a record begins.
    void startFile(std::chrono::year_month_day date);
    void add(std::string_view bytes);
    /// Gives out the last record. What has no line end yet waits, unless this is the end of the log.
    void flush(bool isEnd);
    const CCalendar& calendar() const { return m_calendar; }

private:
    void addOpenLine();
    void addLine(std::string_view line);
    void addWholeLine(std::string_view line);
    void give();

    Take m_take;
    CCalendar m_calendar;
    std::string m_line;             // its end has not come yet
    size_t m_seam = 0;              // where in it the present file begins
    std::string m_record;           // its next line may come
    std::optional<Moment> m_moment; // of that record
    bool m_goesOn = false;
};

#endif
