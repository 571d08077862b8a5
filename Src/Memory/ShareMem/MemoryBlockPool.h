#ifndef INFRA_SRC_MEMORY_SHAREMEM_MEMORYBLOCKPOOL_H
#define INFRA_SRC_MEMORY_SHAREMEM_MEMORYBLOCKPOOL_H

// The handles of a process: one a block, however many references the process has. An offset means
// nothing without the mapping that it was taken in.

#include <cstddef>
#include <map>

#include "Infra/Infra3/AtomicCount.h"
#include "Infra3/LeafMutex.h"
#include "Memory/MemoryBlock.h"

namespace Tarsel
{
namespace Memory
{

struct MemoryBlockRefer
{
    CMemoryBlock* obj;
    Infra::CAtomicCount refCount;
};

class CMemoryBlockPool
{
public:
    typedef std::map<size_t, MemoryBlockRefer*> MemBlockReferMap;

    CMemoryBlockPool();
    ~CMemoryBlockPool();
    CMemoryBlockPool(const CMemoryBlockPool&) = delete;
    CMemoryBlockPool& operator=(const CMemoryBlockPool&) = delete;

    /// Records a handle, or counts one use more of the handle that is recorded for the same block.
    bool addBlock(CMemoryBlock* block);
    /// The same for a block of `pool`, which may have been destroyed meanwhile; `*recorded` becomes the
    /// handle that is recorded now.
    bool addBlock(IMemPool& pool, CMemoryBlock* block, CMemoryBlock** recorded);
    /// 0: that was the last use of the handle; 1: there are others; -1: it is not recorded.
    int releaseBlock(CMemoryBlock* block);
    /// The handle recorded for the block at `offset`, with one use more if `addRef`; or null.
    CMemoryBlock* getBlock(size_t offset, bool addRef);

    /// From now on blocks lie in the mapping at `base`: what is recorded of another one is forgotten.
    void startIn(const void* base);
    /// Forgets all handles; the handles themselves stay their users'. Takes no lock: for the child of
    /// a fork.
    void forgetAll();

private:
    Infra::CLeafMutex m_mapMutex;
    MemBlockReferMap m_referMap;
    const void* m_base = nullptr;
};

} // namespace Memory
} // namespace Tarsel

#endif
