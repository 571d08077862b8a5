// Crc_CLMUL_x86_64.cpp: checksums by multiplication without carries, the product of polynomials.
//
// A CRC is the remainder of the message, as one long polynomial, by P. Sixteen bytes that `d` bits
// follow may be replaced by their product with (x^d mod P), added to the sixteen bytes `d` bits on:
// that folds a long message into its last sixteen bytes. Several folds that do not wait for each
// other run side by side.
//
//     [a][b][c][d] [e][f][g][h] ...  -->  [e + a x^512][f + b x^512][g + c x^512][h + d x^512] ...
//
// The remainder of eight bytes T that the checksum's own width W follows is found by two more
// products (Barrett): the quotient is the upper half of T times floor(x^(64+W) / P), and the
// remainder the lowest W terms of the quotient times P.
//
// Polynomials are upside down (CrcAlg.h). Of a product of two numbers of 64 bits that leaves bit
// 127 free, where the highest power would stand: it reads as the product times x. So the constants
// are those of one power less. All of them are computed by the compiler.

#include <array>

#include "Utils/CrcAlg.h"
#include "Utils/Vectors_x86_64.h"

#define INFRA_CLMUL [[gnu::target("pclmul,sse4.1")]]
#define INFRA_CLMUL_INLINE [[gnu::target("pclmul,sse4.1"), gnu::always_inline]] inline
#define INFRA_VCLMUL [[gnu::target("vpclmulqdq,avx2,pclmul")]]
#define INFRA_VCLMUL_INLINE [[gnu::target("vpclmulqdq,avx2,pclmul"), gnu::always_inline]] inline

#define INFRA_WCLMUL [[gnu::target("avx512f,avx512bw,avx512vl,avx512dq,vpclmulqdq,avx2,pclmul")]]
#define INFRA_WCLMUL_INLINE                                                                        \
    [[gnu::target("avx512f,avx512bw,avx512vl,avx512dq,vpclmulqdq,avx2,pclmul"),                    \
      gnu::always_inline]] inline

