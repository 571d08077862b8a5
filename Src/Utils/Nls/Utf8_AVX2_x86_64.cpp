// Utf8_AVX2_x86_64.cpp: UTF-8 by vectors, for sequences of up to three bytes in any mixture.
//
// Decoding: a sequence ends where the next byte is no continuation. Twelve bits that say where
// sequences end select from a table how the next six sequences of one or two bytes, or the next four
// of up to three, are laid into lanes of 16 or 32 bits, lead byte uppermost. Values are then put
// together in all lanes at once. In that arrangement the well-formed lanes are ranges of numbers, so
// that faults (over-long sequences, stray bytes) are found by comparing; the plain way deals with
// those, and with longer sequences, one at a time. The ends of 64 bytes are found together, because
// a step waits for the one before to say where it begins.
//
// Encoding: each unit is made a lane with all the bytes that it could need. The lengths, one bit a
// unit when there are one and two, two bits when there are three, select how the lanes are pushed
// together. Stores are 16 bytes wide and reach beyond what they mean; that happens only where it is
// certain that as much follows.

#include <immintrin.h>

#include <array>
#include <bit>

#include "Utils/Nls/Utf8Alg.h"

#define INFRA_AVX2 [[gnu::target("avx2,bmi,bmi2")]]
#define INFRA_AVX2_INLINE [[gnu::target("avx2,bmi,bmi2"), gnu::always_inline]] inline

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

using Shuffle = std::array<uint8_t, 16>;
constexpr uint8_t nothing = 0x80; ///< in a shuffle: a byte 0

constexpr Shuffle emptyShuffle()
{
    Shuffle shuffle = {};
    shuffle.fill(nothing);
    return shuffle;
}

template <typename T>
__m128i* vector(T* place)
{
    return reinterpret_cast<__m128i*>(place);
}

template <typename T>
const __m128i* vector(const T* place)
{
    return reinterpret_cast<const __m128i*>(place);
}

INFRA_AVX2_INLINE __m128i load(const Shuffle& shuffle)
{
    return _mm_loadu_si128(vector(shuffle.data()));
}

// --- decoding -------------------------------------------------------------------------------------

constexpr size_t windowBytes = 64;
constexpr size_t stepBits = 12;
/// Where a step may begin in a window: it loads 16 bytes.
constexpr size_t lastStep = windowBytes - 16;

enum class Lanes : uint8_t
{
    none,
    six16,
    four32
};

struct DecodeStep
{
    Lanes lanes;
    uint8_t consumed; ///< bytes
    uint8_t shuffle;  ///< the number of it
};

constexpr size_t lanesOf(Lanes lanes)
{
    return lanes == Lanes::six16 ? 6 : 4;
}

constexpr size_t longestOf(Lanes lanes)
{
    return lanes == Lanes::six16 ? 2 : 3;
}

/// 64 for six sequences of one or two bytes, 81 for four of one to three.
constexpr size_t shuffleCount = 64 + 81;

/// The number of the shuffle for the sequences that `ends` begins with, and their bytes.
constexpr DecodeStep stepOf(unsigned ends, Lanes lanes)
{
    size_t number = lanes == Lanes::six16 ? 0 : 64;
    size_t weight = 1;
    size_t consumed = 0;
    for (size_t lane = 0; lane < lanesOf(lanes); ++lane) {
        const size_t length = static_cast<size_t>(std::countr_zero(ends >> consumed)) + 1;
        if (length > longestOf(lanes)) {
            return {Lanes::none, 0, 0};
        }
        number += weight * (length - 1);
        weight *= longestOf(lanes);
        consumed += length;
    }
    return {lanes, static_cast<uint8_t>(consumed), static_cast<uint8_t>(number)};
}

constexpr std::array<DecodeStep, 1 << stepBits> decodeSteps = [] {
    std::array<DecodeStep, 1 << stepBits> steps = {};
    for (unsigned ends = 0; ends < steps.size(); ++ends) {
        steps[ends] = stepOf(ends, Lanes::six16);
        if (steps[ends].lanes == Lanes::none) {
            steps[ends] = stepOf(ends, Lanes::four32);
        }
    }
    return steps;
}();

/// Each sequence into a lane, its last byte lowest.
constexpr Shuffle decodeShuffleOf(unsigned ends, Lanes lanes)
{
    Shuffle shuffle = emptyShuffle();
    const size_t laneBytes = lanes == Lanes::six16 ? 2 : 4;
    size_t from = 0;
    for (size_t lane = 0; lane < lanesOf(lanes); ++lane) {
        const size_t length = static_cast<size_t>(std::countr_zero(ends >> from)) + 1;
        for (size_t i = 0; i < length; ++i) {
            shuffle[lane * laneBytes + i] = static_cast<uint8_t>(from + length - 1 - i);
        }
        from += length;
    }
    return shuffle;
}

