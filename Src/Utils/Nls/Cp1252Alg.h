#ifndef INFRA_SRC_UTILS_NLS_CP1252ALG_H
#define INFRA_SRC_UTILS_NLS_CP1252ALG_H

// What vectors do for Windows-1252. How much a text of it gives in UTF-8 is asked before anything is
// written.

#include <cstddef>
#include <cstdint>

#include "Utils/Nls/CodePage.h"
#include "Utils/Nls/Tables/SingleByte.h"

namespace Tarsel
{
namespace Utils
{
namespace Nls
{

/// Windows-1252 does not define it: the control character of the same value stands in its place.
constexpr bool isUndefinedInCp1252(uint8_t byte)
{
    return byte >= 0x80 && byte <= 0x9F && cp1252_charset2uni[byte] == byte;
}

struct Cp1252Size
{
    size_t defined; ///< bytes before the first that is undefined
    size_t encoded; ///< the bytes in UTF-8 that those give
};

using MeasureCp1252 = Cp1252Size(const uint8_t* in, size_t size);
MeasureCp1252 measureCp1252Plain;
MeasureCp1252 measureCp1252Avx2;

/// Converts from UTF-8, from the front, what is in Latin-1, ASCII included; may stop anywhere.
using DecodeLatin1 = void(Recoding& at, const uint8_t* end);
DecodeLatin1 decodeLatin1Avx512;

} // namespace Nls
} // namespace Utils
} // namespace Tarsel

#endif
