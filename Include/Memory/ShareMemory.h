#ifndef INFRA_MEMORY_SHAREMEMORY_H
#define INFRA_MEMORY_SHAREMEMORY_H

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Memory
{

/// One pool of memory for several processes.
///
/// Behaviour: one process makes the pool with initMemPool(), the others attach to it with
/// loadMemPool(). Blocks are pages, handed out in powers of two. Who holds which block is counted by
/// process: a block goes back when nobody holds it and no hand-over to another process is on its
/// way. A hand-over that nobody takes lasts for one second at least and expires within two, as long as
/// the process that made the pool lives. What a dead process held comes back by freeResourceByPid(); a process may die at
/// any moment, its death costs the others nothing.
///
/// All processes of a pool share one process-id and one IPC namespace, and trust each other: any of
/// them can reach all of the pool. The pool's names are fixed, so there is one pool a namespace.
/// Failure: null or false, and an error line. A missing pool ends the process where one is needed.
/// Threads: safe from any thread and any process. Ownership: the object belongs to the library; see
/// destroy().
///
///     IMemPool::PoolParam param = {IMemPool::PT_ShareMemory, 64 << 20, 4096};
///     if (IMemPool::initMemPool(param)) {
///         IMemPool* pool = IMemPool::loadMemPool(param);
class INFRA_API IMemPool
{
public:
    enum PoolType : uint32_t
    {
        PT_ShareMemory = 0,
        PT_AvMemory = 1, ///< refused
        PT_Invalid = 2
    };

    struct PoolParam
    {
        PoolType poolType;
        size_t poolSize;  ///< bytes of memory to hand out; less than 4 GiB
        size_t chunkSize; ///< bytes of a page; a power of two, 64 or more
        size_t orderNum;  ///< blocks of up to 2^(orderNum - 1) pages; 0: of any size
        size_t debugFlag; ///< 1, 2: a guard page before, behind each allocation; 0: none; others
                          ///< allocate nothing
        size_t reserved[6];
    };

protected:
    IMemPool();
    virtual ~IMemPool();

public:
    /// Makes the pool of the namespace and attaches to it. A pool left by processes that are gone is
    /// wiped; processes that still use one keep it to themselves. False, and nothing changed, in a
    /// process that already has a pool and for settings that no pool can have; a page size that is
    /// no power of two, and a pool smaller than a page, end the process.
    static bool initMemPool(const PoolParam& param);
    /// This process's pool; the first call attaches. `param` matters only for a pool that no process
    /// has initialised yet, and for its debugFlag. Null without a pool.
    static IMemPool* loadMemPool(const PoolParam& param);
    /// Removes the pool that has the name, whoever made it; it goes when the last process that is
    /// attached ends.
    static bool deinitMemPool();

    /// Bytes of the pool, and bytes that are free at this moment, as 32 bits; always true. Without a
    /// pool the process ends.
    static bool getMemSize(uint32_t& size);
    static bool getMemFreeSize(uint32_t& size);
    /// Prints the free blocks, a line each, on standard output.
    static void dumpInfo();

    /// Ends this process's use of the pool. The mappings stay, and a thread that is inside the pool
    /// finishes; nothing must be called on the object afterwards.
    virtual void destroy() = 0;
    /// A block of at least `size` bytes with one reference of this process; null without one.
    /// `size` becomes what was granted.
    virtual void* allocMem(size_t& size) = 0;
    /// Drops one reference of this process to the block.
    virtual bool freeMem(void* p) = 0;
    /// The block at `offset` with a further reference of this process; null if there is none.
    virtual void* getMem(size_t offset) = 0;
    /// The offset of a block, which is the same in all processes.
    virtual bool getOffset(void* p, size_t& offset) = 0;
    /// Begins, ends a hand-over of the block to another process.
    virtual bool incDeliverRef(void* p) = 0;
    virtual bool decDeliverRef(void* p) = 0;
    /// One pass of expiry; the process that made the pool does one a second by itself. False when
    /// nothing is handed out at all.
    virtual bool expireClean() = 0;
    /// Drops one reference to each block that process `pid`, which is dead, holds. It may have had
    /// several to one block: to be repeated until getMemFreeSize() grows no more.
    virtual bool freeResourceByPid(pid_t pid) = 0;
};

} // namespace Memory
} // namespace Tarsel

#endif
