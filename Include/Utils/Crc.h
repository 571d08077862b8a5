#ifndef INFRA_UTILS_CRC_H
#define INFRA_UTILS_CRC_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

// Checksums against accidental changes; they protect from nobody. Safe from any thread. `buffer`
// may be null when `length` is 0.

/// Continues a CRC-16 (polynomial 0x8005, reflected, no inversion). With 0 to begin with it is
/// CRC-16/ARC: "123456789" gives 0xBB3D.
/// @param crc  the starting value, or the result for the bytes before these
INFRA_API uint16_t crc16(uint16_t crc, const uint8_t* buffer, size_t length);

/// The CRC-32 of Ethernet, gzip and PNG: "123456789" gives 0xCBF43926.
INFRA_API uint32_t crc32(const uint8_t* buffer, size_t length);

/// Continues a CRC-32.
/// @param crc  0 to begin with, or the result for the bytes before these
INFRA_API uint32_t crc32(uint32_t crc, const uint8_t* buffer, size_t length);

} // namespace Utils
} // namespace Tarsel

#endif
