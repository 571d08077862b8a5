#ifndef INFRA_SRC_UTILS_CRCALG_H
#define INFRA_SRC_UTILS_CRCALG_H

// CRCs below the public functions.
//
// The register of a reflected CRC holds a polynomial upside down: bit 0 is its highest power. A
// message read as little-endian numbers is upside down too, so that the two fit together without
// any turning round.

#include <cstddef>
#include <cstdint>

namespace Tarsel
{
namespace Utils
{
namespace CRC
{

/// A polynomial: its degree, and all its terms but the highest, upside down.
template <int Width, uint32_t Terms>
struct Polynomial
{
    static constexpr int width = Width;
    static constexpr uint32_t terms = Terms;
};

using Crc16 = Polynomial<16, 0xA001>;
using Crc32 = Polynomial<32, 0xEDB88320>;

/// Takes `length` bytes into a register, which is used as it is: nothing is inverted.
using CrcRun = uint32_t(uint32_t crc, const uint8_t* data, size_t length);

CrcRun crc16Tables;
CrcRun crc32Tables;
/// By multiplication without carries, of 128 bits at a time.
CrcRun crc16Clmul;
CrcRun crc32Clmul;
/// The same, of 256 bits at a time.
CrcRun crc16Vclmul;
CrcRun crc32Vclmul;
/// And of 512 bits.
CrcRun crc16Wide;
CrcRun crc32Wide;

} // namespace CRC
} // namespace Utils
} // namespace Tarsel

#endif
