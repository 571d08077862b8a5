#ifndef INFRA_INFRA3_ASSERTIONFAILED_H
#define INFRA_INFRA3_ASSERTIONFAILED_H

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{
namespace Detail
{

/// Reports a broken program on standard error, flushes standard output if nobody holds it, and ends
/// the process through the system's assertion routine, in every build. Does not return.
///
///     ***** Internal Program Error - assertion (ret == 0) failed in ~CMutex:
///     Src/Infra3/Mutex.cpp(47) program: Src/Infra3/Mutex.cpp:47: Assertion `ret == 0' failed.
[[noreturn]] INFRA_API void assertionFailed(const char* expr, const char* function,
                                            const char* file, long line);

/// The same with a message behind the place.
[[noreturn]] INFRA_API void assertionFailedMsg(const char* expr, const char* msg,
                                               const char* function, const char* file, long line);

} // namespace Detail
} // namespace Infra
} // namespace Tarsel

#endif
