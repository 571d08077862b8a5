// Base64_AVX2_x86_64.cpp: 24 bytes to 32 characters and back, at once.
//
// Encoding: a shuffle lays three bytes into each word of 32 bits, two multiplications move their
// four times six bits to the bottoms of the bytes, and what has to be added to a value to make it a
// character is looked up by its range.
//
// Decoding: characters whose upper four bits are the same belong to one range, but for '+' and '/',
// so that these bits say what to add. A character is of the alphabet when what its lower four bits
// exclude has nothing in common with what its upper ones are.
//
// Where the alphabet ends is found first, a stretch at a time, by loads that are aligned and so
// never reach into the next page; what is decoded is known to be of the alphabet.

#include <cstring>

#include "Utils/Base64Alg.h"
#include "Utils/Vectors_x86_64.h"

#define INFRA_AVX2 [[gnu::target("avx2")]]
#define INFRA_AVX2_INLINE [[gnu::target("avx2"), gnu::always_inline]] inline
#define INFRA_UNSANITIZED __attribute__((no_sanitize("address", "thread")))

namespace Tarsel
{
namespace Utils
{
namespace Base64
{
namespace
{

constexpr size_t stepBytes = 24;
constexpr size_t stepCharacters = 32;

using Table = std::array<uint8_t, 16>;

/// A class of its own for each of the upper halves that the alphabet has; 4 and 6, 5 and 7 (upper
/// and lower case) differ in nothing. Any other is class 16, which every lower half excludes.
constexpr Table classOfUpper = {16, 16, 1, 2, 4, 8, 4, 8, 16, 16, 16, 16, 16, 16, 16, 16};

constexpr Table excludedByLower = [] {
    Table excluded = {};
    for (unsigned lower = 0; lower < 16; ++lower) {
        excluded[lower] = 16;
        for (unsigned upper = 2; upper < 8; ++upper) {
            if (pr2six[upper * 16 + lower] == noValue) {
                excluded[lower] |= classOfUpper[upper];
            }
        }
    }
    return excluded;
}();

constexpr uint8_t difference(char to, char from)
{
    return static_cast<uint8_t>(to - from);
}

/// What makes a character its value, by its upper half; '/' is one below its own.
constexpr Table valueMinusCharacter = {0,
                                       difference(63, '/'),
                                       difference(62, '+'),
                                       difference(52, '0'),
                                       difference(0, 'A'),
                                       difference(0, 'A'),
                                       difference(26, 'a'),
                                       difference(26, 'a')};

/// What makes a value its character: for 52 to 61 by the digit plus 1, then '+' and '/', then the
/// capitals; 0 stands for the small letters.
constexpr Table characterMinusValue = [] {
    Table differences = {difference('a', 26)};
    for (size_t digit = 0; digit < 10; ++digit) {
        differences[1 + digit] = difference('0', 52);
    }
    differences[11] = difference('+', 62);
    differences[12] = difference('/', 63);
    differences[13] = difference('A', 0);
    return differences;
}();

INFRA_AVX2_INLINE __m256i lookUp(const Table& table, __m256i numbers)
{
    return _mm256_shuffle_epi8(twice(loadBlock(table.data())), numbers);
}

/// Twelve bytes, three in each word of 32 bits: as b, a, c, b, which puts each six bits within a
/// word of 16 bits.
INFRA_AVX2_INLINE __m128i spreadOrder()
{
    return _mm_setr_epi8(1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10);
}

/// The two times twelve bytes at `in`, of which 28 are read.
INFRA_AVX2_INLINE __m256i spread(const char* in)
{
    return _mm256_shuffle_epi8(pairOf(loadBlock(in), loadBlock(in + 12)), twice(spreadOrder()));
}

/// The same of twelve bytes, of which no more are read.
INFRA_AVX2_INLINE __m256i spreadHalf(const char* in)
{
    int32_t last = 0;
    memcpy(&last, in + 8, sizeof(last));
    const __m128i first = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in));
    return _mm256_castsi128_si256(
        _mm_shuffle_epi8(_mm_insert_epi32(first, last, 2), spreadOrder()));
}

/// Six bits in each byte. In a word of 32 bits from the lowest up: bits 10 to 15 and 4 to 9 are the
/// first two values, 22 to 27 and 16 to 21 the others.
INFRA_AVX2_INLINE __m256i sixBits(__m256i words)
{
    const __m256i evens = _mm256_mulhi_epu16(_mm256_and_si256(words, _mm256_set1_epi32(0x0FC0FC00)),
                                             _mm256_set1_epi32(0x04000040));
    const __m256i odds = _mm256_mullo_epi16(_mm256_and_si256(words, _mm256_set1_epi32(0x003F03F0)),
                                            _mm256_set1_epi32(0x01000010));
    return _mm256_or_si256(evens, odds);
}

INFRA_AVX2_INLINE __m256i toCharacters(__m256i values)
{
    // 0 up to 51, then 1 to 12; the capitals among the 0 become 13.
    const __m256i above = _mm256_subs_epu8(values, _mm256_set1_epi8(51));
    const __m256i isCapital = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    const __m256i range = _mm256_or_si256(above, _mm256_and_si256(isCapital, _mm256_set1_epi8(13)));
    return _mm256_add_epi8(values, lookUp(characterMinusValue, range));
}

INFRA_AVX2_INLINE __m256i loadAligned(const char* in)
{
    return _mm256_load_si256(reinterpret_cast<const __m256i*>(in));
}

INFRA_AVX2_INLINE __m256i upperHalves(__m256i characters)
{
    return _mm256_and_si256(_mm256_srli_epi32(characters, 4), _mm256_set1_epi8(15));
}

/// A bit for each character that is not of the alphabet, the lowest for the first.
INFRA_AVX2_INLINE uint32_t foreignOnes(__m256i characters)
{
    // A character of 0x80 and above looks up 0 by itself: its lower half is taken alone.
    const __m256i lower = _mm256_and_si256(characters, _mm256_set1_epi8(15));
    const __m256i common = _mm256_and_si256(lookUp(excludedByLower, lower),
                                            lookUp(classOfUpper, upperHalves(characters)));
    const __m256i fitting = _mm256_cmpeq_epi8(common, _mm256_setzero_si256());
    return ~static_cast<uint32_t>(_mm256_movemask_epi8(fitting));
}

INFRA_AVX2_INLINE __m256i toValues(__m256i characters)
{
    const __m256i isSlash = _mm256_cmpeq_epi8(characters, _mm256_set1_epi8('/'));
    const __m256i range = _mm256_add_epi8(upperHalves(characters), isSlash);
    return _mm256_add_epi8(characters, lookUp(valueMinusCharacter, range));
}

/// Joins the six bits of four bytes to three bytes, and these to 24.
INFRA_AVX2_INLINE __m256i pack(__m256i values)
{
    const __m256i twelveBits = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    const __m256i words = _mm256_madd_epi16(twelveBits, _mm256_set1_epi32(0x00011000));
    const __m256i order =
        twice(_mm_setr_epi8(2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1));
    return _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(words, order),
                                       _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 7, 7));
}