constexpr std::array<Shuffle, shuffleCount> decodeShuffles = [] {
    std::array<Shuffle, shuffleCount> shuffles = {};
    for (unsigned ends = 0; ends < 1U << stepBits; ++ends) {
        for (const Lanes lanes : {Lanes::six16, Lanes::four32}) {
            const DecodeStep step = stepOf(ends, lanes);
            if (step.lanes != Lanes::none && shuffles[step.shuffle] == Shuffle{}) {
                shuffles[step.shuffle] = decodeShuffleOf(ends, lanes);
            }
        }
    }
    return shuffles;
}();

struct Window
{
    uint64_t highBits; ///< which bytes are not ASCII
    uint64_t ends;     ///< which bytes end a sequence; the last one's is not known
};

INFRA_AVX2_INLINE uint64_t joined(__m256i low, __m256i high)
{
    return static_cast<uint32_t>(_mm256_movemask_epi8(low)) |
           static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(high))) << 32;
}

INFRA_AVX2_INLINE Window windowAt(const uint8_t* in)
{
    const __m256i low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in));
    const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + 32));
    const __m256i firstLead = _mm256_set1_epi8(-0x40); // what is below, as signed, continues
    const uint64_t continues =
        joined(_mm256_cmpgt_epi8(firstLead, low), _mm256_cmpgt_epi8(firstLead, high));
    return {joined(low, high), ~(continues >> 1)};
}

INFRA_AVX2_INLINE void widen16(uint16_t* out, const uint8_t* in)
{
    const __m256i units = _mm256_cvtepu8_epi16(_mm_loadu_si128(vector(in)));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), units);
}

/// Six lanes of 16 bits; the others are 0. False, and nothing written, when one is no sequence.
INFRA_AVX2_INLINE bool decodeSix(uint16_t* out, __m128i lanes)
{
    // Well-formed are 0 to 7F and C280 to DFBF.
    const __m128i overAscii = _mm_subs_epu16(lanes, _mm_set1_epi16(0x7F));
    const __m128i fromC280 = _mm_sub_epi16(lanes, _mm_set1_epi16(static_cast<short>(0xC280)));
    const __m128i overTwo = _mm_subs_epu16(fromC280, _mm_set1_epi16(0xDFBF - 0xC280));
    const __m128i faults = _mm_min_epu16(overAscii, overTwo);
    if (_mm_testz_si128(faults, faults) == 0) {
        return false;
    }
    const __m128i low = _mm_and_si128(lanes, _mm_set1_epi16(0x7F)); // 10 in front: bit 6 is clear
    const __m128i high = _mm_srli_epi16(_mm_and_si128(lanes, _mm_set1_epi16(0x1F00)), 2);
    const __m128i units = _mm_or_si128(low, high);
    _mm_storel_epi64(vector(out), units);
    _mm_storeu_si32(out + 4, _mm_srli_si128(units, 8));
    return true;
}

/// Four lanes of 32 bits, likewise.
INFRA_AVX2_INLINE bool decodeFour(uint16_t* out, __m128i lanes)
{
    // Well-formed are 0 to 7F, C280 to DFBF and E0A080 to EFBFBF: what has passed an even number of
    // these bounds.
    const __m128i over1 = _mm_cmpgt_epi32(lanes, _mm_set1_epi32(0x7F));
    const __m128i from2 = _mm_cmpgt_epi32(lanes, _mm_set1_epi32(0xC27F));
    const __m128i over2 = _mm_cmpgt_epi32(lanes, _mm_set1_epi32(0xDFBF));
    const __m128i from3 = _mm_cmpgt_epi32(lanes, _mm_set1_epi32(0xE0A07F));
    const __m128i over3 = _mm_cmpgt_epi32(lanes, _mm_set1_epi32(0xEFBFBF));
    const __m128i faults = _mm_xor_si128(
        _mm_xor_si128(_mm_xor_si128(over1, from2), _mm_xor_si128(over2, from3)), over3);
    if (_mm_testz_si128(faults, faults) == 0) {
        return false;
    }
    const __m128i low = _mm_and_si128(lanes, _mm_set1_epi32(0x7F));
    const __m128i middle = _mm_srli_epi32(_mm_and_si128(lanes, _mm_set1_epi32(0x3F00)), 2);
    const __m128i high = _mm_srli_epi32(_mm_and_si128(lanes, _mm_set1_epi32(0x0F0000)), 4);
    const __m128i units = _mm_or_si128(low, _mm_or_si128(middle, high));
    _mm_storel_epi64(vector(out), _mm_packus_epi32(units, units));
    return true;
}

