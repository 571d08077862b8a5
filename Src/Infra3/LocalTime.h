#ifndef INFRA_SRC_INFRA3_LOCALTIME_H
#define INFRA_SRC_INFRA3_LOCALTIME_H

// The system's local time. Its library converts under a lock of its own, which a fork copies as it
// stands: held for ever in the child if another thread was inside. So all of the library converts
// here, behind a lock that a fork waits for.

#include <time.h>

namespace Tarsel
{
namespace Infra
{

/// The local time of `second`, with the system's daylight-saving mark. Valid until the calling
/// thread's next call. Seconds come in runs: a thread that asks for the same one again gets what it
/// got before, without a lock.
const tm& localTimeOf(time_t second);

/// The same anew, as the system has it; false when it cannot tell.
bool convertToLocal(time_t second, tm& local);
/// The second of a local time, whose fields are brought into the calendar; -1 when the system cannot
/// tell.
time_t convertFromLocal(tm& local);

/// Has the system read its zone, on the first call. `timezone` is valid from then on.
void readZoneOnce();

} // namespace Infra
} // namespace Tarsel

#endif
