// Nls_AVX512_x86_64.cpp: character sets by vectors of 64 bytes, any mixture of sequences of up to three
// bytes, and texts of any length.
//
// Everything rests on one instruction, which pushes the chosen bytes of a vector together (VBMI2):
//
// - Encoding puts each unit into a lane with room for all of its bytes and leaves the others 0. As
//   there is no NUL, the bytes to be kept are those that are not 0; units that are 0 vanish.
// - Decoding works in the place of the last byte of each sequence: the bytes before it are brought
//   there by moving the whole vector by one and by two, the two bytes of the unit are put together,
//   and those places are kept.
// - A byte of a code page is looked up among the 128 units of its upper half at once, which fit into
//   four registers.
//
// Loads and stores are masked, so none reaches beyond a text, and the end of a text is no special
// case. What is not well-formed, longer, or without room, is left to the plain way.

// GCC 12 takes the registers that its own intrinsics leave undefined for mistakes.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <immintrin.h>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#include <algorithm>

#include "Utils/Nls/CodePage.h"
#include "Utils/Nls/Cp1252Alg.h"

#define INFRA_AVX512                                                                               \
    [[gnu::target(                                                                                 \
        "avx512f,avx512bw,avx512dq,avx512vl,avx512vbmi,avx512vbmi2,bmi,bmi2,lzcnt,popcnt")]]
#define INFRA_AVX512_INLINE INFRA_AVX512 [[gnu::always_inline]] inline

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

constexpr size_t vectorBytes = 64;
constexpr size_t vectorUnits = 32;

/// The lowest bits, 64 at most.
INFRA_AVX512_INLINE uint64_t lowest(size_t count)
{
    return _bzhi_u64(~uint64_t{0}, static_cast<unsigned>(count));
}

/// What is below the lowest bit of `bits`; all without one.
INFRA_AVX512_INLINE uint64_t before(uint64_t bits)
{
    return _blsmsk_u64(bits) & ~bits;
}

template <typename T>
size_t distance(const T* from, const T* to, size_t most)
{
    return std::min(static_cast<size_t>(to - from), most);
}

INFRA_AVX512_INLINE __m512i all(uint8_t byte)
{
    return _mm512_set1_epi8(static_cast<char>(byte));
}

INFRA_AVX512_INLINE size_t countOf(uint64_t bits)
{
    return static_cast<size_t>(_mm_popcnt_u64(bits));
}

