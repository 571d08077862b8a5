#ifndef INFRA_TOOLS_LOG_LOGFILES_H
#define INFRA_TOOLS_LOG_LOGFILES_H

// A log is the file that is written now and the files it was renamed to when it was full or the day
// was over: LOG_2026-11-22_0, LOG_2026-11-22_1, ... LOG. The date is that of the file's first line,
// or, of a file that an earlier run had left, the day on which it was renamed; the number counts from 0
// on each date.

#include <chrono>
#include <string>
#include <vector>

struct Rotation
{
    std::chrono::year_month_day date;
    long long number;

    bool operator==(const Rotation& other) const
    {
        return date == other.date && number == other.number;
    }
    bool operator<(const Rotation& other) const
    {
        return date != other.date ? date < other.date : number < other.number;
    }
};

/// A renamed file.
struct LogFile
{
    std::string path;
    Rotation rotation;
};

/// The renamed files of a log in the order in which they were written.
std::vector<LogFile> renamedFilesOf(const std::string& log);

/// A log, or what of it was named on the command line.
struct Log
{
    std::string path;             ///< of the file that is written now; "-" is standard input
    bool isNamed = false;         ///< that file itself
    std::vector<LogFile> renamed; ///< that were named, in their order
};
/// The logs that paths belong to, in the order of the paths.
std::vector<Log> logsOf(const std::vector<std::string>& paths);

#endif
