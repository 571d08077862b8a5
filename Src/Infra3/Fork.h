#ifndef INFRA_SRC_INFRA3_FORK_H
#define INFRA_SRC_INFRA3_FORK_H

// fork() in a process with threads: the child gets a copy of all memory and of one thread. Whatever
// another thread held or was changing at that moment stays so in the child for ever. So every
// subsystem with process-wide state joins here: its locks are taken before the fork, in the
// library's lock order, and in the child they are made anew and its threads are forgotten.

#include "Infra/Infra3/Mutex.h"
#include "Infra/Infra3/RecursiveMutex.h"

namespace Tarsel
{
namespace Infra
{

/// The order in which locks are taken before a fork: the library's lock order.
enum class ForkRank
{
    shareBlocks, ///< attaching makes a timer and what runs it
    sharePool,
    clients, ///< its list makes a timer
    singletons,
    timers,
    loadController,
    threads,
    packets,
    logFile,
    values, ///< the leaf locks (LeafMutex.h)
    count
};

/// One subsystem's part. Any of the three may be null. They run on the forking thread.
struct ForkPart
{
    void (*prepare)(); ///< takes the subsystem's locks
    void (*parent)();  ///< releases them, in the parent
    void (*child)();   ///< makes them anew and drops what belonged to other threads, in the child
};

/// Sets the part of one rank; a second call for the same rank replaces it. `part` is kept and must
/// live for ever. Safe from any thread, before main() too.
void joinFork(ForkRank rank, const ForkPart& part);

/// Registers the process's fork handlers, once; joinFork does it by itself.
void watchForks();

/// Makes a lock of the parent's anew in the child.
struct ForkAccess
{
    /// Whoever held it.
    static void renew(CMutex& mutex);
    static void renew(CRecursiveMutex& mutex);

    /// One that `prepare` took. It is let go first, as far as the system allows in the child; a
    /// checker of locks would else count it as held for ever.
    template <typename Mutex>
    static void renewTaken(Mutex& mutex)
    {
        mutex.leave();
        renew(mutex);
    }
};

} // namespace Infra
} // namespace Tarsel

#endif
