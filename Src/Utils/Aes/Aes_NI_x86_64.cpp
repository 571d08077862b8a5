// Aes_NI_x86_64.cpp: the engine of the AES instructions.
//
// Where a block does not wait for the one before, runs go eight blocks at a time, then four, then
// one. Where it does (CBC and CFB, enciphering) the chain is all that counts: it stays in a
// register, and what can be added to a round key beforehand does not lengthen it.
//
// A step loads all its input before it stores, so `out` may be `in`.

#include "Utils/Aes/AesEngine.h"
#include "Utils/Aes/AesRounds_x86_64.h"

namespace Tarsel
{
namespace Utils
{
namespace AES
{
namespace Aesni
{

/// The S-box on one word, in all columns, plus `constant`: where all columns are alike ShiftRows
/// moves nothing, and the last round is the S-box alone. `bytes` chooses word and rotation.
INFRA_AESNI_INLINE __m128i substitute(__m128i words, int bytes, uint32_t constant)
{
    const __m128i columns = _mm_shuffle_epi8(words, _mm_set1_epi32(bytes));
    return _mm_aesenclast_si128(columns, _mm_set1_epi32(static_cast<int>(constant)));
}

/// Each word plus all the words before it, plus `first`.
INFRA_AESNI_INLINE __m128i accumulate(__m128i words, __m128i first)
{
    words = _mm_xor_si128(words, _mm_slli_si128(words, 4));
    words = _mm_xor_si128(words, _mm_slli_si128(words, 8));
    return _mm_xor_si128(words, first);
}

constexpr int lastWord = 0x0F0E0D0C;
constexpr int lastWordRotated = 0x0C0F0E0D;
constexpr int secondWordRotated = 0x04070605;

INFRA_AESNI_INLINE void expand128(uint32_t* words)
{
    __m128i key = loadBlock(words);
    uint32_t constant = 1;
    for (int round = 1; round <= 10; ++round) {
        key = accumulate(key, substitute(key, lastWordRotated, constant));
        constant = nextRoundConstant(constant);
        storeBlock(words + 4 * round, key);
    }
}

/// Six words a step: four, then two. The last two are not needed, but there is room for them.
INFRA_AESNI_INLINE void expand192(uint32_t* words)
{
    __m128i four = loadBlock(words);
    __m128i two = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(words + 4));
    uint32_t constant = 1;
    for (int step = 1; step <= 8; ++step) {
        four = accumulate(four, substitute(two, secondWordRotated, constant));
        two = _mm_xor_si128(two, _mm_slli_si128(two, 4));
        two = _mm_xor_si128(two, _mm_shuffle_epi32(four, 0xFF));
        constant = nextRoundConstant(constant);
        storeBlock(words + 6 * step, four);
        _mm_storel_epi64(reinterpret_cast<__m128i*>(words + 6 * step + 4), two);
    }
}

INFRA_AESNI_INLINE void expand256(uint32_t* words)
{
    __m128i first = loadBlock(words);
    __m128i second = loadBlock(words + 4);
    uint32_t constant = 1;
    for (int step = 1; step <= 7; ++step) {
        first = accumulate(first, substitute(second, lastWordRotated, constant));
        second = accumulate(second, substitute(first, lastWord, 0));
        constant = nextRoundConstant(constant);
        storeBlock(words + 8 * step, first);
        storeBlock(words + 8 * step + 4, second);
    }
}

INFRA_AESNI void expandKey(uint32_t* words, size_t keyWords)
{
    switch (keyWords) {
    case 4:
        return expand128(words);
    case 6:
        return expand192(words);
    default:
        return expand256(words);
    }
}

INFRA_AESNI void invertSchedule(const aes_context& encrypting, aes_context& decrypting)
{
    const int rounds = encrypting.nr;
    decrypting.nr = rounds;
    decrypting.rk = decrypting.buf;
    __m128i* const keys = reinterpret_cast<__m128i*>(decrypting.rk);
    storeBlock(keys, roundKey(encrypting, rounds));
    for (int round = 1; round < rounds; ++round) {
        storeBlock(keys + round, _mm_aesimc_si128(roundKey(encrypting, rounds - round)));
    }
    storeBlock(keys + rounds, roundKey(encrypting, 0));
}

template <typename Way>
struct Ecb
{
    template <size_t Count>
    INFRA_AESNI_INLINE static void step(const aes_context& ctx, const uint8_t* in, uint8_t* out)
    {
        __m128i blocks[Count];
        loadBlocks(blocks, in);
        cryptBlocks<Way>(blocks, ctx);
        storeBlocks(out, blocks);
    }
};

/// `iv` is the ciphertext block before the step, and the step's last one afterwards.
struct CbcDecrypt
{
    template <size_t Count>
    INFRA_AESNI_INLINE static void step(const aes_context& ctx, const uint8_t* in, uint8_t* out,
                                        __m128i& iv)
    {
        __m128i cipher[Count];
        __m128i blocks[Count];
        loadBlocks(cipher, in);
        INFRA_UNROLLED
        for (size_t i = 0; i < Count; ++i) {
            blocks[i] = cipher[i];
        }
        cryptBlocks<Decryption>(blocks, ctx);
        blocks[0] = _mm_xor_si128(blocks[0], iv);
        INFRA_UNROLLED
        for (size_t i = 1; i < Count; ++i) {
            blocks[i] = _mm_xor_si128(blocks[i], cipher[i - 1]);
        }
        iv = cipher[Count - 1];
        storeBlocks(out, blocks);
    }
};

struct Cfb128Decrypt
{
    template <size_t Count>
    INFRA_AESNI_INLINE static void step(const aes_context& ctx, const uint8_t* in, uint8_t* out,
                                        __m128i& iv)
    {
        __m128i cipher[Count];
        __m128i blocks[Count];
        loadBlocks(cipher, in);
        blocks[0] = iv;
        INFRA_UNROLLED
        for (size_t i = 1; i < Count; ++i) {
            blocks[i] = cipher[i - 1];
        }
        cryptBlocks<Encryption>(blocks, ctx);
        INFRA_UNROLLED
        for (size_t i = 0; i < Count; ++i) {
            blocks[i] = _mm_xor_si128(blocks[i], cipher[i]);
        }
        iv = cipher[Count - 1];
        storeBlocks(out, blocks);
    }
};

/// Eight blocks at a time, then four, then one. `chain` is what an operation carries, if anything.
template <typename Operation, typename... Chain>
INFRA_AESNI_INLINE void runSteps(const aes_context& ctx, size_t blocks, const uint8_t* in,
                                 uint8_t* out, Chain&... chain)
{
    for (; blocks >= 8; blocks -= 8, in += 8 * blockSize, out += 8 * blockSize) {
        Operation::template step<8>(ctx, in, out, chain...);
    }
    if (blocks >= 4) {
        Operation::template step<4>(ctx, in, out, chain...);
        blocks -= 4, in += 4 * blockSize, out += 4 * blockSize;
    }
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        Operation::template step<1>(ctx, in, out, chain...);
    }
}

INFRA_AESNI void ecbEncrypt(const aes_context& ctx, size_t blocks, const uint8_t* in, uint8_t* out)
{
    runSteps<Ecb<Encryption>>(ctx, blocks, in, out);
}

INFRA_AESNI void ecbDecrypt(const aes_context& ctx, size_t blocks, const uint8_t* in, uint8_t* out)
{
    runSteps<Ecb<Decryption>>(ctx, blocks, in, out);
}

/// The chain from one block to the next is its rounds alone: the next input and the first round key
/// are added to the last round key beforehand. What is stored is computed beside the chain.
INFRA_AESNI void cbcEncrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in,
                            uint8_t* out)
{
    if (blocks == 0) {
        return;
    }
    const __m128i firstKey = roundKey(ctx, 0);
    const __m128i lastKey = roundKey(ctx, ctx.nr);
    __m128i chain[1] = {_mm_xor_si128(loadBlock(iv), _mm_xor_si128(loadBlock(in), firstKey))};
    for (; blocks > 1; --blocks, out += blockSize) {
        middleRounds<Encryption>(chain, ctx);
        in += blockSize;
        const __m128i next = _mm_xor_si128(loadBlock(in), firstKey);
        storeBlock(out, _mm_aesenclast_si128(chain[0], lastKey));
        chain[0] = _mm_aesenclast_si128(chain[0], _mm_xor_si128(lastKey, next));
    }
    middleRounds<Encryption>(chain, ctx);
    chain[0] = _mm_aesenclast_si128(chain[0], lastKey);
    storeBlock(out, chain[0]);
    storeBlock(iv, chain[0]);
}

INFRA_AESNI void cbcDecrypt(const aes_context& ctx, size_t blocks, uint8_t* iv, const uint8_t* in,
                            uint8_t* out)
{
    __m128i chain = loadBlock(iv);
    runSteps<CbcDecrypt>(ctx, blocks, in, out, chain);
    storeBlock(iv, chain);
}

/// As above: the input and the next block's first round key are added to the last round key.
INFRA_AESNI void cfb128Encrypt(const aes_context& ctx, size_t blocks, uint8_t* iv,
                               const uint8_t* in, uint8_t* out)
{
    const __m128i firstKey = roundKey(ctx, 0);
    const __m128i lastKey = roundKey(ctx, ctx.nr);
    __m128i cipher = loadBlock(iv);
    __m128i chain[1] = {_mm_xor_si128(cipher, firstKey)};
    for (; blocks != 0; --blocks, in += blockSize, out += blockSize) {
        middleRounds<Encryption>(chain, ctx);
        const __m128i key = _mm_xor_si128(loadBlock(in), lastKey);
        cipher = _mm_aesenclast_si128(chain[0], key);
        chain[0] = _mm_aesenclast_si128(chain[0], _mm_xor_si128(key, firstKey));
        storeBlock(out, cipher);
    }
    storeBlock(iv, cipher);
}

INFRA_AESNI void cfb128Decrypt(const aes_context& ctx, size_t blocks, uint8_t* iv,
                               const uint8_t* in, uint8_t* out)
{
    __m128i chain = loadBlock(iv);
    runSteps<Cfb128Decrypt>(ctx, blocks, in, out, chain);
    storeBlock(iv, chain);
}

/// The chain goes through vector registers alone: the first byte of the result, to which the input
/// was added with the last round key, becomes the last byte of the window.
INFRA_AESNI void cfb8Encrypt(const aes_context& ctx, size_t size, uint8_t* iv, const uint8_t* in,
                             uint8_t* out)
{
    const __m128i firstKey = roundKey(ctx, 0);
    const __m128i lastKey = roundKey(ctx, ctx.nr);
    __m128i window = loadBlock(iv);
    __m128i block[1] = {_mm_xor_si128(window, firstKey)};
    for (size_t i = 0; i < size; ++i) {
        middleRounds<Encryption>(block, ctx);
        const __m128i key = _mm_xor_si128(lastKey, _mm_cvtsi32_si128(in[i]));
        const __m128i result = _mm_aesenclast_si128(block[0], key);
        out[i] = static_cast<uint8_t>(_mm_cvtsi128_si32(result));
        const __m128i older = _mm_srli_si128(window, 1);
        const __m128i newest = _mm_slli_si128(result, 15);
        window = _mm_or_si128(older, newest);
        block[0] = _mm_xor_si128(_mm_xor_si128(older, firstKey), newest);
    }
    storeBlock(iv, window);
}

/// The window that begins `At` bytes into `before`, with `ahead` behind that.
template <int At>
INFRA_AESNI_INLINE __m128i windowAt(__m128i before, __m128i ahead)
{
    if constexpr (At == 0) {
        return before;
    } else {
        return _mm_or_si128(_mm_srli_si128(before, At), _mm_slli_si128(ahead, 16 - At));
    }
}

/// The first byte of each of eight blocks.
INFRA_AESNI_INLINE __m128i firstBytes(const __m128i (&blocks)[8])
{
    const __m128i ab = _mm_unpacklo_epi8(blocks[0], blocks[1]);
    const __m128i cd = _mm_unpacklo_epi8(blocks[2], blocks[3]);
    const __m128i ef = _mm_unpacklo_epi8(blocks[4], blocks[5]);
    const __m128i gh = _mm_unpacklo_epi8(blocks[6], blocks[7]);
    return _mm_unpacklo_epi32(_mm_unpacklo_epi16(ab, cd), _mm_unpacklo_epi16(ef, gh));
}

/// Eight bytes, whose windows are all known.
INFRA_AESNI_INLINE void cfb8DecryptStep(const aes_context& ctx, __m128i& window, const uint8_t* in,
                                        uint8_t* out)
{
    const __m128i cipher = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(in));
    __m128i blocks[8] = {
        windowAt<0>(window, cipher), windowAt<1>(window, cipher), windowAt<2>(window, cipher),
        windowAt<3>(window, cipher), windowAt<4>(window, cipher), windowAt<5>(window, cipher),
        windowAt<6>(window, cipher), windowAt<7>(window, cipher),
    };
    window = windowAt<8>(window, cipher);
    cryptBlocks<Encryption>(blocks, ctx);
    _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_xor_si128(firstBytes(blocks), cipher));
}

