#ifndef INFRA_SRC_UTILS_VECTORS_X86_64_H
#define INFRA_SRC_UTILS_VECTORS_X86_64_H

// Blocks of 16 bytes and pairs of them in vectors, at any address. Each function is compiled into
// its caller, and so for the caller's processor.

#include <immintrin.h>

namespace Tarsel
{
namespace Utils
{

#define INFRA_VECTOR_INLINE(features) [[gnu::target(features), gnu::always_inline]] inline

INFRA_VECTOR_INLINE("sse2") __m128i loadBlock(const void* from)
{
    return _mm_loadu_si128(static_cast<const __m128i*>(from));
}

INFRA_VECTOR_INLINE("sse2") void storeBlock(void* to, __m128i block)
{
    _mm_storeu_si128(static_cast<__m128i*>(to), block);
}

INFRA_VECTOR_INLINE("avx") __m256i loadPair(const void* from)
{
    return _mm256_loadu_si256(static_cast<const __m256i*>(from));
}

INFRA_VECTOR_INLINE("avx") void storePair(void* to, __m256i pair)
{
    _mm256_storeu_si256(static_cast<__m256i*>(to), pair);
}

INFRA_VECTOR_INLINE("avx2") __m256i pairOf(__m128i first, __m128i second)
{
    return _mm256_inserti128_si256(_mm256_castsi128_si256(first), second, 1);
}

INFRA_VECTOR_INLINE("avx2") __m256i twice(__m128i block)
{
    return _mm256_broadcastsi128_si256(block);
}

/// What makes a shuffle reverse the bytes of a block.
INFRA_VECTOR_INLINE("sse2") __m128i lastByteFirst()
{
    return _mm_set_epi64x(0x0001020304050607, 0x08090A0B0C0D0E0F);
}

INFRA_VECTOR_INLINE("ssse3") __m128i reversed(__m128i block)
{
    return _mm_shuffle_epi8(block, lastByteFirst());
}

/// Each block of its own.
INFRA_VECTOR_INLINE("avx2") __m256i bothReversed(__m256i pair)
{
    return _mm256_shuffle_epi8(pair, twice(lastByteFirst()));
}

} // namespace Utils
} // namespace Tarsel

#endif
