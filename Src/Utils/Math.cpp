// Math.cpp: integer logarithm.

#include "Utils/Math.h"

#include "Infra3/Arithmetic.h"

namespace Tarsel
{
namespace Utils
{

int log2i(uint32_t x)
{
    return Infra::log2Floor(x);
}

} // namespace Utils
} // namespace Tarsel
