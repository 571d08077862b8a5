#ifndef INFRA_SRC_INFRA3_TIMEINTERNAL_H
#define INFRA_SRC_INFRA3_TIMEINTERNAL_H

// Calendar time, inside. CTime is one class in seven files, one subject each:
//
//   utc.cpp         the calendar: dates to seconds and back, the system's zone
//   Time.cpp        arithmetic and the clocks, with the print time
//   TimeFormat.cpp  text: writing, and the process-wide settings of that
//   TimeParse.cpp   text: reading
//   TimeZone.cpp    the zone table, and the zone and daylight saving that the application sets
//   LocalTime.cpp   the system's local time, shared with the log line
//   TimeSet.cpp     setting the system time: hooks and modify procedures
//
// There are no objects but process-wide settings. Those of one word are relaxed atomics, constant
// from load time on; the others are immortal, made on first use, behind a leaf lock each. No lock
// is held while a hook or a procedure of the application runs or a line is logged.

#include <cstring>
#include <optional>

#include "Infra/Infra3/Time.h"

namespace Tarsel
{
namespace Infra
{

/// The date order by the first 'y', 'M' and 'd' of `format`, if all are there in one of the three
/// (TimeFormat.cpp).
std::optional<CTime::DateFormat> dateOrderOf(const char* format);

/// True when a format text has `letter`.
inline bool contains(const char* format, char letter)
{
    return strchr(format, letter) != nullptr;
}

/// The mark of CTime::setDst: -1, 0 or 1 (TimeZone.cpp).
int daylightMark();

/// Makes the next CTime::getCurTimeForPrint of every thread read the wall clock (Time.cpp).
void renewPrintTime();

} // namespace Infra
} // namespace Tarsel

#endif
