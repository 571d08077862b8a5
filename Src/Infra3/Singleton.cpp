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
    ForkAccess::renew(singletonMutex());
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

void registerExit(void (*atExit)())
{
    if (atexit(atExit) != 0) {
        INFRA_LOG_INFO("atexit failed!\n");
    }
}

} // namespace Infra
} // namespace Tarsel