/// Decodes the next sequences of a window, whose ends the lowest bits of `ends` say; false where they
/// have to be taken one at a time.
INFRA_AVX2_INLINE bool decodeStep(Decoding& at, const DecodeStep& step)
{
    const __m128i bytes = _mm_loadu_si128(vector(at.in));
    const __m128i lanes = _mm_shuffle_epi8(bytes, load(decodeShuffles[step.shuffle]));
    if (step.lanes == Lanes::six16) {
        return decodeSix(at.out, lanes);
    }
    return step.lanes == Lanes::four32 && decodeFour(at.out, lanes);
}

/// Decodes most of a window; false when it stopped at what has to be taken one at a time.
INFRA_AVX2_INLINE bool decodeWindow(Decoding& at)
{
    const Window window = windowAt(at.in);
    const uint8_t* const last = at.in + lastStep;
    uint64_t highBits = window.highBits;
    uint64_t ends = window.ends;
    while (at.in <= last) {
        size_t consumed = 16;
        size_t units = 16;
        if (static_cast<uint16_t>(highBits) == 0) {
            widen16(at.out, at.in);
        } else {
            const DecodeStep& step = decodeSteps[ends & ((1U << stepBits) - 1)];
            if (!decodeStep(at, step)) {
                return false;
            }
            consumed = step.consumed;
            units = lanesOf(step.lanes);
        }
        at.in += consumed;
        at.out += units;
        highBits >>= consumed;
        ends >>= consumed;
    }
    return true;
}

INFRA_AVX2_INLINE bool decodeAscii32(Decoding& at)
{
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(at.in));
    if (_mm256_movemask_epi8(bytes) != 0) {
        return false;
    }
    widen16(at.out, at.in);
    widen16(at.out + 16, at.in + 16);
    at.in += 32;
    at.out += 32;
    return true;
}

INFRA_AVX2 void decode(Decoding& place, const uint8_t* known, const uint8_t* end)
{
    Decoding at = place;
    while (known - at.in >= static_cast<ptrdiff_t>(windowBytes)) {
        if (!decodeAscii32(at) && !decodeWindow(at)) {
            decodeOne(at, end);
        }
    }
    place = at;
    plainUtf8.decode(place, known, end);
}

// --- encoding -------------------------------------------------------------------------------------

/// By which of eight lanes of two bytes are ASCII.
constexpr std::array<Shuffle, 256> encodeTwoShuffles = [] {
    std::array<Shuffle, 256> shuffles = {};
    for (size_t ascii = 0; ascii < shuffles.size(); ++ascii) {
        shuffles[ascii] = emptyShuffle();
        size_t to = 0;
        for (size_t lane = 0; lane < 8; ++lane) {
            shuffles[ascii][to++] = static_cast<uint8_t>(2 * lane);
            if ((ascii >> lane & 1) == 0) {
                shuffles[ascii][to++] = static_cast<uint8_t>(2 * lane + 1);
            }
        }
    }
    return shuffles;
}();

/// By which of four lanes have two bytes or more (bits 0 to 3) and which have three (bits 4 to 7).
/// In a lane stand three bytes of a sequence, then the byte that stands for itself.
constexpr std::array<Shuffle, 256> encodeThreeShuffles = [] {
    std::array<Shuffle, 256> shuffles = {};
    for (size_t lengths = 0; lengths < shuffles.size(); ++lengths) {
        shuffles[lengths] = emptyShuffle();
        size_t to = 0;
        for (size_t lane = 0; lane < 4; ++lane) {
            const bool isTwo = (lengths >> lane & 1) != 0;
            const bool isThree = (lengths >> (lane + 4) & 1) != 0;
            for (size_t i = isThree ? 0 : isTwo ? 1 : 3; i < (isTwo || isThree ? 3U : 4U); ++i) {
                shuffles[lengths][to++] = static_cast<uint8_t>(4 * lane + i);
            }
        }
    }
    return shuffles;
}();

/// Eight units below 0x800.
INFRA_AVX2_INLINE size_t encodeTwo(uint8_t* out, __m128i units)
{
    const __m128i isAscii = _mm_cmpgt_epi16(_mm_set1_epi16(0x80), units);
    const __m128i lead = _mm_srli_epi16(units, 6);
    const __m128i trail = _mm_slli_epi16(_mm_and_si128(units, _mm_set1_epi16(0x3F)), 8);
    const __m128i marks = _mm_set1_epi16(static_cast<short>(0x80C0));
    const __m128i pairs = _mm_or_si128(_mm_or_si128(lead, trail), marks);
    const __m128i lanes = _mm_blendv_epi8(pairs, units, isAscii);
    const unsigned ascii =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_packs_epi16(isAscii, _mm_setzero_si128())));
    _mm_storeu_si128(vector(out), _mm_shuffle_epi8(lanes, load(encodeTwoShuffles[ascii])));
    return 16 - static_cast<size_t>(std::popcount(ascii));
}

