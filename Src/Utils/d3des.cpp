// d3des.cpp: DES by tables that hold an S-box and the permutation P behind it in one word.
//
// A round is eight look-ups. The expansion E needs no work: the six bits that each S-box sees are
// neighbours in a half rotated by one, so one word, and the same rotated by four, show four S-boxes
// each their six bits at the bottom of a byte:
//
//     half (rotated left by 1):   ..4321 ..4321 ..4321 ..4321     S-boxes 2, 4, 6, 8
//     that, rotated right by 4                                    S-boxes 1, 3, 5, 7
//
// In triple DES the final permutation of a pass and the initial one of the next undo each other, so
// both are done once a block. A round is a chain of look-ups that wait for each other; blocks that
// do not wait for each other run interleaved, to use the processor meanwhile.
//
// The tables are computed by the compiler from the standard's. Look-ups depend on key and data, as
// in any table-driven cipher.

#include "Utils/d3des.h"

#include <array>
#include <cstring>

namespace Tarsel
{
namespace Utils
{
namespace DES
{
namespace
{

// The tables of FIPS 46-3. Bits are counted from 1, the highest.

constexpr uint8_t permutedChoice1[56] = {57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
                                         10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
                                         63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
                                         14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

constexpr uint8_t permutedChoice2[48] = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,  26, 8,  16, 7,  27, 20, 13, 2,
    41, 52, 31, 37, 47, 55, 30, 40, 51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

constexpr uint8_t keyShifts[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

constexpr uint8_t permutationP[32] = {16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23,
                                      26, 5, 18, 31, 10, 2,  8,  24, 14, 32, 27,
                                      3,  9, 19, 13, 30, 6,  22, 11, 4,  25};

constexpr uint8_t sBoxes[8][64] = {
    {14, 4,  13, 1, 2,  15, 11, 8, 3, 10, 6, 12, 5,  9,  0,  7,  0,  15, 7,  4,  14, 2,
     13, 1,  10, 6, 12, 11, 9,  5, 3, 8,  4, 1,  14, 8,  13, 6,  2,  11, 15, 12, 9,  7,
     3,  10, 5,  0, 15, 12, 8,  2, 4, 9,  1, 7,  5,  11, 3,  14, 10, 0,  6,  13},
    {15, 1,  8,  14, 6,  11, 3,  4, 9,  7,  2, 13, 12, 0,  5,  10, 3,  13, 4,  7, 15, 2,
     8,  14, 12, 0,  1,  10, 6,  9, 11, 5,  0, 14, 7,  11, 10, 4,  13, 1,  5,  8, 12, 6,
     9,  3,  2,  15, 13, 8,  10, 1, 3,  15, 4, 2,  11, 6,  7,  12, 0,  5,  14, 9},
    {10, 0,  9,  14, 6, 3,  15, 5,  1,  13, 12, 7, 11, 4,  2,  8,  13, 7, 0,  9, 3, 4,
     6,  10, 2,  8,  5, 14, 12, 11, 15, 1,  13, 6, 4,  9,  8,  15, 3,  0, 11, 1, 2, 12,
     5,  10, 14, 7,  1, 10, 13, 0,  6,  9,  8,  7, 4,  15, 14, 3,  11, 5, 2,  12},
    {7, 13, 14, 3, 0, 6,  9, 10, 1,  2, 8,  5, 11, 12, 4,  15, 13, 8,  11, 5, 6, 15,
     0, 3,  4,  7, 2, 12, 1, 10, 14, 9, 10, 6, 9,  0,  12, 11, 7,  13, 15, 1, 3, 14,
     5, 2,  8,  4, 3, 15, 0, 6,  10, 1, 13, 8, 9,  4,  5,  11, 12, 7,  2,  14},
    {2,  12, 4, 1,  7,  10, 11, 6, 8, 5,  3, 15, 13, 0,  14, 9,  14, 11, 2,  12, 4,  7,
     13, 1,  5, 0,  15, 10, 3,  9, 8, 6,  4, 2,  1,  11, 10, 13, 7,  8,  15, 9,  12, 5,
     6,  3,  0, 14, 11, 8,  12, 7, 1, 14, 2, 13, 6,  15, 0,  9,  10, 4,  5,  3},
    {12, 1,  10, 15, 9,  2,  6, 8,  0, 13, 3,  4,  14, 7,  5, 11, 10, 15, 4, 2, 7, 12,
     9,  5,  6,  1,  13, 14, 0, 11, 3, 8,  9,  14, 15, 5,  2, 8,  12, 3,  7, 0, 4, 10,
     1,  13, 11, 6,  4,  3,  2, 12, 9, 5,  15, 10, 11, 14, 1, 7,  6,  0,  8, 13},
    {4, 11, 2,  14, 15, 0,  8,  13, 3, 12, 9,  7, 5,  10, 6,  1,  13, 0,  11, 7,  4, 9,
     1, 10, 14, 3,  5,  12, 2,  15, 8, 6,  1,  4, 11, 13, 12, 3,  7,  14, 10, 15, 6, 8,
     0, 5,  9,  2,  6,  11, 13, 8,  1, 4,  10, 7, 9,  5,  0,  15, 14, 2,  3,  12},
    {13, 2, 8,  4, 6, 15, 11, 1,  10, 9,  3, 14, 5,  0,  12, 7,  1,  15, 13, 8, 10, 3,
     7,  4, 12, 5, 6, 11, 0,  14, 9,  2,  7, 11, 4,  1,  9,  12, 14, 2,  0,  6, 10, 13,
     15, 3, 5,  8, 2, 1,  14, 7,  4,  10, 8, 13, 15, 12, 9,  0,  3,  5,  6,  11}};

constexpr uint32_t rotateLeft(uint32_t word, int bits)
{
    return (word << bits) | (word >> (32 - bits));
}

using SpTable = std::array<std::array<uint32_t, 256>, 8>;

/// [box][six bits as the expansion gives them, and two above that do not matter]: the four bits of
/// the S-box where P puts them, in a half rotated left by one. The first and last of the six bits
/// choose the S-box's row.
constexpr SpTable makeSpTable()
{
    SpTable table = {};
    for (unsigned box = 0; box < 8; ++box) {
        for (unsigned bits = 0; bits < 256; ++bits) {
            const unsigned row = (bits >> 4 & 2) | (bits & 1);
            const unsigned column = bits >> 1 & 15;
            const uint32_t output = uint32_t{sBoxes[box][row * 16 + column]} << (28 - 4 * box);
            uint32_t permuted = 0;
            for (unsigned i = 0; i < 32; ++i) {
                permuted |= (output >> (32 - permutationP[i]) & 1) << (31 - i);
            }
            table[box][bits] = rotateLeft(permuted, 1);
        }
    }
    return table;
}

alignas(64) constexpr SpTable spTable = makeSpTable();

constexpr uint64_t choose(uint64_t value, int width, const uint8_t* bits, int count)
{
    uint64_t chosen = 0;
    for (int i = 0; i < count; ++i) {
        chosen = chosen << 1 | (value >> (width - bits[i]) & 1);
    }
    return chosen;
}

constexpr uint32_t rotateHalfKey(uint32_t half, int bits)
{
    return (half << bits | half >> (28 - bits)) & 0x0FFFFFFF;
}

// Blocks are moved whole: a load that spans two stores would have to wait for both.

uint64_t loadBlock(const uint8_t* bytes)
{
    uint64_t block = 0;
    memcpy(&block, bytes, sizeof(block));
    return __builtin_bswap64(block);
}

void storeBlock(uint8_t* bytes, uint64_t block)
{
    block = __builtin_bswap64(block);
    memcpy(bytes, &block, sizeof(block));
}

struct Halves
{
    uint32_t left;
    uint32_t right;
};

/// Exchanges the bits of `mask` in `b` with those `shift` higher in `a`.
inline void exchange(uint32_t& a, uint32_t& b, int shift, uint32_t mask)
{
    const uint32_t different = (a >> shift ^ b) & mask;
    b ^= different;
    a ^= different << shift;
}

/// The initial permutation, by exchanges of ever smaller squares of bits; both halves leave it
/// rotated left by one.
inline void permuteIn(Halves& block)
{
    exchange(block.left, block.right, 4, 0x0F0F0F0F);
    exchange(block.left, block.right, 16, 0x0000FFFF);
    exchange(block.right, block.left, 2, 0x33333333);
    exchange(block.right, block.left, 8, 0x00FF00FF);
    exchange(block.left, block.right, 1, 0x55555555);
    block.left = rotateLeft(block.left, 1);
    block.right = rotateLeft(block.right, 1);
}

/// Exchanges the halves, as DES does after its last round, and undoes permuteIn().
inline void permuteOut(Halves& block)
{
    uint32_t left = rotateLeft(block.right, 31);
    uint32_t right = rotateLeft(block.left, 31);
    exchange(left, right, 1, 0x55555555);
    exchange(right, left, 8, 0x00FF00FF);
    exchange(right, left, 2, 0x33333333);
    exchange(left, right, 16, 0x0000FFFF);
    exchange(left, right, 4, 0x0F0F0F0F);
    block = {left, right};
}

/// Four look-ups, for the S-boxes `First`, `First` + 2 and so on. They are added in pairs, because a
/// row of additions would be a longer chain (and the compiler is told not to make it one).
template <int First>
inline uint32_t substituteFour(uint32_t bits)
{
    const uint32_t low = spTable[First + 6][bits & 0xFF] ^ spTable[First + 4][bits >> 8 & 0xFF];
    const uint32_t high = spTable[First + 2][bits >> 16 & 0xFF] ^ spTable[First][bits >> 24];
    return low ^ high;
}

inline uint32_t substitute(uint32_t half, uint32_t oddKey, uint32_t evenKey)
{
    return substituteFour<1>(half ^ evenKey) ^ substituteFour<0>(rotateLeft(half, 28) ^ oddKey);
}

/// Sixteen rounds over `Count` blocks side by side, with the round keys from first to last or from
/// last to first. The halves are not exchanged at the end.
template <size_t Count>
inline void runRounds(Halves (&blocks)[Count], const Schedule& keys, Direction direction)
{
    const bool forwards = direction == Direction::encrypt;
    const uint32_t* odd = forwards ? keys.odd : keys.odd + 15;
    const uint32_t* even = forwards ? keys.even : keys.even + 15;
    const ptrdiff_t step = forwards ? 1 : -1;
    for (int round = 0; round < 16; round += 2) {
        for (Halves& block : blocks) {
            block.left ^= substitute(block.right, odd[0], even[0]);
        }
        for (Halves& block : blocks) {
            block.right ^= substitute(block.left, odd[step], even[step]);
        }
        odd += 2 * step;
        even += 2 * step;
    }
}

/// What the next pass begins with, where the permutations in between have undone each other.
template <size_t Count>
inline void exchangeHalves(Halves (&blocks)[Count])
{
    for (Halves& block : blocks) {
        block = {block.right, block.left};
    }
}

constexpr Direction opposite(Direction direction)
{
    return direction == Direction::encrypt ? Direction::decrypt : Direction::encrypt;
}

/// The schedule of pass number `pass` in the order in which passes are done.
inline const Schedule& passKey(const Schedules& keys, Direction direction, int pass)
{
    return keys.pass[direction == Direction::encrypt ? pass : 2 - pass];
}

template <size_t Count>
inline void loadHalves(Halves (&blocks)[Count], const uint8_t* in)
{
    for (size_t i = 0; i < Count; ++i) {
        const uint64_t block = loadBlock(in + 8 * i);
        blocks[i] = {static_cast<uint32_t>(block >> 32), static_cast<uint32_t>(block)};
    }
}

template <size_t Count>
inline void storeHalves(uint8_t* out, const Halves (&blocks)[Count])
{
    for (size_t i = 0; i < Count; ++i) {
        storeBlock(out + 8 * i, uint64_t{blocks[i].left} << 32 | blocks[i].right);
    }
}

/// `Count` blocks by `Passes` passes, one or three.
template <int Passes, size_t Count>
void cryptBlocks(const Schedules& keys, Direction direction, const uint8_t* in, uint8_t* out)
{
    Halves blocks[Count];
    loadHalves(blocks, in);
    for (Halves& block : blocks) {
        permuteIn(block);
    }
    if constexpr (Passes == 1) {
        runRounds(blocks, keys.pass[0], direction);
    } else {
        runRounds(blocks, passKey(keys, direction, 0), direction);
        exchangeHalves(blocks);
        runRounds(blocks, passKey(keys, direction, 1), opposite(direction));
        exchangeHalves(blocks);
        runRounds(blocks, passKey(keys, direction, 2), direction);
    }
    for (Halves& block : blocks) {
        permuteOut(block);
    }
    storeHalves(out, blocks);
}

template <int Passes>
void cryptRun(const Schedules& keys, Direction direction, size_t blocks, const uint8_t* in,
              uint8_t* out)
{
    constexpr size_t together = 3;
    for (; blocks >= together; blocks -= together, in += 8 * together, out += 8 * together) {
        cryptBlocks<Passes, together>(keys, direction, in, out);
    }
    for (; blocks != 0; --blocks, in += 8, out += 8) {
        cryptBlocks<Passes, 1>(keys, direction, in, out);
    }
}

/// One whole DES on each of the two halves of a double block.
void runPass(Halves (&blocks)[2], const Schedule& keys, Direction direction)
{
    for (Halves& block : blocks) {
        permuteIn(block);
    }
    runRounds(blocks, keys, direction);
    for (Halves& block : blocks) {
        permuteOut(block);
    }
}

void exchangeInnerWords(Halves (&blocks)[2])
{
    const uint32_t word = blocks[0].right;
    blocks[0].right = blocks[1].left;
    blocks[1].left = word;
}

} // namespace

void setKey(Schedule& schedule, const uint8_t* key)
{
    const uint64_t chosen = choose(loadBlock(key), 64, permutedChoice1, 56);
    uint32_t c = static_cast<uint32_t>(chosen >> 28);
    uint32_t d = static_cast<uint32_t>(chosen & 0x0FFFFFFF);
    for (int round = 0; round < 16; ++round) {
        c = rotateHalfKey(c, keyShifts[round]);
        d = rotateHalfKey(d, keyShifts[round]);
        const uint64_t roundKey = choose(uint64_t{c} << 28 | d, 56, permutedChoice2, 48);
        schedule.odd[round] = 0;
        schedule.even[round] = 0;
        for (int box = 0; box < 8; box += 2) {
            const auto sixBits = [roundKey](int number) {
                return static_cast<uint32_t>(roundKey >> (42 - 6 * number)) & 0x3F;
            };
            schedule.odd[round] |= sixBits(box) << (24 - 4 * box);
            schedule.even[round] |= sixBits(box + 1) << (24 - 4 * box);
        }
    }
}

void singleDes(const Schedules& keys, Direction direction, size_t blocks, const uint8_t* in,
               uint8_t* out)
{
    cryptRun<1>(keys, direction, blocks, in, out);
}

void tripleDes(const Schedules& keys, Direction direction, size_t blocks, const uint8_t* in,
               uint8_t* out)
{
    cryptRun<3>(keys, direction, blocks, in, out);
}

void doubleBlockTripleDes(const Schedules& keys, Direction direction, size_t blocks,
                          const uint8_t* in, uint8_t* out)
{
    for (; blocks != 0; --blocks, in += 16, out += 16) {
        Halves halves[2];
        loadHalves(halves, in);
        runPass(halves, passKey(keys, direction, 0), direction);
        exchangeInnerWords(halves);
        runPass(halves, passKey(keys, direction, 1), opposite(direction));
        exchangeInnerWords(halves);
        runPass(halves, passKey(keys, direction, 2), direction);
        storeHalves(out, halves);
    }
}

} // namespace DES
} // namespace Utils
} // namespace Tarsel
