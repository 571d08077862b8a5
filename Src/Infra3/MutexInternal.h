#ifndef INFRA_SRC_INFRA3_MUTEXINTERNAL_H
#define INFRA_SRC_INFRA3_MUTEXINTERNAL_H

// How a mutex is made, shared with the fork handlers, which make locks anew.

#include "Infra/Infra3/Detail/LockRecords.h"

namespace Tarsel
{
namespace Infra
{

/// Both end the process when the system refuses.
void initMutex(MutexInternal& internal);
void initRecursiveMutex(RecursiveMutexInternal& internal);

} // namespace Infra
} // namespace Tarsel

#endif
