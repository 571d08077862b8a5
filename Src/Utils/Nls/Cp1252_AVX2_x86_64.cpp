// Cp1252_AVX2_x86_64.cpp: the size of a text of Windows-1252 in UTF-8, 32 bytes at a time.
//
// A byte that is not ASCII gives two bytes, and some of 80 to 9F give three. Which, and which are
// undefined, is looked up by the lower half of the byte, one bit for each of the two upper halves,
// and the bits of another upper half are masked away.

#include <immintrin.h>

#include <array>
#include <bit>

#include "Utils/Nls/Cp1252Alg.h"

#define INFRA_AVX2 [[gnu::target("avx2,popcnt")]]
#define INFRA_AVX2_INLINE [[gnu::target("avx2,popcnt"), gnu::always_inline]] inline

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

using Table = std::array<uint8_t, 16>;

// Bits 0 and 1: 8x and 9x gives three bytes. Bits 2 and 3: 8x and 9x is undefined.
constexpr uint8_t threeBits = 0x3;
constexpr uint8_t undefinedBits = 0xC;

constexpr Table kindByLower = [] {
    Table kinds = {};
    for (uint8_t byte = 0x80; byte < 0xA0; ++byte) {
        const bool isNine = byte >= 0x90;
        const bool isThree = cp1252_charset2uni[byte] >= 0x800;
        const unsigned bits = (isThree ? 1U : 0U) | (isUndefinedInCp1252(byte) ? 4U : 0U);
        kinds[byte & 0xF] |= static_cast<uint8_t>(bits << (isNine ? 1 : 0));
    }
    return kinds;
}();

constexpr Table maskByUpper = {0, 0, 0, 0, 0, 0, 0, 0, 0x5, 0xA};

INFRA_AVX2_INLINE __m256i lookUp(const Table& table, __m256i numbers)
{
    const __m128i once = _mm_loadu_si128(reinterpret_cast<const __m128i*>(table.data()));
    return _mm256_shuffle_epi8(_mm256_broadcastsi128_si256(once), numbers);
}

INFRA_AVX2_INLINE unsigned withBits(__m256i kinds, uint8_t bits)
{
    const __m256i those = _mm256_and_si256(kinds, _mm256_set1_epi8(static_cast<char>(bits)));
    return ~static_cast<unsigned>(
        _mm256_movemask_epi8(_mm256_cmpeq_epi8(those, _mm256_setzero_si256())));
}

INFRA_AVX2_INLINE unsigned highBits(__m256i bytes)
{
    return static_cast<unsigned>(_mm256_movemask_epi8(bytes));
}

} // namespace

INFRA_AVX2 Cp1252Size measureCp1252Avx2(const uint8_t* in, size_t size)
{
    constexpr size_t step = 32;
    Cp1252Size sum = {0, 0};
    for (; size - sum.defined >= step; sum.defined += step) {
        const __m256i bytes =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + sum.defined));
        const __m256i half = _mm256_set1_epi8(0xF);
        const __m256i lower = lookUp(kindByLower, _mm256_and_si256(bytes, half));
        const __m256i upper =
            lookUp(maskByUpper, _mm256_and_si256(_mm256_srli_epi32(bytes, 4), half));
        const __m256i kinds = _mm256_and_si256(lower, upper);
        if (withBits(kinds, undefinedBits) != 0) {
            break;
        }
        sum.encoded += step + static_cast<size_t>(std::popcount(highBits(bytes))) +
                       static_cast<size_t>(std::popcount(withBits(kinds, threeBits)));
    }
    const Cp1252Size rest = measureCp1252Plain(in + sum.defined, size - sum.defined);
    return {sum.defined + rest.defined, sum.encoded + rest.encoded};
}

} // namespace Nls
} // namespace Utils
} // namespace Tarsel