INFRA_AVX2_INLINE void store24(char* out, __m256i bytes)
{
    storeBlock(out, _mm256_castsi256_si128(bytes));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out + 16), _mm256_extracti128_si256(bytes, 1));
}

INFRA_AVX2 size_t encode(char* out, const char* in, size_t size)
{
    constexpr size_t readBytes = 28;
    size_t done = 0;
    for (; size - done >= readBytes; done += stepBytes, out += stepCharacters) {
        const __m256i characters = toCharacters(sixBits(spread(in + done)));
        storePair(out, characters);
    }
    for (; size - done >= stepBytes / 2; done += stepBytes / 2, out += stepCharacters / 2) {
        const __m256i characters = toCharacters(sixBits(spreadHalf(in + done)));
        storeBlock(out, _mm256_castsi256_si128(characters));
    }
    return done;
}

/// Counts until a foreign character comes or there are `enough`; then there may be some more. What
/// surrounds the text within its first and last 32 aligned bytes is loaded and ignored, be it
/// memory of others or none at all: the sanitizers are told not to mind.
INFRA_AVX2 INFRA_UNSANITIZED size_t countUntil(const char* in, size_t enough)
{
    const size_t before = reinterpret_cast<uintptr_t>(in) % stepCharacters;
    uint32_t foreign = foreignOnes(loadAligned(in - before)) >> before;
    size_t count = 0;
    for (size_t next = stepCharacters - before; foreign == 0; next += stepCharacters) {
        count = next;
        if (count >= enough) {
            return count;
        }
        foreign = foreignOnes(loadAligned(in + next));
    }
    return count + static_cast<size_t>(__builtin_ctz(foreign));
}

INFRA_AVX2 size_t count(const char* in)
{
    return countUntil(in, SIZE_MAX);
}

/// The whole steps of `size` characters of the alphabet; returns the characters.
INFRA_AVX2_INLINE size_t decodeSteps(char* out, const char* in, size_t size)
{
    size_t done = 0;
    for (; size - done >= stepCharacters; done += stepCharacters, out += stepBytes) {
        store24(out, pack(toValues(loadPair(in + done))));
    }
    return done;
}

INFRA_AVX2 size_t decode(char* out, const char* in)
{
    constexpr size_t stretch = 4096; // stays in the nearest cache until it is decoded
    size_t done = 0;
    size_t known = stretch;
    while (known >= stretch) {
        known = countUntil(in + done, stretch);
        done += decodeSteps(out + done / 4 * 3, in + done, known);
    }
    return done;
}

} // namespace

constinit const Base64Engine avx2Engine = {encode, decode, count};

} // namespace Base64
} // namespace Utils
} // namespace Tarsel
