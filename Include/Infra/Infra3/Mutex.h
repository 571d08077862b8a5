#ifndef INFRA_INFRA3_MUTEX_H
#define INFRA_INFRA3_MUTEX_H

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/LockRecords.h"

namespace Tarsel
{
namespace Infra
{

/// A plain, non-recursive mutex.
///
/// Behaviour: a thread that enters twice waits for itself. Nothing is logged by a failed call.
/// Failure: the constructor ends the process when the system refuses a mutex; the destructor does
/// so, after an error line, when the mutex is still held or damaged.
/// Threads: safe from any thread; `leave` by the thread that entered.
class INFRA_API CMutex
{
public:
    CMutex();
    ~CMutex();

    /// Locks, waiting as long as it takes. True when the mutex is now held.
    bool enter() { return pthread_mutex_lock(&m_internal->mutex) == 0; }
    /// Locks if that needs no waiting. True when the mutex is now held.
    bool tryEnter() { return pthread_mutex_trylock(&m_internal->mutex) == 0; }
    /// Unlocks. True on success.
    bool leave() { return pthread_mutex_unlock(&m_internal->mutex) == 0; }

private:
    CMutex(const CMutex&);
    CMutex& operator=(const CMutex&);

    friend struct ForkAccess;
    MutexInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
