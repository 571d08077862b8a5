// Sha1Alg.cpp: SHA-1 (FIPS 180) for any processor.
//
// The message schedule is kept as a ring of the last sixteen words. It is as good as the message,
// and a message may be a secret: the stack that a run has used is wiped.

#include "Utils/Sha1Alg.h"

#include <bit>
#include <cstring>
#include <utility>

#include "Infra3/CpuFeatures.h"
#include "Utils/StackWipe.h"
#include "Utils/Words.h"

namespace Tarsel
{
namespace Utils
{
namespace SHA1
{
namespace
{

/// What a run works on.
struct Workspace
{
    uint32_t schedule[16]; ///< ring of the last sixteen words
    uint32_t v[5];
};

constexpr uint32_t constants[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};

template <int Round>
[[gnu::always_inline]] inline uint32_t mix(uint32_t b, uint32_t c, uint32_t d)
{
    if constexpr (Round == 0) {
        return ((c ^ d) & b) ^ d;
    } else if constexpr (Round == 2) {
        return (b & c) + ((b ^ c) & d); // no bit is in both
    } else {
        return b ^ c ^ d;
    }
}

/// The five words change their places with every step.
template <int Step>
[[gnu::always_inline]] inline void step(Workspace& work, const uint8_t* block)
{
    constexpr int a = (80 - Step) % 5;
    uint32_t& word = work.schedule[Step % 16];
    if constexpr (Step < 16) {
        word = loadBig<uint32_t>(block + 4 * Step);
    } else {
        word = std::rotl(work.schedule[(Step + 13) % 16] ^ work.schedule[(Step + 8) % 16] ^
                             work.schedule[(Step + 2) % 16] ^ word,
                         1);
    }
    uint32_t& b = work.v[(a + 1) % 5];
    uint32_t& e = work.v[(a + 4) % 5];
    e += std::rotl(work.v[a], 5) + mix<Step / 20>(b, work.v[(a + 2) % 5], work.v[(a + 3) % 5]) +
         constants[Step / 20] + word;
    b = std::rotl(b, 30);
}

template <int... Steps>
[[gnu::always_inline]] inline void allSteps(Workspace& work, const uint8_t* block,
                                            std::integer_sequence<int, Steps...>)
{
    (step<Steps>(work, block), ...);
}

/// A frame of its own, where the compiler may put words of the schedule that find no register.
[[gnu::noinline]] void runBlocks(uint32_t (&hash)[5], const uint8_t* data, size_t blocks)
{
    Workspace work;
    for (; blocks != 0; --blocks, data += messageBlockSize) {
        memcpy(work.v, hash, sizeof(work.v));
        allSteps(work, data, std::make_integer_sequence<int, 80>());
        for (int i = 0; i < 5; ++i) {
            hash[i] += work.v[i];
        }
    }
}

} // namespace

void hashBlocksPlain(uint32_t (&hash)[5], const uint8_t* data, size_t blocks)
{
    runBlocks(hash, data, blocks);
    wipeStackBelow<512>();
}

BlockRun* chooseBlockRun()
{
    using Infra::CpuFeature;
    constexpr Infra::TImplementation<BlockRun> runs[] = {
        {hashBlocksShani, {CpuFeature::shani, CpuFeature::sse41}},
        {hashBlocksPlain, {}},
    };
    return Infra::chooseImplementation(runs);
}

void start(SHA1Context& context)
{
    context = {0, {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0}, 0, {}};
}

void append(SHA1Context& context, BlockRun* hashBlocks, const uint8_t* data, size_t size)
{
    context.totalLength += uint64_t{size} * 8;
    context.bufferLength = static_cast<uint32_t>(appendToMessage(
        context.buffer, context.bufferLength, data, size,
        [&](const uint8_t* blocks, size_t count) { hashBlocks(context.hash, blocks, count); }));
}

void finish(SHA1Context& context, BlockRun* hashBlocks, uint8_t* digest)
{
    finishMessage(
        context.buffer, context.bufferLength, reverseBytes(context.totalLength),
        [&](const uint8_t* blocks, size_t count) { hashBlocks(context.hash, blocks, count); });
    for (size_t i = 0; i < 5; ++i) {
        storeBig(digest + 4 * i, context.hash[i]);
    }
}

} // namespace SHA1
} // namespace Utils
} // namespace Tarsel
