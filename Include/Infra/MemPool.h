#ifndef INFRA_MEMPOOL_H
#define INFRA_MEMPOOL_H

#include "Infra/Infra3/Detail/Export.h"

struct MemPoolInternal;

/// The older pool of elements of one size, over Tarsel::Memory::Detail::CMemPool.
class INFRA_API CMemPool
{
public:
    /// @param esize   bytes of an element
    /// @param ecount  elements that are had from the system at once
    CMemPool(unsigned int esize, unsigned int ecount);
    ~CMemPool();

    void* alloc();
    void free(void* p);

private:
    CMemPool(const CMemPool&);
    CMemPool& operator=(const CMemPool&);

    MemPoolInternal* m_internal;
};

#endif