/// The numbers of bytes from `first` on.
INFRA_AVX512_INLINE __m512i numbersFrom(int first)
{
    const __m512i numbers = _mm512_set_epi8(
        63, 62, 61, 60, 59, 58, 57, 56, 55, 54, 53, 52, 51, 50, 49, 48, 47, 46, 45, 44, 43, 42, 41,
        40, 39, 38, 37, 36, 35, 34, 33, 32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18,
        17, 16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    return _mm512_add_epi8(numbers, _mm512_set1_epi8(static_cast<char>(first)));
}

/// 32 units of which `low` and `high` hold one byte each, from number `first` on.
INFRA_AVX512_INLINE __m512i unitsOf(__m512i low, __m512i high, int first)
{
    const __m512i words = _mm512_cvtepu8_epi16(_mm512_castsi512_si256(numbersFrom(first)));
    const __m512i inHigh = _mm512_slli_epi16(_mm512_add_epi16(words, _mm512_set1_epi16(64)), 8);
    return _mm512_permutex2var_epi8(low, _mm512_or_si512(words, inHigh), high);
}

// --- encoding -------------------------------------------------------------------------------------

/// Stores the bytes of `lanes` that are not 0, if there is room.
INFRA_AVX512_INLINE bool storeBytes(Target& to, __m512i lanes)
{
    const uint64_t kept = _mm512_test_epi8_mask(lanes, lanes);
    const size_t length = countOf(kept);
    if (length > to.room) {
        return false;
    }
    _mm512_mask_storeu_epi8(to.out, lowest(length), _mm512_maskz_compress_epi8(kept, lanes));
    to.pass(length);
    return true;
}

/// 32 units below 0x800.
INFRA_AVX512_INLINE __m512i lanesOfTwo(__m512i units)
{
    const __m512i lead = _mm512_srli_epi16(units, 6);
    const __m512i trail = _mm512_slli_epi16(_mm512_and_si512(units, _mm512_set1_epi16(0x3F)), 8);
    const __m512i marks = _mm512_set1_epi16(static_cast<short>(0x80C0));
    const __m512i pairs = _mm512_or_si512(_mm512_or_si512(lead, trail), marks);
    const __mmask32 isTwo = _mm512_cmpge_epu16_mask(units, _mm512_set1_epi16(0x80));
    return _mm512_mask_mov_epi16(units, isTwo, pairs);
}

/// Sixteen units.
INFRA_AVX512_INLINE __m512i lanesOfThree(__m256i narrow)
{
    const __m512i units = _mm512_cvtepu16_epi32(narrow);
    const __m512i sixBits = _mm512_set1_epi32(0x3F);
    const __m512i low = _mm512_and_si512(units, sixBits);
    const __m512i upper = _mm512_srli_epi32(units, 6);
    const __m512i two = _mm512_or_si512(_mm512_or_si512(upper, _mm512_slli_epi32(low, 8)),
                                        _mm512_set1_epi32(0x80C0));
    const __m512i middle = _mm512_slli_epi32(_mm512_and_si512(upper, sixBits), 8);
    const __m512i ends = _mm512_or_si512(_mm512_srli_epi32(units, 12), _mm512_slli_epi32(low, 16));
    const __m512i three =
        _mm512_or_si512(_mm512_or_si512(ends, middle), _mm512_set1_epi32(0x8080E0));
    const __mmask16 isTwo = _mm512_cmpge_epu32_mask(units, _mm512_set1_epi32(0x80));
    const __mmask16 isThree = _mm512_cmpge_epu32_mask(units, _mm512_set1_epi32(0x800));
    return _mm512_mask_mov_epi32(_mm512_mask_mov_epi32(units, isTwo, two), isThree, three);
}

/// Encodes 32 units, if there is room for all; those that are 0 give nothing.
INFRA_AVX512_INLINE bool encodeUnits(Target& to, __m512i units)
{
    if (_mm512_test_epi16_mask(units, _mm512_set1_epi16(-0x800)) == 0) {
        return storeBytes(to, lanesOfTwo(units));
    }
    Target next = to;
    if (!storeBytes(next, lanesOfThree(_mm512_castsi512_si256(units))) ||
        !storeBytes(next, lanesOfThree(_mm512_extracti64x4_epi64(units, 1)))) {
        return false;
    }
    to = next;
    return true;
}

/// 64 units, if they are ASCII and there is room.
INFRA_AVX512_INLINE bool encodeAscii64(Target& to, const uint16_t* in)
{
    const __m512i first = _mm512_loadu_si512(in);
    const __m512i second = _mm512_loadu_si512(in + vectorUnits);
    const __m512i above = _mm512_set1_epi16(-0x80);
    if (_mm512_test_epi16_mask(_mm512_or_si512(first, second), above) != 0 ||
        to.room < vectorBytes) {
        return false;
    }
    const __m512i evens = _mm512_add_epi8(numbersFrom(0), numbersFrom(0));
    _mm512_storeu_si512(to.out, _mm512_permutex2var_epi8(first, evens, second));
    to.pass(vectorBytes);
    return true;
}

INFRA_AVX512 void encode(Encoding& place, const uint16_t* known)
{
    const uint16_t* in = place.in;
    Target to = place;
    while (in < known) {
        if (known - in >= static_cast<ptrdiff_t>(vectorBytes) && encodeAscii64(to, in)) {
            in += vectorBytes;
            continue;
        }
        const size_t count = distance(in, known, vectorUnits);
        const __mmask32 there = static_cast<__mmask32>(lowest(count));
        const __m512i units = _mm512_maskz_loadu_epi16(there, in);
        const bool isAscii = _mm512_test_epi16_mask(units, _mm512_set1_epi16(-0x80)) == 0;
        if (isAscii && count <= to.room) {
            _mm256_mask_storeu_epi8(to.out, there, _mm512_cvtepi16_epi8(units));
            to.pass(count);
        } else if (isAscii || !encodeUnits(to, units)) {
            break;
        }
        in += count;
    }
    place = {to, in};
    plainUtf8.encode(place, known);
}

// --- decoding -------------------------------------------------------------------------------------

/// What stands where in a vector of UTF-8.
struct Window
{
    uint64_t ends;  ///< the last byte of each sequence, up to the first fault
    uint64_t two;   ///< of which have two bytes or three
    uint64_t three; ///< of which have three
    bool isGood;    ///< no fault in it
};

/// The first `there` bytes of `bytes`, which begin with a sequence.
INFRA_AVX512_INLINE Window windowOf(__m512i bytes, uint64_t there)
{
    const uint64_t highBits = _mm512_movepi8_mask(bytes);
    const uint64_t continues = _mm512_cmplt_epi8_mask(bytes, _mm512_set1_epi8(-0x40));
    const uint64_t lead2 =
        _mm512_cmplt_epu8_mask(_mm512_sub_epi8(bytes, all(0xC2)), all(0xE0 - 0xC2));
    const uint64_t lead3 =
        _mm512_cmplt_epu8_mask(_mm512_sub_epi8(bytes, all(0xE0)), all(0xF0 - 0xE0));
    const uint64_t overLong =
        _mm512_cmpeq_epi8_mask(bytes, all(0xE0)) << 1 & _mm512_cmplt_epu8_mask(bytes, all(0xA0));
    const uint64_t expected = lead2 << 1 | lead3 << 1 | lead3 << 2;
    const uint64_t faults =
        (continues ^ expected) | (highBits & ~(continues | lead2 | lead3)) | overLong;
    const uint64_t two = lead2 << 1 | lead3 << 2;
    return {(~highBits | two) & there & before(faults), two, lead3 << 2, faults == 0};
}

/// The bytes at the end of a good vector that begin a sequence without ending it. They are looked at
/// alone, because the next vector waits for the answer and not for the others.
inline size_t cutBytes(const uint8_t* in)
{
    const size_t two = in[vectorBytes - 2] >= 0xE0 ? 2 : 0;
    const size_t one = in[vectorBytes - 1] >= 0xC0 ? 1 : 0;
    return two + one;
}

INFRA_AVX512_INLINE void storeUnits(Decoding& at, __m512i low, __m512i high, size_t count)
{
    const uint64_t there = lowest(count);
    _mm512_mask_storeu_epi16(at.out, static_cast<__mmask32>(there), unitsOf(low, high, 0));
    if (count > vectorUnits) {
        _mm512_mask_storeu_epi16(at.out + vectorUnits, static_cast<__mmask32>(there >> vectorUnits),
                                 unitsOf(low, high, vectorUnits));
    }
    at.out += count;
}

INFRA_AVX512_INLINE void decodeWindow(Decoding& at, __m512i bytes, const Window& window)
{
    const __m512i previous = _mm512_maskz_permutexvar_epi8(window.two, numbersFrom(-1), bytes);
    const __m512i oneBefore = _mm512_maskz_permutexvar_epi8(window.three, numbersFrom(-2), bytes);
    // Of the last byte seven bits: its second highest is 0 unless it is ASCII.
    const __m512i low =
        _mm512_or_si512(_mm512_and_si512(bytes, all(0x7F)),
                        _mm512_and_si512(_mm512_slli_epi16(previous, 6), all(0xC0)));
    const __m512i high =
        _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi16(previous, 2), all(0x0F)),
                        _mm512_and_si512(_mm512_slli_epi16(oneBefore, 4), all(0xF0)));
    storeUnits(at, _mm512_maskz_compress_epi8(window.ends, low),
               _mm512_maskz_compress_epi8(window.ends, high), countOf(window.ends));
}

