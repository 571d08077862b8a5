#ifndef INFRA_SRC_UTILS_DESBITSKERNEL_H
#define INFRA_SRC_UTILS_DESBITSKERNEL_H

// DES as a circuit: 64 registers hold one bit each of hundreds of blocks, a permutation is a matter
// of names, and an S-box is the logic that the compiler makes of its truth table (it knows
// instructions for any function of three bits, where there are such). Nothing is looked up and
// nothing branches by key or data.
//
// A batch stays in one array from loading to storing, 2 or 4 KB: it has to fit on a small thread's
// stack. What is read there as row `r` of the matrix of blocks and bits lies where the initial
// permutation wants bit `r`, so that this permutation takes no time either.
//
// Two sources include this, each compiled for its processor: everything here is their own (unnamed
// namespace), and nothing of the standard library's templates is used, so that no other source can
// end up with code for a processor that is not there.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Utils/DesBits.h"
#include "Utils/DesTables.h"
#include "Utils/StackWipe.h"

namespace Tarsel
{
namespace Utils
{
namespace DES
{
namespace
{

#define INFRA_INLINE [[gnu::always_inline]] inline

constexpr size_t lanes = INFRA_DES_LANES;
constexpr size_t batch = 64 * lanes; ///< blocks at once
typedef uint64_t Bits __attribute__((vector_size(8 * INFRA_DES_LANES)));

INFRA_INLINE Bits allOf(uint64_t value)
{
    return Bits{} + value;
}

/// The function of `Count` bits whose value is bit number n of `Table` where they read as n,
/// bits[0] being the lowest of n. By its highest bit: two functions of the others, and which of
/// them.
template <uint64_t Table, int Count>
INFRA_INLINE Bits evaluate(const Bits* bits)
{
    constexpr int half = 1 << (Count - 1);
    constexpr uint64_t mask = ~uint64_t{0} >> (64 - half);
    constexpr uint64_t ifZero = Table & mask;
    constexpr uint64_t ifOne = Table >> half & mask;
    const Bits& bit = bits[Count - 1];
    if constexpr (Count == 1) {
        return Table == 0 ? Bits{} : Table == 1 ? ~bit : Table == 2 ? bit : ~Bits{};
    } else if constexpr (ifZero == ifOne) {
        return evaluate<ifZero, Count - 1>(bits);
    } else if constexpr (ifZero == (ifOne ^ mask)) {
        return evaluate<ifZero, Count - 1>(bits) ^ bit;
    } else if constexpr (ifZero == 0) {
        return evaluate<ifOne, Count - 1>(bits) & bit;
    } else if constexpr (ifOne == 0) {
        return evaluate<ifZero, Count - 1>(bits) & ~bit;
    } else if constexpr (Count <= 3) {
        // Functions of two bits are few: most of them are there already.
        return evaluate<ifZero, Count - 1>(bits) ^
               (evaluate<ifZero ^ ifOne, Count - 1>(bits) & bit);
    } else {
        const Bits zero = evaluate<ifZero, Count - 1>(bits);
        const Bits one = evaluate<ifOne, Count - 1>(bits);
        return zero ^ ((zero ^ one) & bit);
    }
}

/// Truth table of output bit `output`, from 0, the highest, of S-box `box`.
constexpr uint64_t truthTable(unsigned box, unsigned output)
{
    uint64_t table = 0;
    for (unsigned bits = 0; bits < 64; ++bits) {
        table |= uint64_t{substituted(box, bits) >> (3 - output) & 1} << bits;
    }
    return table;
}

/// Where P puts bit `output` of S-box `box`.
constexpr unsigned placeOf(unsigned box, unsigned output)
{
    unsigned place = 0;
    while (permutationP[place] != 4 * box + output + 1) {
        ++place;
    }
    return place;
}

/// `key` has the box's six bits from `Shift` on.
template <unsigned Box, int Shift>
INFRA_INLINE void substituteBox(Bits* left, const Bits* right, uint32_t key)
{
    Bits bits[6]; // the expansion: the box's four bits and their neighbours
    for (unsigned i = 0; i < 6; ++i) {
        const uint64_t keyBit = key >> (Shift + 5 - i) & 1;
        bits[5 - i] = right[(4 * Box + i + 31) % 32] ^ allOf(0 - keyBit);
    }
    left[placeOf(Box, 0)] ^= evaluate<truthTable(Box, 0), 6>(bits);
    left[placeOf(Box, 1)] ^= evaluate<truthTable(Box, 1), 6>(bits);
    left[placeOf(Box, 2)] ^= evaluate<truthTable(Box, 2), 6>(bits);
    left[placeOf(Box, 3)] ^= evaluate<truthTable(Box, 3), 6>(bits);
}

[[gnu::noinline]] void runRound(Bits* left, const Bits* right, uint32_t odd, uint32_t even)
{
    substituteBox<0, 24>(left, right, odd);
    substituteBox<1, 24>(left, right, even);
    substituteBox<2, 16>(left, right, odd);
    substituteBox<3, 16>(left, right, even);
    substituteBox<4, 8>(left, right, odd);
    substituteBox<5, 8>(left, right, even);
    substituteBox<6, 0>(left, right, odd);
    substituteBox<7, 0>(left, right, even);
}

/// Sixteen rounds, with the round keys from first to last or from last to first.
void runPass(Bits* left, Bits* right, const Pass& pass)
{
    const Schedule& key = pass.key;
    for (int round = 0; round < 16; round += 2) {
        const int first = pass.forwards ? round : 15 - round;
        const int second = pass.forwards ? round + 1 : 14 - round;
        runRound(left, right, key.odd[first], key.even[first]);
        runRound(right, left, key.odd[second], key.even[second]);
    }
}

/// Which bit of a block, read as a little-endian number, the standard counts as `number`.
constexpr int littleEndian(int number)
{
    return (number - 1) / 8 * 8 + 7 - (number - 1) % 8;
}

struct Places
{
    uint8_t of[64];
};

/// Where the initial permutation puts the rows: 32 of the left half, 32 of the right one.
constexpr Places permuted = [] {
    Places places = {};
    for (uint8_t i = 0; i < 64; ++i) {
        places.of[littleEndian(initialPermutation[i])] = i;
    }
    return places;
}();

/// Where the rows are before the passes, and, `exchanged`, after an odd number of them.
constexpr unsigned exchanged = 32;

INFRA_INLINE Bits& rowOf(Bits* bits, int row, unsigned halves)
{
    return bits[permuted.of[row] ^ halves];
}

/// Exchanges rows and columns of the matrices of 64 by 64 bits that stand in each lane.
void transpose(Bits* bits, unsigned halves)
{
    uint64_t mask = 0x00000000FFFFFFFF;
    for (int width = 32; width != 0; width >>= 1, mask ^= mask << width) {
        for (int row = 0; row < 64; row = (row + width + 1) & ~width) {
            Bits& low = rowOf(bits, row, halves);
            Bits& high = rowOf(bits, row + width, halves);
            const Bits different = ((low >> width) ^ high) & allOf(mask);
            high ^= different;
            low ^= different << width;
        }
    }
}

/// How many bytes of row `row` a batch of `count` blocks has.
INFRA_INLINE size_t sizeOfRow(int row, size_t count)
{
    const size_t before = static_cast<size_t>(row) * lanes;
    const size_t rest = count > before ? count - before : 0;
    return 8 * (rest < lanes ? rest : lanes);
}

INFRA_INLINE void copy(void* to, const void* from, size_t size)
{
    if (size == sizeof(Bits)) {
        memcpy(to, from, sizeof(Bits));
    } else {
        memcpy(to, from, size);
    }
}

void load(Bits* bits, size_t count, const uint8_t* in)
{
    for (int row = 0; row < 64; ++row) {
        Bits blocks = {};
        copy(&blocks, in + static_cast<size_t>(row) * sizeof(Bits), sizeOfRow(row, count));
        rowOf(bits, row, 0) = blocks;
    }
}

void store(uint8_t* out, size_t count, Bits* bits)
{
    for (int row = 0; row < 64; ++row) {
        copy(out + static_cast<size_t>(row) * sizeof(Bits), &rowOf(bits, row, exchanged),
             sizeOfRow(row, count));
    }
}

/// Adds to each block the one of `in` before it, to the first `chain`, which becomes the last.
void addChain(Bits* bits, uint8_t* chain, size_t count, const uint8_t* in)
{
    Bits before;
    memcpy(&before, chain, 8);
    memcpy(reinterpret_cast<uint8_t*>(&before) + 8, in, sizeof(before) - 8);
    rowOf(bits, 0, exchanged) ^= before;
    for (int row = 1; row < 64; ++row) {
        copy(&before, in + static_cast<size_t>(row) * sizeof(Bits) - 8, sizeOfRow(row, count));
        rowOf(bits, row, exchanged) ^= before;
    }
    memcpy(chain, in + 8 * (count - 1), 8);
}

/// The final permutation of a pass and the initial one of the next undo each other, but for the
/// exchange of the halves.
void cryptBatch(const Schedules& keys, Direction direction, int passes, Bits* bits)
{
    transpose(bits, 0);
    for (int number = 0; number < passes; ++number) {
        Bits* const left = bits + number % 2 * 32;
        Bits* const right = bits + (1 - number % 2) * 32;
        runPass(left, right, passOf(keys, direction, passes, number));
    }
    transpose(bits, exchanged);
}

/// Goes on as long as there are `fewest` blocks for a batch. A frame of its own, for what the
/// compiler spills.
[[gnu::noinline]] size_t cryptBatches(const Schedules& keys, Direction direction, int passes,
                                      uint8_t* chain, size_t fewest, size_t blocks,
                                      const uint8_t* in, uint8_t* out, Bits* bits)
{
    size_t done = 0;
    while (blocks - done >= fewest) {
        const size_t count = blocks - done < batch ? blocks - done : batch;
        load(bits, count, in + 8 * done);
        cryptBatch(keys, direction, passes, bits);
        if (chain != nullptr) {
            addChain(bits, chain, count, in + 8 * done);
        }
        store(out + 8 * done, count, bits);
        done += count;
    }
    return done;
}

/// The stack may be small: nothing of this is on it any more when another circuit goes on.
[[gnu::noinline]] size_t cryptBits(const Schedules& keys, Direction direction, int passes,
                                   uint8_t* chain, size_t fewest, size_t blocks, const uint8_t* in,
                                   uint8_t* out)
{
    Bits bits[64];
    const size_t done = cryptBatches(keys, direction, passes, chain, fewest, blocks, in, out, bits);
    explicit_bzero(bits, sizeof(bits));
    wipeStackBelow<1024>();
    return done;
}

} // namespace
} // namespace DES
} // namespace Utils
} // namespace Tarsel

#endif
