// DesBits_AVX512_x86_64.cpp: DES of 512 blocks at once. Compiled for processors that have AVX512.

#define INFRA_DES_LANES 8
#include "Utils/DesBitsKernel.h"

namespace Tarsel
{
namespace Utils
{
namespace DES
{

size_t cryptBitsAvx512(const Schedules& keys, Direction direction, int passes, uint8_t* chain,
                       size_t blocks, const uint8_t* in, uint8_t* out)
{
    // A rest that fits in half as wide registers is faster there.
    const size_t done = cryptBits(keys, direction, passes, chain, batch / 2 + 1, blocks, in, out);
    return done + cryptBitsAvx2(keys, direction, passes, chain, blocks - done, in + 8 * done,
                                out + 8 * done);
}

} // namespace DES
} // namespace Utils
} // namespace Tarsel