INFRA_AVX512_INLINE void widen(Decoding& at, __m512i bytes, size_t count)
{
    const uint64_t there = lowest(count);
    const __m512i first = _mm512_cvtepu8_epi16(_mm512_castsi512_si256(bytes));
    const __m512i second = _mm512_cvtepu8_epi16(_mm512_extracti64x4_epi64(bytes, 1));
    _mm512_mask_storeu_epi16(at.out, static_cast<__mmask32>(there), first);
    _mm512_mask_storeu_epi16(at.out + vectorUnits, static_cast<__mmask32>(there >> vectorUnits),
                             second);
    at.in += count;
    at.out += count;
}

INFRA_AVX512 void decode(Decoding& place, const uint8_t* known, const uint8_t* end)
{
    Decoding at = place;
    while (at.in < known) {
        const size_t count = distance(at.in, known, vectorBytes);
        const uint64_t there = lowest(count);
        const __m512i bytes = _mm512_maskz_loadu_epi8(there, at.in);
        if (_mm512_movepi8_mask(bytes) == 0) {
            widen(at, bytes, count);
            continue;
        }
        const Window window = windowOf(bytes, there);
        if (window.ends == 0) {
            decodeOne(at, end);
            continue;
        }
        decodeWindow(at, bytes, window);
        const bool isWhole = window.isGood && count == vectorBytes;
        at.in += vectorBytes - (isWhole ? cutBytes(at.in) : _lzcnt_u64(window.ends));
    }
    place = at;
}

} // namespace

