#ifndef INFRA_SRC_UTILS_DESBITSKERNEL_H
#define INFRA_SRC_UTILS_DESBITSKERNEL_H

// DES as a circuit: 64 registers hold one bit each of hundreds of blocks, a permutation is a matter
// of names, and an S-box is the logic that the compiler makes of its truth table (it knows
// instructions for any function of three bits, where there are such). Nothing is looked up and
// nothing branches by key or data.
//
// Two sources include this, each compiled for its processor: everything here is their own (unnamed
// namespace), and nothing of the standard library's templates is used, so that no other source can
// end up with code for a processor that is not there.

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "Utils/DesBits.h"
#include "Utils/DesTables.h"

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

/// The function of `Count` bits whose value is bit number n of `Table` where they read as n, bits[0]
/// being the lowest of n. By its highest bit: two functions of the others, and which of them.
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
void runPass(Bits* left, Bits* right, const Schedule& key, bool forwards)
{
    for (int round = 0; round < 16; round += 2) {
        const int first = forwards ? round : 15 - round;
        const int second = forwards ? round + 1 : 14 - round;
        runRound(left, right, key.odd[first], key.even[first]);
        runRound(right, left, key.odd[second], key.even[second]);
    }
}

/// Exchanges rows and columns of the matrices of 64 by 64 bits that stand in each lane.
void transpose(Bits* rows)
{
    uint64_t mask = 0x00000000FFFFFFFF;
    for (int width = 32; width != 0; width >>= 1, mask ^= mask << width) {
        for (int row = 0; row < 64; row = (row + width + 1) & ~width) {
            const Bits different = ((rows[row] >> width) ^ rows[row + width]) & allOf(mask);
            rows[row + width] ^= different;
            rows[row] ^= different << width;
        }
    }
}

/// Which bit of a block, read as a little-endian number, the standard counts as `number`.
constexpr int littleEndian(int number)
{
    return (number - 1) / 8 * 8 + 7 - (number - 1) % 8;
}

/// The blocks of `rows`. The final permutation of a pass and the initial one of the next undo each
/// other, but for the exchange of the halves.
void cryptBatch(const Schedules& keys, bool forwards, int passes, Bits* rows)
{
    Bits halves[2][32];
    transpose(rows);
    for (int i = 0; i < 64; ++i) {
        halves[i / 32][i % 32] = rows[littleEndian(initialPermutation[i])];
    }
    for (int pass = 0; pass < passes; ++pass) {
        const int number = forwards || passes == 1 ? pass : 2 - pass;
        Bits* const left = halves[pass % 2];
        runPass(left, halves[1 - pass % 2], keys.pass[number], forwards == (pass != 1));
    }
    for (int i = 0; i < 64; ++i) { // one pass or three: the halves have changed places
        rows[littleEndian(initialPermutation[i])] = halves[1 - i / 32][i % 32];
    }
    transpose(rows);
}

size_t cryptBits(const Schedules& keys, Direction direction, int passes, size_t blocks,
                 const uint8_t* in, uint8_t* out)
{
    size_t done = 0;
    while (blocks - done >= worthBits) {
        const size_t count = blocks - done < batch ? blocks - done : batch;
        Bits rows[64] = {};
        memcpy(rows, in + 8 * done, 8 * count);
        cryptBatch(keys, direction == Direction::encrypt, passes, rows);
        memcpy(out + 8 * done, rows, 8 * count);
        done += count;
    }
    return done;
}

} // namespace
} // namespace DES
} // namespace Utils
} // namespace Tarsel

#endif
