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
//
// Long runs go another way where the processor has wide registers: DesBitsKernel.h.

#include "Utils/d3des.h"

#include <array>
#include <bit>
#include <cstring>

#include "Infra3/CpuFeatures.h"
#include "Utils/DesBits.h"
#include "Utils/DesTables.h"
#include "Utils/Words.h"

namespace Tarsel
{
namespace Utils
{
namespace DES
{
namespace
{

using SpTable = std::array<std::array<uint32_t, 256>, 8>;

/// [box][six bits as the expansion gives them, and two above that do not matter]: the four bits of
/// the S-box where P puts them, in a half rotated left by one.
constexpr SpTable makeSpTable()
{
    SpTable table = {};
    for (unsigned box = 0; box < 8; ++box) {
        for (unsigned bits = 0; bits < 256; ++bits) {
            const uint32_t output = uint32_t{substituted(box, bits & 63)} << (28 - 4 * box);
            uint32_t permuted = 0;
            for (unsigned i = 0; i < 32; ++i) {
                permuted |= (output >> (32 - permutationP[i]) & 1) << (31 - i);
            }
            table[box][bits] = std::rotl(permuted, 1);
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
    block.left = std::rotl(block.left, 1);
    block.right = std::rotl(block.right, 1);
}

/// Exchanges the halves, as DES does after its last round, and undoes permuteIn().
inline void permuteOut(Halves& block)
{
    uint32_t left = std::rotl(block.right, 31);
    uint32_t right = std::rotl(block.left, 31);
    exchange(left, right, 1, 0x55555555);
    exchange(right, left, 8, 0x00FF00FF);
    exchange(right, left, 2, 0x33333333);
    exchange(left, right, 16, 0x0000FFFF);
    exchange(left, right, 4, 0x0F0F0F0F);
    block = {left, right};
}

/// Adds four look-ups to `sum`, for the S-boxes `First`, `First` + 2 and so on. The lower bytes are
/// known first, and so are their look-ups: a row of additions would be a longer chain (and the
/// compiler is told not to make it one).
template <int First>
inline uint32_t addFour(uint32_t sum, uint32_t bits)
{
    const uint32_t low = spTable[First + 6][bits & 0xFF] ^ spTable[First + 4][bits >> 8 & 0xFF];
    const uint32_t high = spTable[First + 2][bits >> 16 & 0xFF] ^ spTable[First][bits >> 24];
    return sum ^ low ^ high;
}
/// One round. The rotated half is known later, so its look-ups are added last.
inline uint32_t addRound(uint32_t sum, uint32_t half, uint32_t oddKey, uint32_t evenKey)
{
    return addFour<0>(addFour<1>(sum, half ^ evenKey), std::rotl(half, 28) ^ oddKey);
}

/// Sixteen rounds over `Count` blocks side by side, with the round keys from first to last or from
/// last to first. The halves are not exchanged at the end.
template <size_t Count>
inline void runRounds(Halves (&blocks)[Count], Pass pass)
{
    const uint32_t* odd = pass.forwards ? pass.key.odd : pass.key.odd + 15;
    const uint32_t* even = pass.forwards ? pass.key.even : pass.key.even + 15;
    const ptrdiff_t step = pass.forwards ? 1 : -1;
    for (int round = 0; round < 16; round += 2) {
        for (Halves& block : blocks) {
            block.left = addRound(block.left, block.right, odd[0], even[0]);
        }
        for (Halves& block : blocks) {
            block.right = addRound(block.right, block.left, odd[step], even[step]);
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

template <size_t Count>
inline void loadHalves(Halves (&blocks)[Count], const uint8_t* in)
{
    for (size_t i = 0; i < Count; ++i) {
        const uint64_t block = loadBig<uint64_t>(in + 8 * i);
        blocks[i] = {static_cast<uint32_t>(block >> 32), static_cast<uint32_t>(block)};
    }
}

template <size_t Count>
inline void storeHalves(uint8_t* out, const Halves (&blocks)[Count])
{
    for (size_t i = 0; i < Count; ++i) {
        storeBig(out + 8 * i, uint64_t{blocks[i].left} << 32 | blocks[i].right);
    }
}

/// One pass or three between the permutations, which leave the halves to be exchanged.
template <int Passes, size_t Count>
inline void runPasses(const Schedules& keys, Direction direction, Halves (&blocks)[Count])
{
    runRounds(blocks, passOf(keys, direction, Passes, 0));
    if constexpr (Passes == 3) {
        exchangeHalves(blocks);
        runRounds(blocks, passOf(keys, direction, Passes, 1));
        exchangeHalves(blocks);
        runRounds(blocks, passOf(keys, direction, Passes, 2));
    }
}

template <size_t Count>
inline void addHalves(Halves (&blocks)[Count], const Halves* others)
{
    for (size_t i = 0; i < Count; ++i) {
        blocks[i].left ^= others[i].left;
        blocks[i].right ^= others[i].right;
    }
}

template <int Passes, size_t Count>
inline void cryptHalves(const Schedules& keys, Direction direction, Halves (&blocks)[Count])
{
    for (Halves& block : blocks) {
        permuteIn(block);
    }
    runPasses<Passes>(keys, direction, blocks);
    for (Halves& block : blocks) {
        permuteOut(block);
    }
}

template <int Passes, size_t Count>
void cryptBlocks(const Schedules& keys, Direction direction, const uint8_t* in, uint8_t* out)
{
    Halves blocks[Count];
    loadHalves(blocks, in);
    cryptHalves<Passes>(keys, direction, blocks);
    storeHalves(out, blocks);
}

/// `chain` is the ciphertext before the first block, then the last one.
template <int Passes, size_t Count>
void decryptChained(const Schedules& keys, Halves& chain, const uint8_t* in, uint8_t* out)
{
    Halves blocks[Count];
    loadHalves(blocks, in);
    Halves before[Count + 1] = {chain};
    for (size_t i = 0; i < Count; ++i) {
        before[i + 1] = blocks[i];
    }
    cryptHalves<Passes>(keys, Direction::decrypt, blocks);
    addHalves(blocks, before);
    storeHalves(out, blocks);
    chain = before[Count];
}

/// The chain stays between the permutations: they keep sums, so that what is added to it is
/// permuted beforehand and what comes out of it afterwards.
template <int Passes>
void encryptChain(const Schedules& keys, const uint8_t* iv, size_t blocks, const uint8_t* in,
                  uint8_t* out)
{
    Halves chain[1];
    loadHalves(chain, iv);
    permuteIn(chain[0]);
    for (; blocks != 0; --blocks, in += 8, out += 8) {
        Halves block[1];
        loadHalves(block, in);
        permuteIn(block[0]);
        addHalves(chain, block);
        runPasses<Passes>(keys, Direction::encrypt, chain);
        block[0] = chain[0];
        permuteOut(block[0]);
        storeHalves(out, block);
        exchangeHalves(chain);
    }
}

/// Null where the processor has no wide registers.
BitsRun* chooseBitsRun()
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<BitsRun> runs[] = {
        {cryptBitsAvx512, {CpuFeature::avx512, CpuFeature::avx2}},
        {cryptBitsAvx2, {CpuFeature::avx2}},
        {nullptr, {}},
    };
    return Infra::chooseImplementation(runs);
}

size_t runBits(const Schedules& keys, Direction direction, int passes, uint8_t* chain,
               size_t blocks, const uint8_t* in, uint8_t* out)
{
    BitsRun* const run = blocks >= worthBits ? chooseBitsRun() : nullptr;
    return run != nullptr ? run(keys, direction, passes, chain, blocks, in, out) : 0;
}

constexpr size_t together = 3; ///< blocks side by side

template <int Passes>
void cryptRun(const Schedules& keys, Direction direction, size_t blocks, const uint8_t* in,
              uint8_t* out)
{
    const size_t done = runBits(keys, direction, Passes, nullptr, blocks, in, out);
    blocks -= done;
    in += 8 * done;
    out += 8 * done;
    for (; blocks >= together; blocks -= together, in += 8 * together, out += 8 * together) {
        cryptBlocks<Passes, together>(keys, direction, in, out);
    }
    for (; blocks != 0; --blocks, in += 8, out += 8) {
        cryptBlocks<Passes, 1>(keys, direction, in, out);
    }
}

template <int Passes>
void decryptChain(const Schedules& keys, const uint8_t* iv, size_t blocks, const uint8_t* in,
                  uint8_t* out)
{
    uint8_t before[8];
    memcpy(before, iv, sizeof(before));
    const size_t done = runBits(keys, Direction::decrypt, Passes, before, blocks, in, out);
    blocks -= done;
    in += 8 * done;
    out += 8 * done;
    Halves chain[1];
    loadHalves(chain, before);
    for (; blocks >= together; blocks -= together, in += 8 * together, out += 8 * together) {
        decryptChained<Passes, together>(keys, chain[0], in, out);
    }
    for (; blocks != 0; --blocks, in += 8, out += 8) {
        decryptChained<Passes, 1>(keys, chain[0], in, out);
    }
}

/// One whole DES on each of the two halves of a double block.
void runPass(Halves (&blocks)[2], const Pass& pass)
{
    for (Halves& block : blocks) {
        permuteIn(block);
    }
    runRounds(blocks, pass);
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

void cryptDouble(const Schedules& keys, Direction direction, Halves (&halves)[2])
{
    runPass(halves, passOf(keys, direction, 3, 0));
    exchangeInnerWords(halves);
    runPass(halves, passOf(keys, direction, 3, 1));
    exchangeInnerWords(halves);
    runPass(halves, passOf(keys, direction, 3, 2));
}

void cryptDoubles(const Schedules& keys, Direction direction, size_t blocks, const uint8_t* in,
                  uint8_t* out)
{
    for (; blocks != 0; --blocks, in += 16, out += 16) {
        Halves halves[2];
        loadHalves(halves, in);
        cryptDouble(keys, direction, halves);
        storeHalves(out, halves);
    }
}

void encryptDoubleChain(const Schedules& keys, const uint8_t* iv, size_t blocks, const uint8_t* in,
                        uint8_t* out)
{
    Halves chain[2];
    loadHalves(chain, iv);
    for (; blocks != 0; --blocks, in += 16, out += 16) {
        Halves plain[2];
        loadHalves(plain, in);
        addHalves(chain, plain);
        cryptDouble(keys, Direction::encrypt, chain);
        storeHalves(out, chain);
    }
}

void decryptDoubleChain(const Schedules& keys, const uint8_t* iv, size_t blocks, const uint8_t* in,
                        uint8_t* out)
{
    Halves chain[2];
    loadHalves(chain, iv);
    for (; blocks != 0; --blocks, in += 16, out += 16) {
        Halves halves[2];
        loadHalves(halves, in);
        const Halves cipher[2] = {halves[0], halves[1]};
        cryptDouble(keys, Direction::decrypt, halves);
        addHalves(halves, chain);
        storeHalves(out, halves);
        chain[0] = cipher[0];
        chain[1] = cipher[1];
    }
}

} // namespace

void setKey(Schedule& schedule, const uint8_t* key)
{
    const uint64_t chosen = choose(loadBig<uint64_t>(key), 64, permutedChoice1, 56);
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

constinit const des_func singleDes = {8, cryptRun<1>, encryptChain<1>, decryptChain<1>};
constinit const des_func tripleDes = {8, cryptRun<3>, encryptChain<3>, decryptChain<3>};
constinit const des_func doubleBlockTripleDes = {16, cryptDoubles, encryptDoubleChain,
                                                 decryptDoubleChain};

} // namespace DES
} // namespace Utils
} // namespace Tarsel