namespace Tarsel
{
namespace Utils
{
namespace CRC
{
namespace
{

/// x^power mod P, upside down in 64 bits.
template <typename P>
constexpr uint64_t powerModulo(int power)
{
    uint32_t remainder = uint32_t{1} << (P::width - 1); // 1
    for (; power > 0; --power) {
        remainder = (remainder >> 1) ^ ((remainder & 1) != 0 ? P::terms : 0);
    }
    return uint64_t{remainder} << (64 - P::width);
}

/// floor(x^(64 + W) / P) without its highest term x^64, upside down, by long division.
template <typename P>
constexpr uint64_t quotient()
{
    uint64_t result = 0;
    uint32_t remainder = P::terms; // after the first term of the quotient
    for (int term = 0; term < 64; ++term) {
        const bool divides = (remainder & 1) != 0;
        result |= uint64_t{divides} << term;
        remainder = (remainder >> 1) ^ (divides ? P::terms : 0);
    }
    return result;
}

/// What folds sixteen bytes by `bits`: the low half, which is the message's first, has 64 more to
/// go.
template <typename P, int Bits>
INFRA_CLMUL_INLINE __m128i foldBy()
{
    constexpr uint64_t low = powerModulo<P>(Bits + 63);
    constexpr uint64_t high = powerModulo<P>(Bits - 1);
    return _mm_set_epi64x(static_cast<long long>(high), static_cast<long long>(low));
}

INFRA_CLMUL_INLINE __m128i fold(__m128i bytes, __m128i constants, __m128i next)
{
    const __m128i low = _mm_clmulepi64_si128(bytes, constants, 0x00);
    const __m128i high = _mm_clmulepi64_si128(bytes, constants, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

/// The remainder of one half of `bytes` (0x00 the low one, 0x01 the high one), in the high half of
/// the result.
template <typename P, int Half>
INFRA_CLMUL_INLINE __m128i reduceHalf(__m128i bytes)
{
    // Shifted by one, so that the products part at the border between the halves; the bit that this
    // frees is the highest term of the quotient.
    constexpr uint64_t divided = quotient<P>() << 1 | 1;
    constexpr uint64_t divisor = uint64_t{P::terms} << 1;
    const __m128i constants =
        _mm_set_epi64x(static_cast<long long>(divisor), static_cast<long long>(divided));
    const __m128i quotients = _mm_clmulepi64_si128(bytes, constants, Half);
    return _mm_clmulepi64_si128(quotients, constants, 0x10);
}

template <typename P>
INFRA_CLMUL_INLINE uint32_t reduce(__m128i bytes)
{
    const __m128i behindFirst = _mm_xor_si128(bytes, reduceHalf<P, 0x00>(bytes));
    const __m128i remainder = reduceHalf<P, 0x01>(behindFirst);
    return static_cast<uint32_t>(_mm_extract_epi32(remainder, 2)) ^ P::inversion;
}

/// Byte numbers for a shuffle. Sixteen of them from `n` on move bytes up by 16 - n, from `16 + n`
/// on down by n; zeros come in.
alignas(64) constexpr std::array<uint8_t, 48> slidingBytes = [] {
    std::array<uint8_t, 48> numbers = {};
    for (unsigned i = 0; i < 48; ++i) {
        numbers[i] = static_cast<uint8_t>(i >= 16 && i < 32 ? i - 16 : 0x80);
    }
    return numbers;
}();

/// Takes in the 1 to 15 bytes that end at `end`, behind at least sixteen that are folded into
/// `bytes`: the first `rest` of these are folded into the last sixteen of all.
template <typename P>
INFRA_CLMUL_INLINE __m128i foldRest(__m128i bytes, const uint8_t* end, size_t rest)
{
    const __m128i up = loadBlock(slidingBytes.data() + rest);
    const __m128i down = loadBlock(slidingBytes.data() + 16 + rest);
    const __m128i first = _mm_shuffle_epi8(bytes, up);
    const __m128i others = _mm_shuffle_epi8(bytes, down);
    // Where `down` lets zeros in, the last bytes stand: its own upper bits say where.
    const __m128i last = _mm_blendv_epi8(others, loadBlock(end - 16), down);
    return fold(first, foldBy<P, 128>(), last);
}

/// Goes on from sixteen bytes to the end of the message.
template <typename P>
INFRA_CLMUL_INLINE uint32_t finish(__m128i bytes, const uint8_t* data, size_t length)
{
    for (; length >= 16; length -= 16, data += 16) {
        bytes = fold(bytes, foldBy<P, 128>(), loadBlock(data));
    }
    if (length != 0) {
        bytes = foldRest<P>(bytes, data + length, length);
    }
    return reduce<P>(bytes);
}

/// The register, as it is added to the first bytes.
template <typename P>
INFRA_CLMUL_INLINE __m128i initial(uint32_t crc)
{
    return _mm_cvtsi32_si128(static_cast<int>(crc ^ P::inversion));
}

template <typename P>
INFRA_CLMUL_INLINE uint32_t runFourfold(uint32_t crc, const uint8_t* data, size_t length)
{
    __m128i a = _mm_xor_si128(loadBlock(data), initial<P>(crc));
    __m128i b = loadBlock(data + 16);
    __m128i c = loadBlock(data + 32);
    __m128i d = loadBlock(data + 48);
    data += 64;
    length -= 64;
    for (; length >= 64; length -= 64, data += 64) {
        a = fold(a, foldBy<P, 512>(), loadBlock(data));
        b = fold(b, foldBy<P, 512>(), loadBlock(data + 16));
        c = fold(c, foldBy<P, 512>(), loadBlock(data + 32));
        d = fold(d, foldBy<P, 512>(), loadBlock(data + 48));
    }
    const __m128i ab = fold(a, foldBy<P, 384>(), fold(b, foldBy<P, 256>(), d));
    return finish<P>(fold(c, foldBy<P, 128>(), ab), data, length);
}

template <typename P>
INFRA_CLMUL_INLINE uint32_t runAnyLength(uint32_t crc, const uint8_t* data, size_t length)
{
    if (length >= 64) {
        return runFourfold<P>(crc, data, length);
    }
    if (length >= 16) {
        const __m128i first = _mm_xor_si128(loadBlock(data), initial<P>(crc));
        return finish<P>(first, data + 16, length - 16);
    }
    return P::width == 16 ? crc16Tables(crc, data, length) : crc32Tables(crc, data, length);
}

template <typename P, int Bits>
INFRA_VCLMUL_INLINE __m256i foldPairsBy()
{
    return twice(foldBy<P, Bits>());
}

INFRA_VCLMUL_INLINE __m256i foldPairs(__m256i bytes, __m256i constants, __m256i next)
{
    const __m256i low = _mm256_clmulepi64_epi128(bytes, constants, 0x00);
    const __m256i high = _mm256_clmulepi64_epi128(bytes, constants, 0x11);
    return _mm256_xor_si256(_mm256_xor_si256(low, high), next);
}

template <typename P>
INFRA_VCLMUL_INLINE uint32_t runPairs(uint32_t crc, const uint8_t* data, size_t length)
{
    if (length < 256) {
        return runAnyLength<P>(crc, data, length);
    }
    const __m256i behind = _mm256_zextsi128_si256(initial<P>(crc));
    __m256i a = _mm256_xor_si256(loadPair(data), behind);
    __m256i b = loadPair(data + 32);
    __m256i c = loadPair(data + 64);
    __m256i d = loadPair(data + 96);
    data += 128;
    length -= 128;
    for (; length >= 128; length -= 128, data += 128) {
        a = foldPairs(a, foldPairsBy<P, 1024>(), loadPair(data));
        b = foldPairs(b, foldPairsBy<P, 1024>(), loadPair(data + 32));
        c = foldPairs(c, foldPairsBy<P, 1024>(), loadPair(data + 64));
        d = foldPairs(d, foldPairsBy<P, 1024>(), loadPair(data + 96));
    }
    d = foldPairs(a, foldPairsBy<P, 768>(), foldPairs(b, foldPairsBy<P, 512>(), d));
    d = foldPairs(c, foldPairsBy<P, 256>(), d);
    const __m128i bytes =
        fold(_mm256_castsi256_si128(d), foldBy<P, 128>(), _mm256_extracti128_si256(d, 1));
    return finish<P>(bytes, data, length);
}

template <typename P, int Bits>
INFRA_WCLMUL_INLINE __m512i foldFoursBy()
{
    constexpr long long low = static_cast<long long>(powerModulo<P>(Bits + 63));
    constexpr long long high = static_cast<long long>(powerModulo<P>(Bits - 1));
    return _mm512_set4_epi64(high, low, high, low);
}

/// The two products and the next bytes are added in one instruction.
INFRA_WCLMUL_INLINE __m512i foldFours(__m512i bytes, __m512i constants, __m512i next)
{
    const __m512i low = _mm512_clmulepi64_epi128(bytes, constants, 0x00);
    const __m512i high = _mm512_clmulepi64_epi128(bytes, constants, 0x11);
    return _mm512_ternarylogic_epi64(low, high, next, 0x96);
}

INFRA_WCLMUL_INLINE __m512i loadFour(const uint8_t* data)
{
    return _mm512_loadu_si512(data);
}

/// Sixty-four bytes folded into the last sixteen of them.
template <typename P>
INFRA_WCLMUL_INLINE __m128i foldFour(__m512i bytes)
{
    uint8_t stored[64];
    _mm512_storeu_si512(stored, bytes);
    const __m128i ad = fold(loadBlock(stored), foldBy<P, 384>(), loadBlock(stored + 48));
    const __m128i abd = fold(loadBlock(stored + 16), foldBy<P, 256>(), ad);
    return fold(loadBlock(stored + 32), foldBy<P, 128>(), abd);
}

template <typename P>
INFRA_WCLMUL_INLINE uint32_t runFours(uint32_t crc, const uint8_t* data, size_t length)
{
    if (length < 256) {
        return runAnyLength<P>(crc, data, length);
    }
    const __m512i behind = _mm512_zextsi128_si512(initial<P>(crc));
    __m512i a = _mm512_xor_si512(loadFour(data), behind);
    __m512i b = loadFour(data + 64);
    __m512i c = loadFour(data + 128);
    __m512i d = loadFour(data + 192);
    data += 256;
    length -= 256;
    for (; length >= 256; length -= 256, data += 256) {
        a = foldFours(a, foldFoursBy<P, 2048>(), loadFour(data));
        b = foldFours(b, foldFoursBy<P, 2048>(), loadFour(data + 64));
        c = foldFours(c, foldFoursBy<P, 2048>(), loadFour(data + 128));
        d = foldFours(d, foldFoursBy<P, 2048>(), loadFour(data + 192));
    }
    d = foldFours(a, foldFoursBy<P, 1536>(), foldFours(b, foldFoursBy<P, 1024>(), d));
    d = foldFours(c, foldFoursBy<P, 512>(), d);
    for (; length >= 64; length -= 64, data += 64) {
        d = foldFours(d, foldFoursBy<P, 512>(), loadFour(data));
    }
    return finish<P>(foldFour<P>(d), data, length);
}

} // namespace

INFRA_CLMUL uint32_t crc16Clmul(uint32_t crc, const uint8_t* data, size_t length)
{
    return runAnyLength<Crc16>(crc, data, length);
}

INFRA_CLMUL uint32_t crc32Clmul(uint32_t crc, const uint8_t* data, size_t length)
{
    return runAnyLength<Crc32>(crc, data, length);
}

INFRA_VCLMUL uint32_t crc16Vclmul(uint32_t crc, const uint8_t* data, size_t length)
{
    return runPairs<Crc16>(crc, data, length);
}

INFRA_VCLMUL uint32_t crc32Vclmul(uint32_t crc, const uint8_t* data, size_t length)
{
    return runPairs<Crc32>(crc, data, length);
}

INFRA_WCLMUL uint32_t crc16Wide(uint32_t crc, const uint8_t* data, size_t length)
{
    return runFours<Crc16>(crc, data, length);
}

INFRA_WCLMUL uint32_t crc32Wide(uint32_t crc, const uint8_t* data, size_t length)
{
    return runFours<Crc32>(crc, data, length);
}

} // namespace CRC
} // namespace Utils
} // namespace Tarsel
