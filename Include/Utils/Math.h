#ifndef INFRA_UTILS_MATH_H
#define INFRA_UTILS_MATH_H

#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

/// The largest k with 2^k <= `x`; 0 for 0. So 1 gives 0, 1023 gives 9, 1024 gives 10.
INFRA_API int log2i(uint32_t x);

} // namespace Utils
} // namespace Tarsel

#endif
