#ifndef INFRA_SRC_INFRA3_TIMEINTERNAL_H
#define INFRA_SRC_INFRA3_TIMEINTERNAL_H

// Calendar time, inside. CTime is one class in six files, one subject each:
//
//   utc.cpp         the calendar: dates to seconds and back, the system's zone
//   Time.cpp        arithmetic and the clocks, with the print time
//   TimeFormat.cpp  text: format, parse, and their process-wide settings
//   TimeZone.cpp    the zone table, and the zone and daylight saving that the application sets
//   LocalTime.cpp   the system's local time, shared with the log line
//   TimeSet.cpp     setting the system time: hooks and modify procedures
//
// There are no objects but process-wide settings. Those of one word are relaxed atomics, constant
// from load time on; the others are immortal, made on first use, behind a leaf lock each. No lock
// is held while a hook or a procedure of the application runs or a line is logged.

namespace Tarsel
{
namespace Infra
{

/// The mark of CTime::setDst: -1, 0 or 1 (TimeZone.cpp).
int daylightMark();

/// Makes the next CTime::getCurTimeForPrint of every thread read the wall clock (Time.cpp).
void renewPrintTime();

} // namespace Infra
} // namespace Tarsel

#endif
