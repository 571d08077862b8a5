// CountUnits.cpp: the end of a text of 16-bit units, as strnlen() finds that of bytes.
//
// Eight units are looked at with one load at an address that is a multiple of 16: it touches no page
// that the text does not touch. It may well touch what is behind the text, or before it, which
// sanitizers would take for a mistake.

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

constexpr size_t blockBytes = 16;

/// Two bits for each unit that is 0.
__attribute__((no_sanitize("address", "thread"))) unsigned zerosOf(const uint8_t* block)
{
    const __m128i units = *reinterpret_cast<const __m128i*>(block);
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(units, _mm_setzero_si128())));
}

} // namespace

size_t countUnits(const uint16_t* units, size_t limit)
{
    const size_t before = reinterpret_cast<uintptr_t>(units) % blockBytes;
    const uint8_t* block = reinterpret_cast<const uint8_t*>(units) - before;
    unsigned zeros = zerosOf(block) >> before << before;
    size_t bytes = 0; // from `block`'s first on to the one that is looked at
    while (zeros == 0 && bytes + blockBytes < before + limit * sizeof(uint16_t)) {
        bytes += blockBytes;
        zeros = zerosOf(block + bytes);
    }
    const size_t end = bytes + static_cast<size_t>(std::countr_zero(zeros));
    return std::min((end - before) / sizeof(uint16_t), limit);
}

} // namespace Nls
} // namespace Utils
} // namespace Tarsel
