#ifndef INFRA_MEMORY_MEMORYBLOCK_H
#define INFRA_MEMORY_MEMORYBLOCK_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"
#include "Memory/ShareMemory.h"

namespace Tarsel
{
namespace Memory
{

/// What one process tells another about a block, by any means. 20 bytes, little-endian.
struct MemoryBlockDes
{
    char magic[4];        ///< "TSMB"
    uint32_t memPoolType; ///< IMemPool::PoolType
    uint32_t memPoolSize; ///< bytes, the low 32 bits
    uint32_t offset;      ///< of the block in the pool
    uint32_t totalSize;   ///< bytes of the block
};
static_assert(sizeof(MemoryBlockDes) == 20, "a format");

/// A process's handle of a block of the shared pool.
///
/// Behaviour: a process has one handle for a block, however often it asks; `delete` drops one
/// reference, and the last one of the process lets go of the block. To hand a block to another
/// process, describe it and send the description; the receiver makes a handle of it. A description
/// that nobody takes up within a second may be void, after two it is. Descriptions come from processes that are
/// trusted with the pool: a wrong one is refused, but one that names another block that is in use
/// cannot be told from a right one.
///
/// Failure: null or false, and an error line. Without a pool the process ends.
/// Threads: safe from any thread. After a fork the child has the parent's handles, not its
/// references: it takes its own by a description, and deletes none of the parent's.
///
///     CMemoryBlock* block = CMemoryBlock::createMemoryBlock(64 << 10);
///     uint8_t description[64];
///     CMemoryBlock::getMemoryBlockDesc(block->getBuffer(), description, sizeof(description));
class INFRA_API CMemoryBlock
{
public:
    /// A new block of at least `size` bytes, not initialised; null without one.
    static CMemoryBlock* createMemoryBlock(size_t size);
    /// The block that a description of `len` bytes names, and the end of its hand-over.
    static CMemoryBlock* getMemoryBlock(void* desc, size_t len);
    /// What the process attaches with, and attaching.
    static void setPoolParameter(const IMemPool::PoolParam& param);
    /// Fills `len` bytes, 20 or more, with the description of the block at `buf`, and begins a
    /// hand-over.
    static bool getMemoryBlockDesc(void* buf, void* desc, size_t len);

    /// Drops one reference of this process.
    static void operator delete(void* handle);

    void* getBuffer();
    /// Bytes of the block.
    size_t getTotalSize();

private:
    friend struct MemoryBlockAccess;
    friend struct MemoryBlockHandle;

    CMemoryBlock(void* buffer, size_t totalSize) : m_totalSize(totalSize), m_buffer(buffer) {}
    CMemoryBlock(const CMemoryBlock&);
    CMemoryBlock& operator=(const CMemoryBlock&);

    size_t m_totalSize;
    void* m_buffer;
};

} // namespace Memory
} // namespace Tarsel

#endif
