#ifndef INFRA_SRC_UTILS_DESBITS_H
#define INFRA_SRC_UTILS_DESBITS_H

// DES of many blocks at once, a bit of all of them in one register.

#include "Utils/d3des.h"

namespace Tarsel
{
namespace Utils
{
namespace DES
{

/// Fewer blocks than this are faster one by one.
constexpr size_t worthBits = 52;

/// Transforms blocks of 8 bytes from the front of `blocks` by `passes` passes, 1 or 3, and returns
/// how many; fewer than `worthBits` are left. `out` may be `in`. With a `chain` that is not null,
/// each result is added to the block of `in` before it, the first to `chain`, which is then the
/// last.
using BitsRun = size_t(const Schedules& keys, Direction direction, int passes, uint8_t* chain,
                       size_t blocks, const uint8_t* in, uint8_t* out);

/// 256 blocks at once.
BitsRun cryptBitsAvx2;
/// 512 blocks at once, and a short rest by AVX2.
BitsRun cryptBitsAvx512;

} // namespace DES
} // namespace Utils
} // namespace Tarsel

#endif
