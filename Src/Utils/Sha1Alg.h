#ifndef INFRA_SRC_UTILS_SHA1ALG_H
#define INFRA_SRC_UTILS_SHA1ALG_H

// SHA-1 below the public class.

#include <cstddef>
#include <cstdint>

#include "Utils/MessageBlocks.h"

namespace Tarsel
{
namespace Utils
{
namespace SHA1
{

constexpr size_t digestSize = 20;

struct SHA1Context
{
    uint64_t totalLength; ///< length of the message in bits
    uint32_t hash[5];
    uint32_t bufferLength; ///< how much of `buffer` waits for the rest of its block
    MessageBuffer buffer;
};

/// Takes whole blocks into `hash`.
using BlockRun = void(uint32_t (&hash)[5], const uint8_t* data, size_t blocks);

BlockRun hashBlocksPlain;
/// By the SHA instructions.
BlockRun hashBlocksShani;
/// The best of them that this processor has.
BlockRun* chooseBlockRun();

void start(SHA1Context& context);
void append(SHA1Context& context, BlockRun* hashBlocks, const uint8_t* data, size_t size);
void finish(SHA1Context& context, BlockRun* hashBlocks, uint8_t* digest);

} // namespace SHA1
} // namespace Utils
} // namespace Tarsel

#endif
