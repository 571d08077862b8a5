#ifndef INFRA_MEMORY_MEMPOOL_H
#define INFRA_MEMORY_MEMPOOL_H

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Memory
{
namespace Detail
{

struct MemPoolInternal;

/// Elements of one size, taken from chunks of many and kept for reuse.
///
/// Behaviour: the element freed last is handed out first. Chunks are given back only by the
/// destructor, which takes elements still in use along.
/// Threads: safe from any thread.
class INFRA_API CMemPool
{
public:
    /// @param esize   bytes of an element, at least 8
    /// @param ecount  elements of a chunk, at least 1
    CMemPool(unsigned int esize, unsigned int ecount);
    ~CMemPool();

    /// An element with undefined contents, aligned as far as the size of an element allows, up to
    /// 16 bytes. Null when a chunk is needed and cannot be had: the system has no memory for it,
    /// its elements come to 4 GiB or more, or there are none in it (`ecount` 0).
    void* malloc();
    /// Takes an element of `malloc` back. Null is ignored.
    void free(void* p);

private:
    CMemPool(const CMemPool&);
    CMemPool& operator=(const CMemPool&);

    MemPoolInternal* m_internal;
};

} // namespace Detail
} // namespace Memory
} // namespace Tarsel

#endif
