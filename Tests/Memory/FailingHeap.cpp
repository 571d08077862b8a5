// FailingHeap.cpp: the heap seam. The linker sends every call of the three functions in this
// program here (--wrap).

#include "Memory/FailingHeap.h"

#include <atomic>
#include <cerrno>

namespace
{

constexpr size_t noSize = static_cast<size_t>(-1);
constinit std::atomic<size_t> s_failing{noSize};

bool fails(size_t bytes)
{
    if (bytes != s_failing.load(std::memory_order_relaxed)) {
        return false;
    }
    errno = ENOMEM;
    return true;
}

} // namespace

extern "C" void* __real_malloc(size_t size);
extern "C" void* __real_calloc(size_t count, size_t size);
extern "C" void* __real_realloc(void* block, size_t size);

extern "C" void* __wrap_malloc(size_t size)
{
    return fails(size) ? nullptr : __real_malloc(size);
}

extern "C" void* __wrap_calloc(size_t count, size_t size)
{
    return fails(count * size) ? nullptr : __real_calloc(count, size);
}

extern "C" void* __wrap_realloc(void* block, size_t size)
{
    return fails(size) ? nullptr : __real_realloc(block, size);
}

namespace Tarsel
{
namespace TestSupport
{

CFailingHeap::CFailingHeap(size_t bytes)
{
    s_failing = bytes;
}

CFailingHeap::~CFailingHeap()
{
    s_failing = noSize;
}

} // namespace TestSupport
} // namespace Tarsel
