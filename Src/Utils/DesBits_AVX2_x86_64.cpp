// DesBits_AVX2_x86_64.cpp: DES of 256 blocks at once. Compiled for processors that have AVX2.

#define INFRA_DES_LANES 4
#include "Utils/DesBitsKernel.h"

namespace Tarsel
{
namespace Utils
{
namespace DES
{

size_t cryptBitsAvx2(const Schedules& keys, Direction direction, int passes, uint8_t* chain,
                     size_t blocks, const uint8_t* in, uint8_t* out)
{
    return cryptBits(keys, direction, passes, chain, worthBits, blocks, in, out);
}

} // namespace DES
} // namespace Utils
} // namespace Tarsel
