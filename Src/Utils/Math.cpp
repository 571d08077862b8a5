// Math.cpp: integer logarithm.

#include "Utils/Math.h"

namespace Tarsel
{
namespace Utils
{

int log2i(uint32_t x)
{
    return x == 0 ? 0 : 31 - __builtin_clz(x);
}

} // namespace Utils
} // namespace Tarsel
