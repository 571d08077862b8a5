#ifndef INFRA_SRC_INFRA3_LOGFILENAMES_H
#define INFRA_SRC_INFRA3_LOGFILENAMES_H

// The names of old log files, PATH_YYYY-MM-DD_N, and which of the files there has to go. All of it
// lists the log's directory through the replaceable file system, so hooks of the application may
// run; unless a file system is given, which alone is asked then.

#include <cstdint>
#include <string>

#include "Infra/Infra3/File.h"

namespace Tarsel
{
namespace Infra
{

struct LogDate
{
    int year; ///< 0: no date
    int month;
    int day;

    bool operator==(const LogDate& other) const = default;
};

/// PATH_YYYY-MM-DD_N.
std::string oldLogName(const std::string& path, const LogDate& date, int number);

/// One more than the highest number that an entry of `directory` has for that path and date; 0 when
/// there is none or, with a complaint, when the directory cannot be listed.
int nextLogNumber(const std::string& path, const std::string& directory, const LogDate& date,
                  IFileSystem* fileSystem);

/// Removes the oldest file among the entries whose path contains `path`, the live file not counted,
/// if there are more of them than `limit`. A directory counts, and is never removed.
void limitLogFiles(const std::string& path, const std::string& directory, int32_t limit,
                   IFileSystem* fileSystem);

} // namespace Infra
} // namespace Tarsel

#endif
