#ifndef INFRA_SRC_UTILS_NLS_CODEPAGE_H
#define INFRA_SRC_UTILS_NLS_CODEPAGE_H

// What is made of the generated table of a single-byte code page while the library is compiled: the
// way back, in two levels, and the UTF-8 form of each byte.

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "Utils/Nls/Utf8Alg.h"

namespace Tarsel
{
namespace Utils
{
namespace Nls
{

using Charset = uint16_t[256]; ///< byte -> unit, 0 where the byte has no character

/// Unit -> byte. A page is for the units of one high byte; page 0 is for high bytes without any.
template <size_t Pages>
struct TUniToByte
{
    uint8_t pageOf[256];
    uint8_t pages[Pages][256]; ///< by the low byte; 0 where there is no byte

    constexpr uint8_t operator[](uint16_t unit) const
    {
        return pages[pageOf[unit >> 8]][unit & 0xFF];
    }
};

/// How many pages the units of a table need, page 0 among them.
constexpr size_t countPages(const Charset& charset)
{
    bool isUsed[256] = {};
    for (const uint16_t unit : charset) {
        isUsed[unit >> 8] = isUsed[unit >> 8] || unit != 0;
    }
    return 1 + static_cast<size_t>(std::count(isUsed, isUsed + 256, true));
}

template <const Charset& charset>
inline constexpr TUniToByte<countPages(charset)> page_uni2charset = [] {
    TUniToByte<countPages(charset)> table = {};
    uint8_t pages = 1;
    for (unsigned byte = 0; byte < 256; ++byte) {
        const uint16_t unit = charset[byte];
        if (unit != 0) {
            uint8_t& page = table.pageOf[unit >> 8];
            page = page != 0 ? page : pages++;
            table.pages[page][unit & 0xFF] = static_cast<uint8_t>(byte);
        }
    }
    return table;
}();

/// The UTF-8 form of each byte: up to three bytes, the first one lowest, and above them their number,
/// 0 where the byte has no character.
using Utf8Forms = std::array<uint32_t, 256>;

constexpr size_t lengthOf(uint32_t form)
{
    return form >> 24;
}

constexpr uint32_t utf8FormOf(uint16_t unit)
{
    uint8_t bytes[3] = {};
    const size_t length = writeSequence(bytes, unit, encodedLength(unit));
    return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 |
           static_cast<uint32_t>(length) << 24;
}

template <const Charset& charset>
inline constexpr Utf8Forms utf8Forms = [] {
    Utf8Forms forms = {};
    for (size_t byte = 0; byte < forms.size(); ++byte) {
        forms[byte] = charset[byte] != 0 ? utf8FormOf(charset[byte]) : 0;
    }
    return forms;
}();

/// A code page for texts.
struct BytePage
{
    const Charset* charset;
    const Utf8Forms* forms;
};

template <const Charset& charset>
inline constexpr BytePage bytePage = {&charset, &utf8Forms<charset>};

/// A place in a text of bytes that is converted.
struct Recoding : Target
{
    const uint8_t* in;
};

/// Converts from the front of what goes up to `end`, bytes without a character left out, until a
/// character does not fit. Source and target do not overlap.
void encodeBytes(Recoding& at, const uint8_t* end, const BytePage& page);

/// The same byte by byte, which is what overlapping buffers ask for.
void encodeBytesInPlace(Recoding& at, const uint8_t* end, const BytePage& page);

/// encodeBytes(), but may stop anywhere.
using EncodeBytesRun = void(Recoding& at, const uint8_t* end, const BytePage& page);
EncodeBytesRun encodeBytesAvx512;

/// Whether two ranges have a byte in common.
inline bool areOverlapping(const void* a, size_t aSize, const void* b, size_t bSize)
{
    const uintptr_t first = reinterpret_cast<uintptr_t>(a);
    const uintptr_t second = reinterpret_cast<uintptr_t>(b);
    return first < second + bSize && second < first + aSize;
}

} // namespace Nls
} // namespace Utils
} // namespace Tarsel

#endif
