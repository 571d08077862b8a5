// CountUnits.cpp: the end of a text of 16-bit units, as strnlen() finds that of bytes.
//
// 64 bytes are looked at at once, from an address that is a multiple of 64: that touches no page which
// the text does not touch. It may well touch what is behind the text, or before it, which sanitizers
// would take for a mistake.

#include <immintrin.h>

#include <algorithm>
#include <bit>

#include "Infra3/CpuFeatures.h"
#include "Utils/Nls/Utf8Alg.h"

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

constexpr size_t blockBytes = 64;

/// For each byte of 64 whether it belongs to a unit that is 0.
__attribute__((no_sanitize("address", "thread"))) uint64_t zerosOf(const uint8_t* block)
{
    uint64_t zeros = 0;
    for (int i = 0; i < 4; ++i) {
        const __m128i units = reinterpret_cast<const __m128i*>(block)[i];
        const __m128i isZero = _mm_cmpeq_epi16(units, _mm_setzero_si128());
        zeros |= static_cast<uint64_t>(_mm_movemask_epi8(isZero)) << (16 * i);
    }
    return zeros;
}

/// The first block from `at` on, counted in bytes, in which there is a zero or the place `last`.
using SkipBlocks = size_t(const uint8_t* first, size_t at, size_t last);

__attribute__((no_sanitize("address", "thread"))) size_t skipBlocksPlain(const uint8_t* first,
                                                                         size_t at, size_t last)
{
    const __m128i zero = _mm_setzero_si128();
    for (; at + blockBytes < last; at += blockBytes) {
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

__attribute__((target("avx2"), no_sanitize("address", "thread"))) size_t
skipBlocksAvx2(const uint8_t* first, size_t at, size_t last)
{
    const __m256i zero = _mm256_setzero_si256();
    for (; at + blockBytes < last; at += blockBytes) {
        const __m256i* const units = reinterpret_cast<const __m256i*>(first + at);
        const __m256i isZero =
            _mm256_or_si256(_mm256_cmpeq_epi16(units[0], zero), _mm256_cmpeq_epi16(units[1], zero));
        if (_mm256_movemask_epi8(isZero) != 0) {
            break;
        }
    }
    return at;
}

size_t skipBlocks(const uint8_t* first, size_t at, size_t last)
{
    constexpr Infra::TImplementation<SkipBlocks> ways[] = {
        {skipBlocksAvx2, {Infra::CpuFeature::avx2}},
        {skipBlocksPlain, {}},
    };
    return Infra::chooseImplementation(ways)(first, at, last);
}

} // namespace

size_t countUnits(const uint16_t* units, size_t limit)
{
    const size_t before = reinterpret_cast<uintptr_t>(units) % blockBytes;
    const uint8_t* const first = reinterpret_cast<const uint8_t*>(units) - before;
    const size_t last = before + limit * sizeof(uint16_t);
    uint64_t zeros = zerosOf(first) >> before << before;
    size_t at = 0; // counted in bytes from `first` on
    if (zeros == 0 && blockBytes < last) {
        at = skipBlocks(first, blockBytes, last);
        zeros = zerosOf(first + at);
    }
    const size_t end = at + static_cast<size_t>(std::countr_zero(zeros));
    return std::min((end - before) / sizeof(uint16_t), limit);
}

} // namespace Nls
} // namespace Utils
} // namespace Tarsel
