#ifndef INFRA_MUTEX_H
#define INFRA_MUTEX_H

#include "Infra/Infra3/Detail/Export.h"

struct MutexInternal;

/// The older mutex, plain or recursive: one of POSIX. New code takes Tarsel::Infra::CMutex or
/// CRecursiveMutex, which are faster.
///
/// Failure: a mutex that cannot be made, or is destroyed while it is held, ends the process.
/// Threads: safe from any thread.
class INFRA_API CMutex
{
public:
    enum Type : int
    {
        mutexFast = 0,
        mutexRecursive = 1 ///< may be entered again by the thread that is in it
    };

    explicit CMutex(Type type = mutexFast);
    ~CMutex();

    /// Waits for the mutex. @return whether it was entered, which fails on misuse only
    bool Enter();
    /// @return whether it was entered; false at once when it is held
    bool TryEnter();
    bool Leave();

private:
    CMutex(const CMutex&);
    CMutex& operator=(const CMutex&);

    ::MutexInternal* m_internal;
};

/// Holds a mutex for as long as it lives.
class CGuard
{
public:
    explicit CGuard(::CMutex& mutex) : m_mutex(mutex) { m_mutex.Enter(); }
    ~CGuard() { m_mutex.Leave(); }

private:
    CGuard(const CGuard&);
    CGuard& operator=(const CGuard&);

    ::CMutex& m_mutex;
};

#endif
