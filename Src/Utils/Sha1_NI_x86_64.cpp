// Sha1_NI_x86_64.cpp: SHA-1 by the SHA instructions.
//
// An instruction does four of the eighty rounds, others prepare the schedule four words at a time:
//
//     words t .. t+3  =  msg2(msg1(w[t-16], w[t-12]) ^ w[t-8], w[t-4])
//
// The word order of the instructions is highest first, so what is loaded is reversed.
// Everything lives in registers: there is nothing on the stack to wipe.

#include <utility>

#include "Utils/Sha1Alg.h"
#include "Utils/Vectors_x86_64.h"

#define INFRA_SHANI [[gnu::target("sha,sse4.1")]]
#define INFRA_SHANI_INLINE [[gnu::target("sha,sse4.1"), gnu::always_inline]] inline

namespace Tarsel
{
namespace Utils
{
namespace SHA1
{
namespace
{

/// Four rounds: group number `Group` of twenty. `e` is the word of the group before that the next
/// sum begins with.
template <int Group>
INFRA_SHANI_INLINE void fourRounds(__m128i& abcd, __m128i& e, __m128i (&words)[4])
{
    __m128i& current = words[Group % 4];
    if constexpr (Group >= 4) {
        const __m128i older = _mm_sha1msg1_epu32(current, words[(Group + 1) % 4]);
        current = _mm_sha1msg2_epu32(_mm_xor_si128(older, words[(Group + 2) % 4]),
                                     words[(Group + 3) % 4]);
    }
    const __m128i sum = Group == 0 ? _mm_add_epi32(e, current) : _mm_sha1nexte_epu32(e, current);
    e = abcd;
    abcd = _mm_sha1rnds4_epu32(abcd, sum, Group / 5);
}

template <int... Groups>
INFRA_SHANI_INLINE void allRounds(__m128i& abcd, __m128i& e, __m128i (&words)[4],
                                  std::integer_sequence<int, Groups...>)
{
    (fourRounds<Groups>(abcd, e, words), ...);
}

} // namespace

INFRA_SHANI void hashBlocksShani(uint32_t (&hash)[5], const uint8_t* data, size_t blocks)
{
    __m128i abcd = _mm_shuffle_epi32(loadBlock(hash), 0x1B);
    __m128i e = _mm_set_epi32(static_cast<int>(hash[4]), 0, 0, 0);
    for (; blocks != 0; --blocks, data += messageBlockSize) {
        const __m128i abcdBefore = abcd;
        const __m128i eBefore = e;
        __m128i words[4];
        for (int i = 0; i < 4; ++i) {
            words[i] = reversed(loadBlock(data + 16 * i));
        }
        allRounds(abcd, e, words, std::make_integer_sequence<int, 20>());
        e = _mm_sha1nexte_epu32(e, eBefore);
        abcd = _mm_add_epi32(abcd, abcdBefore);
    }
    storeBlock(hash, _mm_shuffle_epi32(abcd, 0x1B));
    hash[4] = static_cast<uint32_t>(_mm_extract_epi32(e, 3));
}

} // namespace SHA1
} // namespace Utils
} // namespace Tarsel
