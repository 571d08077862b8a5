// String.cpp: how strings grow and fail. Their code is all templates; what is here would only bloat
// every place where one is used.
//
// A string's capacity is exact, so a text that is put together piece by piece asks for more room
// with every piece. Two things keep that from copying it each time: the block's real size, which
// malloc knows, and a headroom in a block that has had to grow. So the price of exactness is a
// quarter of a grown string, between 96 bytes and a page; one that is made at once has none.
// Blocks up to a page are moved by hand, because realloc passes by the allocator's caches; larger
// ones may be moved by the system without copying.

#include "Infra/Infra3/String.h"

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Infra
{
namespace Detail
{
namespace
{

constexpr size_t largestMovedByHand = 4096;

constexpr size_t headroomOf(size_t bytes)
{
    return std::clamp(bytes / 4, size_t{96}, size_t{4096});
}

void* checkedBlock(void* block)
{
    if (block == nullptr) {
        throwStringMemory();
    }
    return block;
}

} // namespace

/// Without memory for the headroom there may be enough for the text.
void* growingStringBlock(size_t bytes)
{
    void* const roomy = malloc(bytes + headroomOf(bytes));
    return roomy != nullptr ? roomy : checkedBlock(malloc(bytes));
}

void* resizeStringBlock(void* block, size_t bytes, bool grows)
{
    if (!grows) {
        return checkedBlock(realloc(block, bytes));
    }
    const size_t present = malloc_usable_size(block);
    if (present >= bytes) {
        return block;
    }
    if (present > largestMovedByHand) {
        void* const roomy = realloc(block, bytes + headroomOf(bytes));
        return roomy != nullptr ? roomy : checkedBlock(realloc(block, bytes));
    }
    void* const moved = growingStringBlock(bytes);
    memcpy(moved, block, present);
    free(block);
    return moved;
}

void stringCheckFailed(const char* text, const char* file, long line)
{
    systemAssertionFailed(text, nullptr, file, line);
}

void throwStringPosition()
{
    throw std::out_of_range("position is behind the end of the string");
}

void throwStringLength()
{
    throw std::length_error("string is too long");
}

void throwStringMemory()
{
    throw std::bad_alloc();
}

} // namespace Detail
} // namespace Infra
} // namespace Tarsel
