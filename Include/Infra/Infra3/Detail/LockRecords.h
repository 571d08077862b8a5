#ifndef INFRA_INFRA3_DETAIL_LOCKRECORDS_H
#define INFRA_INFRA3_DETAIL_LOCKRECORDS_H

// What lies behind the two mutex classes. It stands here only because entering and leaving are
// compiled into the caller: a lock that nobody else holds costs no more than the system's own.

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

} // namespace Infra
} // namespace Tarsel

#endif
