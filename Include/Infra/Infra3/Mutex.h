#ifndef INFRA_INFRA3_MUTEX_H
#define INFRA_INFRA3_MUTEX_H

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

struct MutexInternal;

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
    bool enter();
    /// Locks if that needs no waiting. True when the mutex is now held.
    bool tryEnter();
    /// Unlocks. True on success.
    bool leave();

private:
    CMutex(const CMutex&);
    CMutex& operator=(const CMutex&);

    friend struct ForkAccess;
    MutexInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
