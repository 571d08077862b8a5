#ifndef INFRA_SRC_UTILS_DIGESTTEXT_H
#define INFRA_SRC_UTILS_DIGESTTEXT_H

#include <cstddef>
#include <cstdint>

namespace Tarsel
{
namespace Utils
{

/// Writes two lower-case hexadecimal digits a byte, without a NUL behind them.
inline void writeHex(char* text, const uint8_t* bytes, size_t size)
{
    for (size_t i = 0; i < size; ++i) {
        *text++ = "0123456789abcdef"[bytes[i] >> 4];
        *text++ = "0123456789abcdef"[bytes[i] & 15];
    }
}

} // namespace Utils
} // namespace Tarsel

#endif
