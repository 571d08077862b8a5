// String.cpp: how strings fail. Their code is all templates; what is here is what would only bloat
// every place where one is used.

#include "Infra/Infra3/String.h"

#include <new>
#include <stdexcept>

#include "Infra3/AssertFront.h"

namespace Tarsel
{
namespace Infra
{
namespace Detail
{

void stringCheckFailed(const char* text, const char* file, long line)
{
    systemAssertionFailed(text, file, line);
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
