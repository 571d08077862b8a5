// String.cpp: how strings grow and fail. Their code is all templates; what is here would only bloat
// every place where one is used.
//
// A string's capacity is exact, so a text that is put together piece by piece asks for more room
// with every piece. Two things keep that from copying it each time: the block's real size, which
// malloc knows, and a headroom of one cache line in a block that has had to move. So the price of
// exactness is at most 64 bytes a grown string, and a move for every 64 characters appended, which
// the system makes without copying where the block is large.

#include "Infra/Infra3/String.h"

#include <malloc.h>

#include <cstdlib>
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

constexpr size_t headroomBytes = 64;

} // namespace

void* resizeStringBlock(void* block, size_t bytes, bool grows)
{
    if (grows && malloc_usable_size(block) >= bytes) {
        return block;
    }
    void* const resized = realloc(block, grows ? bytes + headroomBytes : bytes);
    if (resized == nullptr) {
        throwStringMemory();
    }
    return resized;
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
