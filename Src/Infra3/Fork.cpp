// Fork.cpp: the one set of fork handlers.
//
// Before a fork every subsystem that joined takes its locks, in the library's lock order; so no
// other thread is inside a table while memory is copied. In the parent they are released in reverse
// order. In the child, where the locks belong to a thread that does not exist there, they are made
// anew, and each subsystem forgets the threads that stayed behind.

#include "Infra3/Fork.h"

#include <pthread.h>

#include <atomic>

#include "Infra3/AssertFront.h"
#include "Infra3/MutexInternal.h"
#include "Infra3/ThreadId.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

constexpr int rankCount = static_cast<int>(ForkRank::count);

constinit std::atomic<const ForkPart*> s_parts[rankCount] = {};

/// The parts as `prepare` saw them: one that joins during a fork takes no part in it. Guarded by
/// s_forkMutex, which the forking thread holds from `prepare` on.
constinit const ForkPart* s_taken[rankCount] = {};
constinit pthread_mutex_t s_forkMutex = PTHREAD_MUTEX_INITIALIZER;

void call(void (*step)())
{
    if (step != nullptr) {
        step();
    }
}

void prepareFork()
{
    pthread_mutex_lock(&s_forkMutex);
    for (int rank = 0; rank < rankCount; ++rank) {
        s_taken[rank] = s_parts[rank].load(std::memory_order_acquire);
        if (s_taken[rank] != nullptr) {
            call(s_taken[rank]->prepare);
        }
    }
}

void resumeParent()
{
    for (int rank = rankCount - 1; rank >= 0; --rank) {
        if (s_taken[rank] != nullptr) {
            call(s_taken[rank]->parent);
        }
    }
    pthread_mutex_unlock(&s_forkMutex);
}

void resumeChild()
{
    forgetThreadId();
    for (int rank = rankCount - 1; rank >= 0; --rank) {
        if (s_taken[rank] != nullptr) {
            call(s_taken[rank]->child);
        }
    }
    pthread_mutex_unlock(&s_forkMutex); // this very thread took it
}

void registerHandlers()
{
    pthread_atfork(prepareFork, resumeParent, resumeChild);
}

} // namespace

void watchForks()
{
    static constinit pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, registerHandlers);
}

void joinFork(ForkRank rank, const ForkPart& part)
{
    s_parts[static_cast<int>(rank)].store(&part, std::memory_order_release);
    watchForks();
}

void ForkAccess::renew(CMutex& mutex)
{
    initMutex(*mutex.m_internal);
}

void ForkAccess::renew(CRecursiveMutex& mutex)
{
    initRecursiveMutex(*mutex.m_internal);
}

} // namespace Infra
} // namespace Tarsel
