// CountUnits.cpp: the end of a text of 16-bit units, as strnlen() finds that of bytes.
//
// 64 bytes are looked at at once, from an address that is a multiple of 64: that touches no page which
// the text does not touch. It may well touch what is behind the text, or before it, which sanitizers
// would take for a mistake.

#include <emmintrin.h>

#include <algorithm>
#include <bit>

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

/// Whether zerosOf() would say anything; faster.
__attribute__((no_sanitize("address", "thread"))) bool hasZeros(const uint8_t* block)
{
    const __m128i* const units = reinterpret_cast<const __m128i*>(block);
    const __m128i zero = _mm_setzero_si128();
    const __m128i low =
        _mm_or_si128(_mm_cmpeq_epi16(units[0], zero), _mm_cmpeq_epi16(units[1], zero));
    const __m128i high =
        _mm_or_si128(_mm_cmpeq_epi16(units[2], zero), _mm_cmpeq_epi16(units[3], zero));
    return _mm_movemask_epi8(_mm_or_si128(low, high)) != 0;
}

} // namespace

size_t countUnits(const uint16_t* units, size_t limit)
{
    const size_t before = reinterpret_cast<uintptr_t>(units) % blockBytes;
    const uint8_t* const first = reinterpret_cast<const uint8_t*>(units) - before;
    const size_t last = before + limit * sizeof(uint16_t);
    uint64_t zeros = zerosOf(first) >> before << before;
    size_t at = 0; // counted in bytes from `first` on
    while (zeros == 0 && at + blockBytes < last) {
        at += blockBytes;
        zeros = hasZeros(first + at) ? zerosOf(first + at) : 0;
    }
    const size_t end = at + static_cast<size_t>(std::countr_zero(zeros));
    return std::min((end - before) / sizeof(uint16_t), limit);
}

} // namespace Nls
} // namespace Utils
} // namespace Tarsel
