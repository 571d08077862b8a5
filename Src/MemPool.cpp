// MemPool.cpp: the older element pool.

#include "Infra/MemPool.h"

#include "Memory/MemPool.h"

struct MemPoolInternal
{
    MemPoolInternal(unsigned int esize, unsigned int ecount) : pool(esize, ecount) {}

    Tarsel::Memory::Detail::CMemPool pool;
};

CMemPool::CMemPool(unsigned int esize, unsigned int ecount)
    : m_internal(new MemPoolInternal(esize, ecount))
{}

CMemPool::~CMemPool()
{
    delete m_internal;
}

void* CMemPool::alloc()
{
    return m_internal->pool.malloc();
}

void CMemPool::free(void* p)
{
    m_internal->pool.free(p);
}
