// Aes_VAES_x86_64.cpp: the AES instructions over two blocks each.
//
// Eight registers of two blocks: sixteen blocks a step, for whatever does not wait for the block
// before. The rest of a run, short runs and the chained modes are the AES-NI engine's.
//
// A step loads all its input before it stores, so `out` may be `in`.

#include <algorithm>

#include "Utils/Aes/AesEngine.h"
#include "Utils/Aes/AesRounds_x86_64.h"
#include "Utils/Words.h"

#define INFRA_VAES [[gnu::target("vaes,avx2,aes")]]
#define INFRA_VAES_INLINE [[gnu::target("vaes,avx2,aes"), gnu::always_inline]] inline

namespace Tarsel
{
namespace Utils
{
namespace AES
{
namespace
{

constexpr size_t pairs = 8;
constexpr size_t stepBlocks = 2 * pairs;
constexpr size_t stepBytes = stepBlocks * blockSize;

using Pairs = __m256i[pairs];

INFRA_VAES_INLINE __m128i firstOf(__m256i pair)
{
    return _mm256_castsi256_si128(pair);
}

INFRA_VAES_INLINE __m128i secondOf(__m256i pair)
{
    return _mm256_extracti128_si256(pair, 1);
}

INFRA_VAES_INLINE __m256i roundKeys(const aes_context& ctx, int round)
{
    return twice(roundKey(ctx, round));
}

INFRA_VAES_INLINE void addKeys(Pairs& blocks, __m256i key)
{
    for (__m256i& pair : blocks) {
        pair = _mm256_xor_si256(pair, key);
    }
}

/// As Encryption and Decryption, of two blocks by one round key each.
struct PairEncryption
{
    INFRA_VAES_INLINE static __m256i round(__m256i pair, __m256i keys)
    {
        return _mm256_aesenc_epi128(pair, keys);
    }
    INFRA_VAES_INLINE static __m256i lastRound(__m256i pair, __m256i keys)
    {
        return _mm256_aesenclast_epi128(pair, keys);
    }
};

struct PairDecryption
{
    INFRA_VAES_INLINE static __m256i round(__m256i pair, __m256i keys)
    {
        return _mm256_aesdec_epi128(pair, keys);
    }
    INFRA_VAES_INLINE static __m256i lastRound(__m256i pair, __m256i keys)
    {
        return _mm256_aesdeclast_epi128(pair, keys);
    }
};

template <typename Way>
INFRA_VAES_INLINE void cryptPairs(Pairs& blocks, const aes_context& ctx)
{
    addKeys(blocks, roundKeys(ctx, 0));
    for (int round = 1; round < ctx.nr; ++round) {
        const __m256i keys = roundKeys(ctx, round);
        for (__m256i& pair : blocks) {
            pair = Way::round(pair, keys);
        }
    }
    const __m256i last = roundKeys(ctx, ctx.nr);
    for (__m256i& pair : blocks) {
        pair = Way::lastRound(pair, last);
    }
}

INFRA_VAES_INLINE void loadPairs(Pairs& blocks, const uint8_t* from)
{
    for (size_t i = 0; i < pairs; ++i) {
        blocks[i] = loadPair(from + 2 * i * blockSize);
    }
}

INFRA_VAES_INLINE void storePairs(uint8_t* to, const Pairs& blocks)
{
    for (size_t i = 0; i < pairs; ++i) {
        storePair(to + 2 * i * blockSize, blocks[i]);
    }
}

INFRA_VAES_INLINE void xorPairs(Pairs& blocks, const uint8_t* with)
{
    for (size_t i = 0; i < pairs; ++i) {
        blocks[i] = _mm256_xor_si256(blocks[i], loadPair(with + 2 * i * blockSize));
    }
}

/// The ciphertext blocks before those at `in`, of which the first is `iv`.
INFRA_VAES_INLINE __m256i pairBefore(__m128i iv, const uint8_t* in, size_t pair)
{
    return pair == 0 ? pairOf(iv, loadBlock(in)) : loadPair(in + (2 * pair - 1) * blockSize);
}

/// Steps of sixteen blocks. Short runs and the rest are `others`'s.
template <typename Operation>
INFRA_VAES_INLINE void runSteps(const aes_context& ctx, size_t blocks, const uint8_t* in,
                                uint8_t* out, EcbRun* others)
{
    if (blocks < stepBlocks) {
        return others(ctx, blocks, in, out);
    }
    for (; blocks >= stepBlocks; blocks -= stepBlocks, in += stepBytes, out += stepBytes) {
        Operation::step(ctx, in, out);
    }
    others(ctx, blocks, in, out);
}

/// The same of an operation that carries a block from step to step. A step's sixteen blocks are for
/// as many units of the message, blocks or bytes.
template <typename Operation>
INFRA_VAES_INLINE void runSteps(const aes_context& ctx, size_t units, uint8_t* iv,
                                const uint8_t* in, uint8_t* out, ChainRun* others)
{
    constexpr size_t size = stepBlocks * Operation::unit;
    if (units < stepBlocks) {
        return others(ctx, units, iv, in, out);
    }
    __m128i chain = loadBlock(iv);
    for (; units >= stepBlocks; units -= stepBlocks, in += size, out += size) {
        Operation::step(ctx, chain, in, out);
    }
    storeBlock(iv, chain);
    others(ctx, units, iv, in, out);
}

template <typename Way>
struct Ecb
{
    INFRA_VAES_INLINE static void step(const aes_context& ctx, const uint8_t* in, uint8_t* out)
    {
        Pairs step;
        loadPairs(step, in);
        cryptPairs<Way>(step, ctx);
        storePairs(out, step);
    }
};

INFRA_VAES void ecbEncrypt(const aes_context& ctx, size_t blocks, const uint8_t* in, uint8_t* out)
{
    runSteps<Ecb<PairEncryption>>(ctx, blocks, in, out, Aesni::ecbEncrypt);
}

INFRA_VAES void ecbDecrypt(const aes_context& ctx, size_t blocks, const uint8_t* in, uint8_t* out)
{
    runSteps<Ecb<PairDecryption>>(ctx, blocks, in, out, Aesni::ecbDecrypt);
}

/// The ciphertext is loaded a second time, because all of it does not stay in registers.
struct CbcDecrypt
{
    static constexpr size_t unit = blockSize;
    INFRA_VAES_INLINE static void step(const aes_context& ctx, __m128i& chain, const uint8_t* in,
                                       uint8_t* out)
    {
        Pairs step;
        loadPairs(step, in);
        cryptPairs<PairDecryption>(step, ctx);
        for (size_t i = 0; i < pairs; ++i) {
            step[i] = _mm256_xor_si256(step[i], pairBefore(chain, in, i));
        }
        chain = loadBlock(in + stepBytes - blockSize);
        storePairs(out, step);
    }
};

INFRA_VAES void cbcDecrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in,
                           uint8_t* out)
{
    runSteps<CbcDecrypt>(ctx, blocks, iv, in, out, Aesni::cbcDecrypt);
}

struct Cfb128Decrypt
{
    static constexpr size_t unit = blockSize;
    INFRA_VAES_INLINE static void step(const aes_context& ctx, __m128i& chain, const uint8_t* in,
                                       uint8_t* out)
    {
        Pairs step;
        for (size_t i = 0; i < pairs; ++i) {
            step[i] = pairBefore(chain, in, i);
        }
        cryptPairs<PairEncryption>(step, ctx);
        xorPairs(step, in);
        chain = loadBlock(in + stepBytes - blockSize);
        storePairs(out, step);
    }
};

INFRA_VAES void cfb128Decrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in,
                              uint8_t* out)
{
    runSteps<Cfb128Decrypt>(ctx, blocks, iv, in, out, Aesni::cfb128Decrypt);
}

/// The windows At and At + 1 bytes on, where the second halves of both arguments are one byte on.
template <int At>
INFRA_VAES_INLINE __m256i windowsAt(__m256i before, __m256i ahead)
{
    return _mm256_alignr_epi8(ahead, before, At);
}

/// The first byte of each of the sixteen blocks.
INFRA_VAES_INLINE __m128i firstBytes(const Pairs& blocks)
{
    const __m256i ab = _mm256_unpacklo_epi8(blocks[0], blocks[1]);
    const __m256i cd = _mm256_unpacklo_epi8(blocks[2], blocks[3]);
    const __m256i ef = _mm256_unpacklo_epi8(blocks[4], blocks[5]);
    const __m256i gh = _mm256_unpacklo_epi8(blocks[6], blocks[7]);
    const __m256i all =
        _mm256_unpacklo_epi32(_mm256_unpacklo_epi16(ab, cd), _mm256_unpacklo_epi16(ef, gh));
    return _mm_unpacklo_epi8(firstOf(all), secondOf(all));
}

/// The windows are all known; the last 16 bytes are the window after them.
struct Cfb8Decrypt
{
    static constexpr size_t unit = 1;
    INFRA_VAES_INLINE static void step(const aes_context& ctx, __m128i& window, const uint8_t* in,
                                       uint8_t* out)
    {
        const __m128i cipher = loadBlock(in);
        const __m256i before = pairOf(window, _mm_alignr_epi8(cipher, window, 1));
        const __m256i ahead = pairOf(cipher, _mm_srli_si128(cipher, 1));
        Pairs blocks = {
            windowsAt<0>(before, ahead),  windowsAt<2>(before, ahead),
            windowsAt<4>(before, ahead),  windowsAt<6>(before, ahead),
            windowsAt<8>(before, ahead),  windowsAt<10>(before, ahead),
            windowsAt<12>(before, ahead), windowsAt<14>(before, ahead),
        };
        window = cipher;
        cryptPairs<PairEncryption>(blocks, ctx);
        storeBlock(out, _mm_xor_si128(firstBytes(blocks), cipher));
    }
};

INFRA_VAES void cfb8Decrypt(const aes_context& ctx, size_t size, uint8_t* iv, const uint8_t* in,
                            uint8_t* out)
{
    runSteps<Cfb8Decrypt>(ctx, size, iv, in, out, Aesni::cfb8Decrypt);
}

/// The low half of a counter block; the high half lies before it.
uint64_t lowHalf(const uint8_t* counter)
{
    return loadBig<uint64_t>(counter + sizeof(uint64_t));
}

/// Counters in registers are little-endian numbers of two halves: reversed they are blocks.
INFRA_VAES_INLINE __m256i ctrStep(const aes_context& ctx, __m256i& counters, const uint8_t* in,
                                  uint8_t* out)
{
    const __m256i two = _mm256_set_epi64x(0, 2, 0, 2);
    Pairs step;
    for (__m256i& pair : step) {
        pair = bothReversed(counters);
        counters = _mm256_add_epi64(counters, two);
    }
    cryptPairs<PairEncryption>(step, ctx);
    const __m256i last = step[pairs - 1];
    xorPairs(step, in);
    storePairs(out, step);
    return last;
}

/// Runs as many whole steps as there are, up to where the low half of the counter overflows.
INFRA_VAES void ctrSteps(const aes_context& ctx, size_t steps, uint8_t* counter, uint8_t* stream,
                         const uint8_t* in, uint8_t* out)
{
    const __m128i block = loadBlock(counter);
    const __m256i pair = bothReversed(pairOf(block, block));
    __m256i counters = _mm256_add_epi64(pair, _mm256_set_epi64x(0, 1, 0, 0));
    __m256i last = _mm256_setzero_si256();
    for (; steps != 0; --steps, in += stepBytes, out += stepBytes) {
        last = ctrStep(ctx, counters, in, out);
    }
    storeBlock(counter, firstOf(bothReversed(counters)));
    storeBlock(stream, secondOf(last));
}

/// Whole steps up to where the low half of the counter overflows, then one step's blocks by the
/// other engine, which carries.
void ctr(const aes_context& ctx, size_t blocks, uint8_t* counter, uint8_t* stream,
         const uint8_t* in, uint8_t* out)
{
    while (blocks != 0) {
        const uint64_t beforeOverflow = (UINT64_MAX - lowHalf(counter)) / stepBlocks;
        const size_t steps = std::min<uint64_t>(blocks / stepBlocks, beforeOverflow);
        if (steps != 0) {
            ctrSteps(ctx, steps, counter, stream, in, out);
        }
        in += steps * stepBytes;
        out += steps * stepBytes;
        blocks -= steps * stepBlocks;
        const size_t others = std::min(blocks, stepBlocks);
        if (others != 0) {
            Aesni::ctr(ctx, others, counter, stream, in, out);
        }
        in += others * blockSize;
        out += others * blockSize;
        blocks -= others;
    }
}

} // namespace

/// The other operations cannot use two blocks at once.
constinit const AesEngine vaesEngine = {
    Aesni::expandKey,
    Aesni::invertSchedule,
    ecbEncrypt,
    ecbDecrypt,
    Aesni::cbcEncrypt,
    cbcDecrypt,
    Aesni::cfb8Encrypt,
    cfb8Decrypt,
    Aesni::cfb128Encrypt,
    cfb128Decrypt,
    ctr,
    Aesni::encryptBlock,
    Aesni::decryptBlock,
};

} // namespace AES
} // namespace Utils
} // namespace Tarsel
