// MemPool.cpp: elements of one size from chunks of many.
//
// A chunk is one heap block: a header of 16 bytes, then the elements. Free elements form a list
// through their own first bytes. An element may be of any size, so links are moved bytewise: the
// next one may stand at any address.

#include "Memory/MemPool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "Infra/Infra3/Guard.h"
#include "Infra/Infra3/Mutex.h"
#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Memory
{
namespace Detail
{
namespace
{

struct Chunk
{
    char* mem;
    Chunk* next;
};
static_assert(sizeof(Chunk) == 16, "elements keep the alignment of the block");

/// Laid over a free element.
struct Link
{
    Link* next;
};

Link* nextOf(const Link* element)
{
    Link* next = nullptr;
    std::memcpy(&next, static_cast<const void*>(element), sizeof(void*));
    return next;
}

void setNext(Link* element, Link* next)
{
    std::memcpy(static_cast<void*>(element), &next, sizeof(void*));
}

} // namespace

struct MemPoolInternal
{
    MemPoolInternal(unsigned int elementSize, unsigned int elementCount)
        : chunks(nullptr), esize(elementSize), ecount(elementCount), head(nullptr)
    {}

    Chunk* chunks;
    const unsigned int esize;
    unsigned int ecount;
    Link* head; ///< the free elements; guarded, like `chunks`, by `mutex`
    Infra::CMutex mutex;
};

namespace
{

/// A new chunk in front, all its elements free, in address order. The free list is empty.
bool addChunk(MemPoolInternal& pool)
{
    unsigned int bytes = 0;
    if (pool.ecount == 0 || __builtin_mul_overflow(pool.ecount, pool.esize, &bytes)) {
        return false;
    }
    char* block = static_cast<char*>(std::malloc(sizeof(Chunk) + size_t{bytes}));
    if (block == nullptr) {
        return false;
    }
    char* first = block + sizeof(Chunk);
    pool.chunks = new (block) Chunk{first, pool.chunks};
    Link* next = nullptr;
    for (size_t i = pool.ecount; i-- > 0;) {
        Link* element = reinterpret_cast<Link*>(first + i * pool.esize);
        setNext(element, next);
        next = element;
    }
    pool.head = next;
    return true;
}

} // namespace

CMemPool::CMemPool(unsigned int esize, unsigned int ecount)
    : m_internal(new (std::nothrow)
                     MemPoolInternal(std::max<unsigned int>(esize, sizeof(Link)), ecount))
{
    INFRA_ASSERT(m_internal);
}

CMemPool::~CMemPool()
{
    for (Chunk* chunk = m_internal->chunks; chunk != nullptr;) {
        Chunk* next = chunk->next;
        std::free(chunk);
        chunk = next;
    }
    delete m_internal;
}

void* CMemPool::malloc()
{
    Infra::CGuard guard(m_internal->mutex);
    if (m_internal->head == nullptr && !addChunk(*m_internal)) {
        return nullptr;
    }
    Link* element = m_internal->head;
    m_internal->head = nextOf(element);
    return element;
}

void CMemPool::free(void* p)
{
    if (p == nullptr) {
        return;
    }
    Infra::CGuard guard(m_internal->mutex);
    Link* element = static_cast<Link*>(p);
    setNext(element, m_internal->head);
    m_internal->head = element;
}

} // namespace Detail
} // namespace Memory
} // namespace Tarsel
