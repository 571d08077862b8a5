#ifndef INFRA_SRC_INFRA3_ARITHMETIC_H
#define INFRA_SRC_INFRA3_ARITHMETIC_H

// The small integer arithmetic of sizes, once.

#include <cstddef>
#include <cstdint>

namespace Tarsel
{
namespace Infra
{

/// The largest k with 2^k <= x; 0 for 0.
constexpr int log2Floor(uint64_t x)
{
    return x == 0 ? 0 : 63 - __builtin_clzll(x);
}

constexpr bool isPowerOfTwo(uint64_t x)
{
    return x != 0 && (x & (x - 1)) == 0;
}

/// `size` rounded up to a multiple of a power of two; it wraps round to 0 at the end of 64 bits.
constexpr uint64_t roundUp(uint64_t size, uint64_t powerOfTwo)
{
    return (size + powerOfTwo - 1) & ~(powerOfTwo - 1);
}

/// a + b, or SIZE_MAX where that is too much to count.
constexpr size_t saturatedSum(size_t a, size_t b)
{
    return a > SIZE_MAX - b ? SIZE_MAX : a + b;
}

/// `size` rounded up to a multiple of any step, 0 for none; SIZE_MAX where that is too much to
/// count.
constexpr size_t roundUpToStep(size_t size, size_t step)
{
    const size_t rest = step == 0 ? 0 : size % step;
    return rest == 0 ? size : saturatedSum(size, step - rest);
}

static_assert(log2Floor(0) == 0 && log2Floor(1) == 0 && log2Floor(UINT64_MAX) == 63);
static_assert(roundUp(0, 8) == 0 && roundUp(1, 8) == 8 && roundUp(8, 8) == 8);
static_assert(roundUpToStep(250, 100) == 300 && roundUpToStep(7, 0) == 7);

} // namespace Infra
} // namespace Tarsel

#endif
