// Singleton.cpp: the lock and the exit registration that all managers share.

#include "Infra3/Singleton.h"

#include <cstdlib>

#include "Infra3/Fork.h"
#include "Infra3/Immortal.h"
#include "Infra3/LogFront.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

void prepareFork()
{
    singletonMutex().enter();
}

void resumeParent()
{
    singletonMutex().leave();
}

void resumeChild()
{
    ForkAccess::renewTaken(singletonMutex());
}

constexpr ForkPart s_forkPart = {prepareFork, resumeParent, resumeChild};

/// A manager that is half made while the process forks would stay half made in the child.
struct SingletonLock
{
    SingletonLock() { joinFork(ForkRank::singletons, s_forkPart); }
    CRecursiveMutex mutex;
};

} // namespace

CRecursiveMutex& singletonMutex()
{
    return immortal<SingletonLock, SingletonLock>().mutex;
}

namespace
{

/// Joined while the library is loaded: a fork that begins before the first manager is made must
/// find the lock in its list, or the child could inherit it held.
[[maybe_unused]] const CRecursiveMutex& s_joinedAtLoad = singletonMutex();

} // namespace

void registerExit(void (*atExit)())
{
    if (atexit(atExit) != 0) {
        INFRA_LOG_INFO("atexit failed!\n");
    }
}

} // namespace Infra
} // namespace Tarsel
