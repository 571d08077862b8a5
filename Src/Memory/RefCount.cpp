// RefCount.cpp: two atomic counters inside the caller's object, so that a count never allocates.

#include "Memory/RefCount.h"

#include <atomic>
#include <new>

namespace Tarsel
{
namespace Memory
{
namespace Detail
{

struct CRefCountImpl
{
    std::atomic<int64_t> m_strong{1};
    std::atomic<int64_t> m_weak{1};
};

} // namespace Detail

namespace
{

using Detail::CRefCountImpl;

CRefCountImpl& countsIn(int32_t (&storage)[8])
{
    static_assert(sizeof(CRefCountImpl) <= sizeof(storage), "the counts live in the object");
    static_assert(alignof(CRefCountImpl) <= alignof(CRefCount), "the counts live in the object");
    return *std::launder(reinterpret_cast<CRefCountImpl*>(storage));
}

int32_t change(std::atomic<int64_t>& count, int64_t by)
{
    return static_cast<int32_t>(count.fetch_add(by) + by);
}

int32_t read(const std::atomic<int64_t>& count)
{
    return static_cast<int32_t>(count.load(std::memory_order_relaxed));
}

} // namespace

CRefCount::CRefCount()
{
    new (m_internal) CRefCountImpl;
}

CRefCount::~CRefCount() = default;

int32_t CRefCount::incStrong()
{
    return change(countsIn(m_internal).m_strong, 1);
}

int32_t CRefCount::decStrong()
{
    return change(countsIn(m_internal).m_strong, -1);
}

int32_t CRefCount::tryIncStrong()
{
    std::atomic<int64_t>& strong = countsIn(m_internal).m_strong;
    int64_t count = strong.load(std::memory_order_relaxed);
    while (count != 0) {
        if (strong.compare_exchange_weak(count, count + 1)) {
            return static_cast<int32_t>(count + 1);
        }
    }
    return 0;
}

int32_t CRefCount::getStrong()
{
    return read(countsIn(m_internal).m_strong);
}

int32_t CRefCount::incWeak()
{
    return change(countsIn(m_internal).m_weak, 1);
}

int32_t CRefCount::decWeak()
{
    return change(countsIn(m_internal).m_weak, -1);
}

int32_t CRefCount::getWeak()
{
    return read(countsIn(m_internal).m_weak);
}

} // namespace Memory
} // namespace Tarsel
