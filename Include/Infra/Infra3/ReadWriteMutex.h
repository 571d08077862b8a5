#ifndef INFRA_INFRA3_READWRITEMUTEX_H
#define INFRA_INFRA3_READWRITEMUTEX_H

#include <pthread.h>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Infra
{

struct RWMutexInternal;

/// A lock that many readers or one writer may hold.
///
/// Behaviour: `priorityDefault` lets readers in while a writer waits; `priorityWrite` lets a
/// waiting writer go before new readers, and then a thread must not enter for reading twice.
/// Failure: constructor and destructor end the process when the system refuses. A failed
/// `enterWriting` (the caller holds the lock for writing already, for instance) or `leave` logs a
/// warning with the system's text; a failed `enterReading` logs nothing.
/// Threads: safe from any thread; `leave` by the thread that entered.
class INFRA_API CReadWriteMutex
{
public:
    enum RWPriority : int
    {
        priorityDefault = 0, ///< the system's policy: readers first
        priorityWrite = 1    ///< a waiting writer goes before new readers
    };

    CReadWriteMutex();
    /// Any value other than the two above warns and means `priorityDefault`.
    CReadWriteMutex(RWPriority rwpriority);
    ~CReadWriteMutex();

    /// Enters shared. True on success.
    bool enterReading();
    /// Enters exclusively. True on success.
    bool enterWriting();
    /// Leaves, whichever way it was entered. True on success.
    bool leave();

private:
    CReadWriteMutex(const CReadWriteMutex&);
    CReadWriteMutex& operator=(const CReadWriteMutex&);

    /// Warns that `call`, made by `function`, returned the error `code`. False.
    __attribute__((cold)) bool reportFailure(const char* function, const char* call, int code);

    RWMutexInternal* m_internal;
};

/// It stands here only because entering and leaving are compiled into the caller.
struct RWMutexInternal
{
    explicit RWMutexInternal(CReadWriteMutex::RWPriority priority);
    ~RWMutexInternal();

    CReadWriteMutex::RWPriority markRWPriority; ///< the priority in force
    pthread_rwlock_t* m_lock;                   ///< from malloc
};

inline bool CReadWriteMutex::enterReading()
{
    return pthread_rwlock_rdlock(m_internal->m_lock) == 0;
}

inline bool CReadWriteMutex::enterWriting()
{
    const int code = pthread_rwlock_wrlock(m_internal->m_lock);
    return code == 0 || reportFailure("enterWriting", "pthread_rwlock_wrlock", code);
}

inline bool CReadWriteMutex::leave()
{
    const int code = pthread_rwlock_unlock(m_internal->m_lock);
    return code == 0 || reportFailure("leave", "pthread_rwlock_unlock", code);
}

} // namespace Infra
} // namespace Tarsel

#endif
