#ifndef INFRA_UTILS_STRING_H
#define INFRA_UTILS_STRING_H

#include <cstddef>
#include <cstdint>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{

/// An IPv4 address as a number: a.b.c.d is a * 2^24 + b * 2^16 + c * 2^8 + d on a little-endian
/// host. In memory the bytes are d, c, b, a everywhere: the reverse of the order on the network.
union IpAddress
{
    uint32_t value;
    uint8_t bytes[4];
};
static_assert(sizeof(IpAddress) == 4, "an address is four bytes");

namespace Utils
{

// Text into arrays of a known size. Nothing is ever written behind the array, and what is written
// ends with NUL; text without room is cut. A null or empty array gives 0. A null text is "".
// Safe from any thread.

/// Copies `srcCopyCount` characters of `src` at most. Like the standard strncpy it fills what `src`
/// leaves of them with NULs.
/// @param dstBufLen  size of `dst` in bytes
/// @return the length of `dst` now
INFRA_API size_t strncpy(char* dst, size_t dstBufLen, const char* src, size_t srcCopyCount);

/// Appends `srcCopyCount` characters of `src` at most.
/// @param dstBufLen  size of `dest` in bytes
/// @return how many characters could have been appended: the smaller of the room left and
///         `srcCopyCount`, even when `src` is shorter
INFRA_API size_t strncat(char* dest, size_t dstBufLen, const char* src, size_t srcCopyCount);

/// Formats as snprintf does.
/// @param maxlen  size of `buf` in bytes
/// @return the length of `buf` now, which for cut text is not the length it would have had; 0 when
///         the text cannot be formatted
INFRA_API INFRA_PRINTF_FORMAT(3, 4) int snprintf_x(char* buf, int maxlen, const char* fmt, ...);

/// Compares without regard to the case of the letters A to Z, whatever the locale.
/// @return below 0, 0 or above 0, by the first differing characters in lower case
INFRA_API int stricmp(const char* a, const char* b);

/// Reads "a.b.c.d". Each number may have blanks and a sign before it, and only its low 8 bits
/// count; what follows the fourth is ignored. With fewer than four numbers a warning is logged, and
/// the others are 0.
INFRA_API IpAddress stringToIp(const char* str);

/// Writes "a.b.c.d", cut to `len` - 1 characters. Returns `buf`.
INFRA_API char* ipToString(IpAddress ip, char* buf, size_t len);

} // namespace Utils
} // namespace Tarsel

#endif