INFRA_AVX2_INLINE __m256i toLanesOfThree(__m256i units, __m256i isThree)
{
    const __m256i sixBits = _mm256_set1_epi32(0x3F);
    const __m256i lead = _mm256_srli_epi32(units, 12);
    const __m256i middle = _mm256_and_si256(_mm256_srli_epi32(units, 6), sixBits);
    const __m256i trail = _mm256_and_si256(units, sixBits);
    // Of two bytes the first is where three have their middle one: the mark is C0, not 80.
    const __m256i twoMark = _mm256_andnot_si256(isThree, _mm256_set1_epi32(0x4000));
    const __m256i marks = _mm256_or_si256(twoMark, _mm256_set1_epi32(0x008080E0));
    const __m256i upper =
        _mm256_or_si256(_mm256_slli_epi32(trail, 16), _mm256_slli_epi32(units, 24));
    const __m256i lower = _mm256_or_si256(lead, _mm256_slli_epi32(middle, 8));
    return _mm256_or_si256(_mm256_or_si256(upper, lower), marks);
}

INFRA_AVX2_INLINE unsigned laneBits(__m256i lanes)
{
    return static_cast<unsigned>(_mm256_movemask_ps(_mm256_castsi256_ps(lanes)));
}

/// Eight units of any size.
INFRA_AVX2_INLINE size_t encodeThree(uint8_t* out, __m128i narrow)
{
    const __m256i units = _mm256_cvtepu16_epi32(narrow);
    const __m256i isTwo = _mm256_cmpgt_epi32(units, _mm256_set1_epi32(0x7F));
    const __m256i isThree = _mm256_cmpgt_epi32(units, _mm256_set1_epi32(0x7FF));
    const __m256i lanes = toLanesOfThree(units, isThree);
    const unsigned two = laneBits(isTwo);
    const unsigned three = laneBits(isThree);
    const unsigned low = (two & 0xF) | (three & 0xF) << 4;
    const unsigned high = two >> 4 | (three & 0xF0);
    const size_t lowLength = 4 + static_cast<size_t>(std::popcount(low));
    const __m128i first = _mm256_castsi256_si128(lanes);
    const __m128i second = _mm256_extracti128_si256(lanes, 1);
    _mm_storeu_si128(vector(out), _mm_shuffle_epi8(first, load(encodeThreeShuffles[low])));
    _mm_storeu_si128(vector(out + lowLength),
                     _mm_shuffle_epi8(second, load(encodeThreeShuffles[high])));
    return lowLength + 4 + static_cast<size_t>(std::popcount(high));
}

INFRA_AVX2_INLINE bool areBelow(__m128i units, int bound)
{
    return _mm_testz_si128(units, _mm_set1_epi16(static_cast<short>(-bound))) != 0;
}

INFRA_AVX2_INLINE bool encodeAscii32(Encoding& at)
{
    const __m256i* const in = reinterpret_cast<const __m256i*>(at.in);
    const __m256i low = _mm256_loadu_si256(in);
    const __m256i high = _mm256_loadu_si256(in + 1);
    if (_mm256_testz_si256(_mm256_or_si256(low, high), _mm256_set1_epi16(-0x80)) == 0) {
        return false;
    }
    const __m256i mixed = _mm256_packus_epi16(low, high);
    const __m256i bytes = _mm256_permute4x64_epi64(mixed, _MM_SHUFFLE(3, 1, 2, 0));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(at.out), bytes);
    at.in += 32;
    at.pass(32);
    return true;
}

/// Eight units. What is stored behind them is less than `followUnits` give at least.
INFRA_AVX2_INLINE void encode8(Encoding& at)
{
    const __m128i units = _mm_loadu_si128(vector(at.in));
    size_t length = 8;
    if (areBelow(units, 0x80)) {
        _mm_storel_epi64(vector(at.out), _mm_packus_epi16(units, units));
    } else if (areBelow(units, 0x800)) {
        length = encodeTwo(at.out, units);
    } else {
        length = encodeThree(at.out, units);
    }
    at.in += 8;
    at.pass(length);
}

INFRA_AVX2 void encode(Encoding& place, const uint16_t* known)
{
    // The store of sixteen bytes for a lane group of at least four bytes reaches twelve bytes too
    // far. Twelve more units fill that, if they have room for three bytes each until the last two
    // bytes of it.
    constexpr ptrdiff_t followUnits = 12;
    constexpr size_t followRoom = 8 * 3 + 12 + 2;
    Encoding at = place;
    while (known - at.in >= 8 + followUnits && at.room >= followRoom) {
        if (known - at.in < 32 || !encodeAscii32(at)) {
            encode8(at);
        }
    }
    place = at;
    plainUtf8.encode(place, known);
}

} // namespace

constinit const Utf8Engine avx2Utf8 = {decode, encode};

} // namespace Nls
} // namespace Utils
} // namespace Tarsel
