// CountUnits.cpp: the end of a text of 16-bit units, as strnlen() finds that of bytes, or the place
// where the room for its UTF-8 is used up: nothing need be there behind that.
//
// 64 bytes are looked at at once, from an address that is a multiple of 64: that touches no page which
// the text does not touch. It may well touch what is behind the text, or before it, which sanitizers
// would take for a mistake.

#include <immintrin.h>

#include <algorithm>
#include <bit>

#include "Infra3/CpuFeatures.h"
#include "Utils/Nls/Utf8Alg.h"

#define INFRA_UNCHECKED __attribute__((no_sanitize("address", "thread")))

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

constexpr size_t blockBytes = 64;
constexpr size_t blockUnits = blockBytes / sizeof(uint16_t);

/// Where in its block a text begins, in units.
size_t placeInBlock(const uint16_t* units)
{
    return reinterpret_cast<uintptr_t>(units) % blockBytes / sizeof(uint16_t);
}

struct Block
{
    __m128i eighths[4]; ///< eight units each
};

INFRA_UNCHECKED Block loadBlock(const uint16_t* units)
{
    const __m128i* const from = reinterpret_cast<const __m128i*>(units);
    return {{from[0], from[1], from[2], from[3]}};
}

/// One bit for each unit of a block: whether it has none of the bits of `mask`.
[[gnu::always_inline]] inline uint32_t unitsWithout(const Block& block, uint16_t mask)
{
    const __m128i bits = _mm_set1_epi16(static_cast<short>(mask));
    const auto test = [&](int eighth) {
        const __m128i found = _mm_and_si128(block.eighths[eighth], bits);
        return _mm_cmpeq_epi16(found, _mm_setzero_si128());
    };
    const int low = _mm_movemask_epi8(_mm_packs_epi16(test(0), test(1)));
    const int high = _mm_movemask_epi8(_mm_packs_epi16(test(2), test(3)));
    return static_cast<uint32_t>(low) | static_cast<uint32_t>(high) << 16;
}

constexpr uint16_t anyBit = 0xFFFF;

/// The first block from `at` on in which there is a 0 or the place `last`.
using SkipBlocks = size_t(const uint16_t* first, size_t at, size_t last);

INFRA_UNCHECKED size_t skipBlocksPlain(const uint16_t* first, size_t at, size_t last)
{
    const __m128i zero = _mm_setzero_si128();
    for (; at + blockUnits < last; at += blockUnits) {
        const __m128i* const units = reinterpret_cast<const __m128i*>(first + at);
        const __m128i low =
            _mm_or_si128(_mm_cmpeq_epi16(units[0], zero), _mm_cmpeq_epi16(units[1], zero));
        const __m128i high =
            _mm_or_si128(_mm_cmpeq_epi16(units[2], zero), _mm_cmpeq_epi16(units[3], zero));
        if (_mm_movemask_epi8(_mm_or_si128(low, high)) != 0) {
            break;
        }
    }
    return at;
}

[[gnu::target("avx2")]] INFRA_UNCHECKED size_t skipBlocksAvx2(const uint16_t* first, size_t at,
                                                              size_t last)
{
    const __m256i zero = _mm256_setzero_si256();
    for (; at + blockUnits < last; at += blockUnits) {
        const __m256i* const units = reinterpret_cast<const __m256i*>(first + at);
        const __m256i isZero =
            _mm256_or_si256(_mm256_cmpeq_epi16(units[0], zero), _mm256_cmpeq_epi16(units[1], zero));
        if (_mm256_movemask_epi8(isZero) != 0) {
            break;
        }
    }
    return at;
}

size_t skipBlocks(const uint16_t* first, size_t at, size_t last)
{
    constexpr Infra::TImplementation<SkipBlocks> ways[] = {
        {skipBlocksAvx2, {Infra::CpuFeature::avx2}},
        {skipBlocksPlain, {}},
    };
    return Infra::chooseImplementation(ways)(first, at, last);
}

/// What the units of a block that belong to a text are in UTF-8, one bit for each.
struct Lengths
{
    uint32_t all; ///< up to the first 0
    uint32_t one; ///< of which have one byte
    uint32_t two; ///< or two at most
    int end;      ///< where the first 0 is; behind the block without one
};

constexpr uint32_t lowest(int count)
{
    return static_cast<uint32_t>((uint64_t{1} << count) - 1);
}

[[gnu::always_inline]] inline Lengths lengthsOf(const Block& block, uint32_t there)
{
    const int end = std::countr_zero(unitsWithout(block, anyBit) & there);
    return {there & lowest(end), unitsWithout(block, 0xFF80), unitsWithout(block, 0xF800), end};
}

/// The bytes of the units before a place.
[[gnu::always_inline]] inline size_t bytesBefore(const Lengths& lengths, int place)
{
    const uint32_t all = lengths.all & lowest(place);
    return static_cast<size_t>(3 * std::popcount(all) - std::popcount(all & lengths.one) -
                               std::popcount(all & lengths.two));
}

/// The last place before which there are less bytes than `room`.
[[gnu::always_inline]] inline int lastWithin(const Lengths& lengths, size_t room)
{
    int place = 0;
    for (const int step : {16, 8, 4, 2, 1}) {
        place += bytesBefore(lengths, place + step) < room ? step : 0;
    }
    return place;
}

[[gnu::always_inline]] inline size_t countFitting(const uint16_t* units, size_t room)
{
    const size_t before = placeInBlock(units);
    const uint16_t* block = units - before;
    uint32_t there = ~uint32_t{0} << before;
    for (;;) {
        const Lengths lengths = lengthsOf(loadBlock(block), there);
        const size_t bytes = bytesBefore(lengths, lengths.end);
        if (bytes >= room || lengths.end < static_cast<int>(blockUnits)) {
            const int end = bytes >= room ? lastWithin(lengths, room) + 1 : lengths.end;
            return static_cast<size_t>(block - units + end);
        }
        room -= bytes;
        block += blockUnits;
        there = ~uint32_t{0};
    }
}

using CountFitting = size_t(const uint16_t* units, size_t room);

size_t countFittingPlain(const uint16_t* units, size_t room)
{
    return countFitting(units, room);
}

[[gnu::target("avx2,bmi,popcnt")]] size_t countFittingAvx2(const uint16_t* units, size_t room)
{
    return countFitting(units, room);
}

} // namespace

size_t countUnits(const uint16_t* units, size_t limit)
{
    const size_t before = placeInBlock(units);
    const uint16_t* const first = units - before;
    const size_t last = before + limit;
    uint32_t zeros = unitsWithout(loadBlock(first), anyBit) >> before << before;
    size_t at = 0; // counted from `first` on
    if (zeros == 0 && blockUnits < last) {
        at = skipBlocks(first, blockUnits, last);
        zeros = unitsWithout(loadBlock(first + at), anyBit);
    }
    return std::min(at + static_cast<size_t>(std::countr_zero(zeros)) - before, limit);
}

size_t countFittingUnits(const uint16_t* units, size_t room)
{
    constexpr Infra::TImplementation<CountFitting> ways[] = {
        {countFittingAvx2, {Infra::CpuFeature::avx2}},
        {countFittingPlain, {}},
    };
    return Infra::chooseImplementation(ways)(units, room);
}

} // namespace Nls
} // namespace Utils
} // namespace Tarsel
