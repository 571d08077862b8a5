#ifndef INFRA_SRC_MEMORY_SHAREMEM_MEMORYBLOCKACCESS_H
#define INFRA_SRC_MEMORY_SHAREMEM_MEMORYBLOCKACCESS_H

// The inside of block handles, for the parts of the library that deal in them.

#include "Memory/MemoryBlock.h"

namespace Tarsel
{
namespace Memory
{

class CMemoryBlockPool;

struct MemoryBlockAccess
{
    /// The pool that blocks come from; null until the first block or setPoolParameter().
    static IMemPool* pool();
    static CMemoryBlockPool& blocks();
    /// The pool is about to be deleted.
    static void forgetPool(IMemPool* pool);

    /// Drops one reference of a handle that is not null: what `delete` does, without an object whose
    /// life the compiler could think ended.
    static void release(CMemoryBlock* handle);
};

} // namespace Memory
} // namespace Tarsel

#endif
