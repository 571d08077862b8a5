#ifndef INFRA_SRC_INFRA3_MUTEXINTERNAL_H
#define INFRA_SRC_INFRA3_MUTEXINTERNAL_H

// What lies behind the two mutex classes, shared with the fork handlers, which make locks anew.

#include <pthread.h>

namespace Tarsel
{
namespace Infra
{

struct MutexInternal
{
    pthread_mutex_t mutex;
};

struct RecursiveMutexInternal
{
    pthread_mutex_t mutex;
};

/// Both end the process when the system refuses.
void initMutex(MutexInternal& internal);
void initRecursiveMutex(RecursiveMutexInternal& internal);

} // namespace Infra
} // namespace Tarsel

#endif
