#ifndef INFRA_INFRA3_RECURSIVEMUTEX_H
#define INFRA_INFRA3_RECURSIVEMUTEX_H

#include "Infra/Infra3/Detail/Export.h"
#include "Infra/Infra3/Detail/LockRecords.h"

namespace Tarsel
{
namespace Infra
{

/// A mutex that its holder may enter again; it is free after as many `leave` as `enter` calls.
///
/// Failure: constructor and destructor end the process when the system refuses; a failed `enter` or
/// `leave` returns false and logs nothing.
/// Threads: safe from any thread; `leave` by the thread that entered.
class INFRA_API CRecursiveMutex
{
public:
    CRecursiveMutex();
    ~CRecursiveMutex();

    /// Locks, waiting while another thread holds the mutex. True when it is held once more.
    bool enter() { return pthread_mutex_lock(&m_internal->mutex) == 0; }
    /// Takes back one `enter`. True on success.
    bool leave() { return pthread_mutex_unlock(&m_internal->mutex) == 0; }

private:
    CRecursiveMutex(const CRecursiveMutex&);
    CRecursiveMutex& operator=(const CRecursiveMutex&);

    friend struct ForkAccess;
    RecursiveMutexInternal* m_internal;
};

} // namespace Infra
} // namespace Tarsel

#endif
