#ifndef INFRA_SRC_UTILS_AES_AESROUNDS_X86_64_H
#define INFRA_SRC_UTILS_AES_AESROUNDS_X86_64_H

// The rounds by the AES instructions, over one to eight blocks side by side: an instruction takes
// four cycles, and two of them begin in each, so that eight blocks keep the unit busy. Nothing
// branches or looks up by key or data; only the number of rounds does.

#include <cstddef>
#include <cstdint>

#include "Utils/Aes/AesAlg.h"
#include "Utils/Vectors_x86_64.h"

#define INFRA_AESNI [[gnu::target("aes,sse4.1")]]
#define INFRA_AESNI_INLINE [[gnu::target("aes,sse4.1"), gnu::always_inline]] inline

/// Before a loop over the blocks of a step: they are to stay in registers. A compiler that leaves
/// the loop keeps them on the stack, which is slower, and where what was deciphered would remain.
#if defined(__clang__)
#define INFRA_UNROLLED _Pragma("unroll")
#else
#define INFRA_UNROLLED _Pragma("GCC unroll 8")
#endif

namespace Tarsel
{
namespace Utils
{
namespace AES
{

/// Round key number `round`: aligned, so that it can be an instruction's operand.
INFRA_AESNI_INLINE __m128i roundKey(const aes_context& ctx, int round)
{
    return _mm_load_si128(reinterpret_cast<const __m128i*>(ctx.rk) + round);
}

template <size_t Count>
INFRA_AESNI_INLINE void addKey(__m128i (&blocks)[Count], __m128i key)
{
    INFRA_UNROLLED
    for (size_t i = 0; i < Count; ++i) {
        blocks[i] = _mm_xor_si128(blocks[i], key);
    }
}

/// The instructions for enciphering, by the round key of a block each.
struct Encryption
{
    INFRA_AESNI_INLINE static __m128i round(__m128i block, __m128i key)
    {
        return _mm_aesenc_si128(block, key);
    }
    INFRA_AESNI_INLINE static __m128i lastRound(__m128i block, __m128i key)
    {
        return _mm_aesenclast_si128(block, key);
    }
};

struct Decryption
{
    INFRA_AESNI_INLINE static __m128i round(__m128i block, __m128i key)
    {
        return _mm_aesdec_si128(block, key);
    }
    INFRA_AESNI_INLINE static __m128i lastRound(__m128i block, __m128i key)
    {
        return _mm_aesdeclast_si128(block, key);
    }
};

template <typename Way, size_t Count>
INFRA_AESNI_INLINE void oneRound(__m128i (&blocks)[Count], __m128i key)
{
    INFRA_UNROLLED
    for (size_t i = 0; i < Count; ++i) {
        blocks[i] = Way::round(blocks[i], key);
    }
}

/// All rounds but the first addition of a key and the last round: nine, and two more for each of
/// the longer keys.
template <typename Way, size_t Count>
INFRA_AESNI_INLINE void middleRounds(__m128i (&blocks)[Count], const aes_context& ctx)
{
    for (int round = 1; round < 10; ++round) {
        oneRound<Way>(blocks, roundKey(ctx, round));
    }
    if (ctx.nr > 10) {
        oneRound<Way>(blocks, roundKey(ctx, 10));
        oneRound<Way>(blocks, roundKey(ctx, 11));
    }
    if (ctx.nr > 12) {
        oneRound<Way>(blocks, roundKey(ctx, 12));
        oneRound<Way>(blocks, roundKey(ctx, 13));
    }
}

template <typename Way, size_t Count>
INFRA_AESNI_INLINE void cryptBlocks(__m128i (&blocks)[Count], const aes_context& ctx)
{
    addKey(blocks, roundKey(ctx, 0));
    middleRounds<Way>(blocks, ctx);
    const __m128i last = roundKey(ctx, ctx.nr);
    INFRA_UNROLLED
    for (size_t i = 0; i < Count; ++i) {
        blocks[i] = Way::lastRound(blocks[i], last);
    }
}

template <size_t Count>
INFRA_AESNI_INLINE void loadBlocks(__m128i (&blocks)[Count], const uint8_t* from)
{
    INFRA_UNROLLED
    for (size_t i = 0; i < Count; ++i) {
        blocks[i] = loadBlock(from + i * blockSize);
    }
}

template <size_t Count>
INFRA_AESNI_INLINE void storeBlocks(uint8_t* to, const __m128i (&blocks)[Count])
{
    INFRA_UNROLLED
    for (size_t i = 0; i < Count; ++i) {
        storeBlock(to + i * blockSize, blocks[i]);
    }
}

template <size_t Count>
INFRA_AESNI_INLINE void xorBlocks(__m128i (&blocks)[Count], const uint8_t* with)
{
    INFRA_UNROLLED
    for (size_t i = 0; i < Count; ++i) {
        blocks[i] = _mm_xor_si128(blocks[i], loadBlock(with + i * blockSize));
    }
}

} // namespace AES
} // namespace Utils
} // namespace Tarsel

#endif
