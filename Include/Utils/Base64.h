#ifndef INFRA_UTILS_BASE64_H
#define INFRA_UTILS_BASE64_H

#include <cstddef>

#include "Infra/Infra3/Detail/Export.h"

namespace Tarsel
{
namespace Utils
{

// Base64 with the alphabet of RFC 4648, with padding, without line breaks. Nothing is checked: the
// caller passes valid pointers and as much room as the function with Len in its name says. The Ex
// functions count in size_t; the others are the same in int, for what an int can count. Safe from
// any thread.

/// The room that encoding `len` bytes takes, the NUL behind the text included.
INFRA_API size_t base64EncodeLenEx(size_t len);
INFRA_API int base64EncodeLen(int len);

/// Writes the text for `len_plain_src` bytes, and a NUL.
/// @return how many characters were written, the NUL included: 1 for no bytes
INFRA_API size_t base64EncodeEx(char* coded_dst, const char* plain_src, size_t len_plain_src);
/// The same, except that for less than one byte nothing is written and the result is 0.
INFRA_API int base64Encode(char* coded_dst, const char* plain_src, int len_plain_src);

/// The room that decoding `coded_src` takes: ((n + 3) / 4) * 3 + 1 bytes, where n characters of the
/// alphabet stand at its beginning.
INFRA_API size_t base64DecodeLenEx(const char* coded_src);
INFRA_API int base64DecodeLen(const char* coded_src);

/// Decodes up to the first character that is not of the alphabet (padding, a line break, NUL),
/// which is no error, and writes a NUL behind the bytes. `plain_dst` may be `coded_src`.
/// @return how many bytes were decoded; a single character left over gives none: "Zm9vY" is 3 bytes
INFRA_API size_t base64DecodeEx(char* plain_dst, const char* coded_src);
INFRA_API int base64Decode(char* plain_dst, const char* coded_src);

} // namespace Utils
} // namespace Tarsel

#endif
