// Md5.cpp: MD5 (RFC 1321).
//
// Each of the 64 steps of a block waits for the one before, and that chain is the whole cost: in a
// step everything that does not come from the step before is summed up first. The constants are
// those of the standard, floor(2^32 * |sin(i + 1)|).

#include "Utils/Md5.h"

#include <bit>
#include <cstring>
#include <utility>

#include "Infra3/LogFront.h"
#include "Utils/DigestText.h"
#include "Utils/MessageBlocks.h"
#include "Utils/Words.h"

namespace Tarsel
{
namespace Utils
{
namespace
{

constexpr size_t digestSize = 16;

struct MD5_CTX
{
    uint32_t state[4];
    uint32_t count[2]; ///< length of the message in bits, low word first
    MessageBuffer buffer;
};

constexpr uint32_t sines[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr int rotations[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

/// Where step `step` finds its word of the block.
constexpr int wordOf(int step)
{
    constexpr int factors[4] = {1, 5, 3, 7};
    constexpr int offsets[4] = {0, 1, 5, 0};
    return (step * factors[step / 16] + offsets[step / 16]) % 16;
}

/// The round functions, plus `sum`. `b` comes from the step before: it is used as late as possible.
template <int Round>
[[gnu::always_inline]] inline uint32_t mix(uint32_t sum, uint32_t b, uint32_t c, uint32_t d)
{
    if constexpr (Round == 0) {
        return sum + (((c ^ d) & b) ^ d);
    } else if constexpr (Round == 1) {
        return sum + (c & ~d) + (b & d); // no bit is in both
    } else if constexpr (Round == 2) {
        return sum + ((c ^ d) ^ b);
    } else {
        return sum + (c ^ (b | ~d));
    }
}

/// The four words change their places with every step: `v` starts where the word to replace is.
template <int Step>
[[gnu::always_inline]] inline void step(uint32_t (&v)[4], const uint8_t* block)
{
    constexpr int a = (64 - Step) % 4;
    constexpr int bits = rotations[Step / 16][Step % 4];
    const uint32_t b = v[(a + 1) % 4];
    const uint32_t sum = v[a] + (loadLittle<uint32_t>(block + 4 * wordOf(Step)) + sines[Step]);
    const uint32_t mixed = mix<Step / 16>(sum, b, v[(a + 2) % 4], v[(a + 3) % 4]);
    v[a] = b + std::rotl(mixed, bits);
}

template <int... Steps>
[[gnu::always_inline]] inline void allSteps(uint32_t (&v)[4], const uint8_t* block,
                                            std::integer_sequence<int, Steps...>)
{
    (step<Steps>(v, block), ...);
}

void hashBlocks(uint32_t (&state)[4], const uint8_t* data, size_t blocks)
{
    for (; blocks != 0; --blocks, data += messageBlockSize) {
        uint32_t v[4] = {state[0], state[1], state[2], state[3]};
        allSteps(v, data, std::make_integer_sequence<int, 64>());
        for (int i = 0; i < 4; ++i) {
            state[i] += v[i];
        }
    }
}

uint64_t bitCount(const MD5_CTX& context)
{
    return uint64_t{context.count[1]} << 32 | context.count[0];
}

size_t buffered(const MD5_CTX& context)
{
    return context.count[0] / 8 % messageBlockSize;
}

void start(MD5_CTX& context)
{
    context = {{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476}, {0, 0}, {}};
}

void append(MD5_CTX& context, const uint8_t* data, size_t size)
{
    const size_t used = buffered(context);
    const uint64_t bits = bitCount(context) + uint64_t{size} * 8;
    context.count[0] = static_cast<uint32_t>(bits);
    context.count[1] = static_cast<uint32_t>(bits >> 32);
    appendToMessage(context.buffer, used, data, size, [&](const uint8_t* blocks, size_t count) {
        hashBlocks(context.state, blocks, count);
    });
}

void finish(MD5_CTX& context, uint8_t* digest)
{
    finishMessage(
        context.buffer, buffered(context), bitCount(context),
        [&](const uint8_t* blocks, size_t count) { hashBlocks(context.state, blocks, count); });
    memcpy(digest, context.state, digestSize);
}

} // namespace

struct Md5Internal
{
    MD5_CTX md5_ctx;
    uint8_t digest[digestSize]; ///< zeros until the message is complete
    bool is_final;              ///< `digest` is the message's
};

namespace
{

/// Completes the digest, unless that is done.
const uint8_t* completed(Md5Internal& md5)
{
    if (!md5.is_final) {
        finish(md5.md5_ctx, md5.digest);
        md5.is_final = true;
    }
    return md5.digest;
}

} // namespace

CMd5::CMd5() : m_internal(new Md5Internal)
{
    init();
}

CMd5::~CMd5()
{
    delete m_internal;
}

void CMd5::init()
{
    start(m_internal->md5_ctx);
    memset(m_internal->digest, 0, digestSize);
    m_internal->is_final = false;
}

void CMd5::update(const uint8_t* data, size_t size)
{
    if (data == nullptr || size == 0) {
        return;
    }
    if (m_internal->is_final) {
        init();
    }
    append(m_internal->md5_ctx, data, size);
}

void CMd5::final(uint8_t* digest)
{
    if (digest == nullptr) {
        INFRA_LOG_ERROR("digest is NULL\n");
        return;
    }
    memcpy(digest, completed(*m_internal), digestSize);
}

void CMd5::hex(char* hash)
{
    if (hash == nullptr) {
        INFRA_LOG_ERROR("hash is NULL\n");
        return;
    }
    writeHex(hash, completed(*m_internal), digestSize);
}

} // namespace Utils
} // namespace Tarsel