INFRA_AESNI void cfb8Decrypt(const aes_context& ctx, size_t size, uint8_t* iv, const uint8_t* in,
                             uint8_t* out)
{
    __m128i window = loadBlock(iv);
    for (; size >= 8; size -= 8, in += 8, out += 8) {
        cfb8DecryptStep(ctx, window, in, out);
    }
    for (; size != 0; --size, ++in, ++out) {
        const __m128i cipher = _mm_cvtsi32_si128(*in);
        __m128i block[1] = {window};
        cryptBlocks<Encryption>(block, ctx);
        window = windowAt<1>(window, cipher);
        *out = static_cast<uint8_t>(_mm_cvtsi128_si32(_mm_xor_si128(block[0], cipher)));
    }
    storeBlock(iv, window);
}

/// Counters in registers are little-endian numbers of two halves: reversed they are blocks.
///
/// Where the low half does not overflow within the step.
template <size_t Count>
INFRA_AESNI_INLINE void ctrStep(const aes_context& ctx, __m128i counter, __m128i& last,
                                const uint8_t* in, uint8_t* out)
{
    __m128i blocks[Count];
    INFRA_UNROLLED
    for (size_t i = 0; i < Count; ++i) {
        blocks[i] = reversed(_mm_add_epi64(counter, _mm_set_epi64x(0, static_cast<long long>(i))));
    }
    cryptBlocks<Encryption>(blocks, ctx);
    last = blocks[Count - 1];
    xorBlocks(blocks, in);
    storeBlocks(out, blocks);
}

