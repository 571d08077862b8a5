#ifndef INFRA_SRC_UTILS_BASE64ALG_H
#define INFRA_SRC_UTILS_BASE64ALG_H

// Base64 below the public functions: by vectors, and by table where there are none. What an engine
// leaves of a text, which is less than what it takes at once, is done by table too.

#include <array>
#include <cstddef>
#include <cstdint>

namespace Tarsel
{
namespace Utils
{
namespace Base64
{

inline constexpr char basis_64[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

/// What `pr2six` has for a character that is not of the alphabet.
constexpr uint8_t noValue = 64;

inline constexpr std::array<uint8_t, 256> pr2six = [] {
    std::array<uint8_t, 256> values = {};
    values.fill(noValue);
    for (uint8_t value = 0; value < noValue; ++value) {
        values[static_cast<uint8_t>(basis_64[value])] = value;
    }
    return values;
}();

/// Encodes from the front what it can of `size` bytes, a multiple of 3, and returns how many.
using EncodeRun = size_t(char* out, const char* in, size_t size);
/// Decodes from the front what it can of the characters before the first foreign one, a multiple of
/// 4, and returns how many. Writes 3 bytes for each 4, no more; `out` may be `in`.
using DecodeRun = size_t(char* out, const char* in);
/// How many characters of the alphabet `in` begins with.
using CountRun = size_t(const char* in);

/// No page behind the one of the first foreign character is touched.
struct Base64Engine
{
    EncodeRun* encode;
    DecodeRun* decode;
    CountRun* count;
};

extern const Base64Engine tableEngine;
extern const Base64Engine avx2Engine;

} // namespace Base64
} // namespace Utils
} // namespace Tarsel

#endif
