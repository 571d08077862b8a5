#ifndef INFRA_SRC_UTILS_NLS_CP1252ALG_H
#define INFRA_SRC_UTILS_NLS_CP1252ALG_H

// How much a text of Windows-1252 gives in UTF-8: asked before anything is written.

#include <cstddef>
#include <cstdint>

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

} // namespace Nls
} // namespace Utils
} // namespace Tarsel

#endif
