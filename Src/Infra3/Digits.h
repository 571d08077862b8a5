#ifndef INFRA_SRC_INFRA3_DIGITS_H
#define INFRA_SRC_INFRA3_DIGITS_H

// Decimal digits, read and written, whatever the locale.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace Tarsel
{
namespace Infra
{

/// A decimal digit.
inline bool isDigit(char letter)
{
    return letter >= '0' && letter <= '9';
}

/// "00" to "99": two digits are written at once.
inline constexpr std::array<char, 200> digitPairs = [] {
    std::array<char, 200> pairs = {};
    for (size_t value = 0; value < 100; ++value) {
        pairs[value * 2] = static_cast<char>('0' + value / 10);
        pairs[value * 2 + 1] = static_cast<char>('0' + value % 10);
    }
    return pairs;
}();

/// Writes two digits of a `value` below 100.
inline char* writePair(char* out, unsigned value)
{
    memcpy(out, &digitPairs[value * 2], 2);
    return out + 2;
}

/// How many digits `value` has: 1 to 20.
inline size_t decimalLength(uint64_t value)
{
    size_t length = 1;
    for (; value >= 10000; value /= 10000) {
        length += 4;
    }
    return length + (value >= 10) + (value >= 100) + (value >= 1000);
}

/// Writes the digits of `value` so that they end at `end`.
inline void writeDecimalBefore(char* end, uint64_t value)
{
    for (; value >= 100; value /= 100) {
        writePair(end -= 2, static_cast<unsigned>(value % 100));
    }
    if (value >= 10) {
        writePair(end - 2, static_cast<unsigned>(value));
    } else {
        end[-1] = static_cast<char>('0' + value);
    }
}

inline size_t hexadecimalLength(uint64_t value)
{
    const int bits = 64 - __builtin_clzll(value | 1);
    return static_cast<size_t>(bits + 3) / 4;
}

/// The same with the sixteen digits of `alphabet`.
inline void writeHexadecimalBefore(char* end, uint64_t value, const char* alphabet)
{
    do {
        *--end = alphabet[value % 16];
        value /= 16;
    } while (value != 0);
}

} // namespace Infra
} // namespace Tarsel

#endif