INFRA_AESNI void ctr(const aes_context& ctx, size_t blocks, uint8_t* counter, uint8_t* stream,
                     const uint8_t* in, uint8_t* out)
{
    __m128i last = _mm_setzero_si128();
    __m128i next = reversed(loadBlock(counter));
    uint64_t low = static_cast<uint64_t>(_mm_cvtsi128_si64(next));
    while (blocks != 0) {
        const bool isWhole = blocks >= 8 && low <= UINT64_MAX - 8;
        const size_t count = isWhole ? 8 : 1;
        if (isWhole) {
            ctrStep<8>(ctx, next, last, in, out);
        } else {
            ctrStep<1>(ctx, next, last, in, out);
        }
        low += count;
        next = _mm_add_epi64(next, _mm_set_epi64x(low == 0 ? 1 : 0, static_cast<long long>(count)));
        blocks -= count, in += count * blockSize, out += count * blockSize;
    }
    storeBlock(counter, reversed(next));
    storeBlock(stream, last);
}

INFRA_AESNI void encryptBlock(const aes_context& ctx, const uint8_t* in, uint8_t* out)
{
    Ecb<Encryption>::step<1>(ctx, in, out);
}

INFRA_AESNI void decryptBlock(const aes_context& ctx, const uint8_t* in, uint8_t* out)
{
    Ecb<Decryption>::step<1>(ctx, in, out);
}

} // namespace Aesni

constinit const AesEngine aesniEngine = {
    Aesni::expandKey,     Aesni::invertSchedule, Aesni::ecbEncrypt,  Aesni::ecbDecrypt,
    Aesni::cbcEncrypt,    Aesni::cbcDecrypt,     Aesni::cfb8Encrypt, Aesni::cfb8Decrypt,
    Aesni::cfb128Encrypt, Aesni::cfb128Decrypt,  Aesni::ctr,         Aesni::encryptBlock,
    Aesni::decryptBlock,
};

} // namespace AES
} // namespace Utils
} // namespace Tarsel
