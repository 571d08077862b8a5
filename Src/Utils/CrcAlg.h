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

/// A kind of checksum: the degree of its polynomial, all its terms but the highest, upside down,
/// and what the register is XORed with before and after each run.
template <int Width, uint32_t Terms, uint32_t Inversion>
struct Checksum
{
    static constexpr int width = Width;
    static constexpr uint32_t terms = Terms;
    static constexpr uint32_t inversion = Inversion;
};

using Crc16 = Checksum<16, 0xA001, 0>;
using Crc32 = Checksum<32, 0xEDB88320, 0xFFFFFFFF>;

/// Continues a checksum by `length` bytes.
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
