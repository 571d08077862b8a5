#ifndef INFRA_INFRA3_UTC_H
#define INFRA_INFRA3_UTC_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

struct SystemTime;

// The calendar arithmetic below CTime. It is the library's own: pure functions, safe from any
// thread, without a look at the system's calendar code.
//
// Range: dates are clamped to the years 1970 to 2106. The arithmetic counts 2100 as a leap year
// while the calendar does not: from 2100-01-01 on a date's seconds are one day ahead of the
// system's, and seconds give the system's date until 2100-11-29, the day before it afterwards.

/// Seconds from 1970-01-01 00:00:00 to `time`, both in the same zone. A field out of range counts
/// as normalize_time would leave it; `wday` and `isdst` are not looked at.
INFRA_API uint64_t time_to_seconds(const SystemTime& time);

/// The inverse of time_to_seconds; sets `wday` and leaves `isdst` alone.
/// Seconds below 0 (as a signed number) give 1970-01-01 00:00:00, and those behind the reach of the
/// arithmetic, more than a thousand years ahead, the last second that it reaches.
INFRA_API void seconds_to_time(uint64_t secs, SystemTime& time);

/// time_to_seconds for a local `time`: the seconds in UTC by get_timezone(), at least 0.
/// Daylight saving is not taken into account.
INFRA_API uint64_t time_to_utc(const SystemTime& time);

/// seconds_to_time for seconds in UTC: the local time by get_timezone().
INFRA_API void utc_to_time(uint64_t utc, SystemTime& time);

/// Brings every field into its range and sets `wday`.
///
/// Year, month, day, minute and second go to the nearest bound, a day that its month does not have
/// to the last one of a common year (so 29 February stands in a leap year, 30 February becomes the
/// 28th in every year); an hour below 0 becomes 0, one above 23 makes the time 23:59:59.
INFRA_API void normalize_time(SystemTime& time);

/// The day of the week, 0 for Sunday to 6. A date out of range is normalised first.
INFRA_API int Date_to_weekday(int year, int month, int day);

/// Seconds that the local zone is west of UTC (negative in the east), as the system's `timezone`
/// has it; 0 after disable_timezone().
INFRA_API long get_timezone();

/// From now on every conversion takes local time for UTC. Cannot be undone. Returns 0.
INFRA_API int disable_timezone();

} // namespace Infra
} // namespace Tarsel

#endif
