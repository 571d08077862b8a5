#ifndef INFRA_SRC_MEMORY_SHAREMEM_POOLINSTANCE_H
#define INFRA_SRC_MEMORY_SHAREMEM_POOLINSTANCE_H

// The one pool of a process: which object is in use, and the lock around making and ending it.

namespace Tarsel
{
namespace Memory
{

class CShareMemory;
class IMemPool;

struct PoolInstance
{
    /// The pool in use, or null. Needs no lock.
    static IMemPool* current();
    /// Counts one user of `pool` less. True when that was the last one: the pool is no longer in use,
    /// and the caller's to park.
    static bool detach(IMemPool* pool);
    /// Keeps a pool object that is not in use, for the next time.
    static void park(CShareMemory* pool);
};

} // namespace Memory
} // namespace Tarsel

#endif
