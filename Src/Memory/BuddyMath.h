#ifndef INFRA_SRC_MEMORY_BUDDYMATH_H
#define INFRA_SRC_MEMORY_BUDDYMATH_H

// The arithmetic of a binary buddy allocator, apart from where its records live. Memory is a row of
// `units` equal units (chunks, pages); a block of order k is 2^k of them and starts at a multiple
// of 2^k. Each unit has a mark that says what it is:
//
//      k + 1   heads a free block of order k
//    -(k + 1)  heads a block of order k that is handed out
//      0       lies inside a block
//
//     index    0   1   2   3   4   5   6   7      eight units, unit 7 handed out by splitting
//     mark    +3   0   0   0  +2   0  +1  -1      one block of order 3: halves go back from below

#include <cstdint>

#include "Infra3/Arithmetic.h"

namespace Tarsel
{
namespace Memory
{
namespace BuddyMath
{

/// An order that no memory has.
constexpr int noOrder = 63;

using Infra::isPowerOfTwo;
using Infra::log2Floor;
using Infra::roundUp;

/// Units in a block of order `order`.
constexpr uint64_t unitsOf(int order)
{
    return uint64_t{1} << order;
}

/// The smallest order whose blocks hold more than `units` units.
constexpr int orderOfUnits(uint64_t units)
{
    return units == 0 ? 0 : log2Floor(units) + 1;
}

/// The smallest order whose blocks hold `sizeBytes`, with units of 2^unitLog2 bytes; noOrder for 0.
constexpr int orderFor(uint64_t sizeBytes, int unitLog2)
{
    return sizeBytes == 0 ? noOrder : orderOfUnits((sizeBytes - 1) >> unitLog2);
}

/// How many orders `units` units have: from 0 to that of the largest block that fits.
constexpr int ordersOf(uint64_t units)
{
    return log2Floor(units) + 1;
}

constexpr int freeMark(int order)
{
    return order + 1;
}

constexpr int takenMark(int order)
{
    return -(order + 1);
}

constexpr bool isTaken(int mark)
{
    return mark < 0;
}

/// The order behind a mark that is not 0. It is 0 or more for any number.
constexpr int orderOfMark(int mark)
{
    return mark < 0 ? ~mark : mark - 1;
}

/// The block that, joined with the block at `index`, makes one of the next order. It may lie past
/// the last unit; such a block never merges.
constexpr uint64_t buddyOf(uint64_t index, int order)
{
    return index ^ unitsOf(order);
}

/// Where the two begin.
constexpr uint64_t pairHead(uint64_t index, int order)
{
    return index & ~unitsOf(order);
}

/// The first order of `nonEmpty` (bit k: list k has a block) that is `order` or above; noOrder when
/// there is none.
constexpr int firstOrderFrom(uint64_t nonEmpty, int order)
{
    const uint64_t usable = nonEmpty >> order << order;
    return usable == 0 ? noOrder : __builtin_ctzll(usable);
}

/// Cuts `units` units into the fewest blocks, the largest first, and calls visit(index, order) for
/// each in ascending address order.
template <typename Visit>
constexpr void seed(uint64_t units, Visit visit)
{
    uint64_t start = 0;
    for (int order = ordersOf(units) - 1; order >= 0; --order) {
        for (; units - start >= unitsOf(order); start += unitsOf(order)) {
            visit(start, order);
        }
    }
}

static_assert(orderFor(1, 10) == 0 && orderFor(1024, 10) == 0 && orderFor(1025, 10) == 1);
static_assert(orderFor(2048, 10) == 1 && orderFor(2049, 10) == 2 && orderFor(4097, 10) == 3);
static_assert(orderFor(SIZE_MAX, 0) == 64 && orderFor((uint64_t{1} << 43) + 1, 12) == 32);
static_assert(ordersOf(2048) == 12 && ordersOf(3072) == 12 && ordersOf(1) == 1);

} // namespace BuddyMath
} // namespace Memory
} // namespace Tarsel

#endif