constinit const Utf8Engine avx512Utf8 = {decode, encode};

// --- code pages -----------------------------------------------------------------------------------

namespace
{

/// The units of 80 to FF, their low and their high bytes apart, for a look-up by seven bits.
struct UpperHalf
{
    __m512i low[2];
    __m512i high[2];
};

INFRA_AVX512_INLINE UpperHalf upperHalfOf(const Charset& charset)
{
    const __m512i evens = _mm512_add_epi8(numbersFrom(0), numbersFrom(0));
    const __m512i odds = _mm512_add_epi8(evens, all(1));
    UpperHalf half;
    for (int i = 0; i < 2; ++i) {
        const __m512i first = _mm512_loadu_si512(charset + 128 + 64 * i);
        const __m512i second = _mm512_loadu_si512(charset + 128 + 64 * i + 32);
        half.low[i] = _mm512_permutex2var_epi8(first, evens, second);
        half.high[i] = _mm512_permutex2var_epi8(first, odds, second);
    }
    return half;
}

} // namespace

INFRA_AVX512 void encodeBytesAvx512(Recoding& place, const uint8_t* end, const BytePage& page)
{
    const UpperHalf half = upperHalfOf(*page.charset);
    Recoding at = place;
    while (at.in < end) {
        const size_t count = distance(at.in, end, vectorBytes);
        const __m512i bytes = _mm512_maskz_loadu_epi8(lowest(count), at.in);
        const uint64_t highBits = _mm512_movepi8_mask(bytes);
        if (highBits == 0) {
            if (!storeBytes(at, bytes)) {
                break;
            }
        } else {
            const __m512i upperLow = _mm512_permutex2var_epi8(half.low[0], bytes, half.low[1]);
            const __m512i low = _mm512_mask_mov_epi8(bytes, highBits, upperLow);
            const __m512i upperHigh = _mm512_permutex2var_epi8(half.high[0], bytes, half.high[1]);
            const __m512i high = _mm512_maskz_mov_epi8(highBits, upperHigh);
            Target next = at;
            if (!encodeUnits(next, unitsOf(low, high, 0)) ||
                !encodeUnits(next, unitsOf(low, high, vectorUnits))) {
                break;
            }
            at = {next, at.in};
        }
        at.in += count;
    }
    place = at;
}

INFRA_AVX512 void decodeLatin1Avx512(Recoding& place, const uint8_t* end)
{
    Recoding at = place;
    while (at.in < end) {
        const size_t size = distance(at.in, end, vectorBytes);
        const uint64_t there = lowest(size);
        const __m512i bytes = _mm512_maskz_loadu_epi8(there, at.in);
        const uint64_t highBits = _mm512_movepi8_mask(bytes);
        const uint64_t continues = _mm512_cmplt_epi8_mask(bytes, _mm512_set1_epi8(-0x40));
        const uint64_t leadC2 = _mm512_cmpeq_epi8_mask(bytes, all(0xC2));
        const uint64_t leadC3 = _mm512_cmpeq_epi8_mask(bytes, all(0xC3));
        const uint64_t leads = leadC2 | leadC3;
        const uint64_t controls = leadC2 << 1 & _mm512_cmplt_epu8_mask(bytes, all(0xA0));
        const uint64_t faults =
            (continues ^ leads << 1) | (highBits & ~(continues | leads)) | controls;
        const uint64_t ends = (~highBits | leads << 1) & there & before(faults);
        const size_t count = countOf(ends);
        if (ends == 0 || count > at.room) {
            break;
        }
        const __m512i latin = _mm512_mask_add_epi8(bytes, leadC3 << 1, bytes, all(0x40));
        _mm512_mask_storeu_epi8(at.out, lowest(count), _mm512_maskz_compress_epi8(ends, latin));
        at.in += vectorBytes - _lzcnt_u64(ends);
        at.pass(count);
    }
    place = at;
}

} // namespace Nls
} // namespace Utils
} // namespace Tarsel
