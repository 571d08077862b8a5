#ifndef INFRA_INFRA3_GUARD_H
#define INFRA_INFRA3_GUARD_H

#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/RecursiveMutex.h"

namespace Tarsel
{
namespace Infra
{

/// Holds a CMutex for the length of a scope. The result of `enter` is not looked at: it fails only
/// for a broken mutex.
class CGuard
{
public:
    explicit CGuard(CMutex& mutex) : m_mutex(mutex) { m_mutex.enter(); }
    ~CGuard() { m_mutex.leave(); }

private:
    CGuard(const CGuard&);
    CGuard& operator=(const CGuard&);

    CMutex& m_mutex;
};

/// Holds a CRecursiveMutex for the length of a scope.
class CRecursiveGuard
{
public:
    explicit CRecursiveGuard(CRecursiveMutex& mutex) : m_mutex(mutex) { m_mutex.enter(); }
    ~CRecursiveGuard() { m_mutex.leave(); }

private:
    CRecursiveGuard(const CRecursiveGuard&);
    CRecursiveGuard& operator=(const CRecursiveGuard&);

    CRecursiveMutex& m_mutex;
};

} // namespace Infra
} // namespace Tarsel

#endif
