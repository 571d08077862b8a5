#ifndef INFRA_TESTS_SUPPORT_NLSREFERENCE_H
#define INFRA_TESTS_SUPPORT_NLSREFERENCE_H

// The conversions of texts once more, as plain as they can be said: UTF-8 by walking the table of
// sequence lengths, texts one character after the other. For tests and fuzz targets.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "Utils/Nls.h"

namespace Tarsel
{
namespace TestSupport
{
namespace Reference
{

using Bytes = std::vector<uint8_t>;
using Units = std::vector<uint16_t>;

struct Row
{
    int64_t cmask, cval, shift, lmask, lval;
};

inline constexpr Row rows[] = {
    {0x80, 0x00, 0, 0x7F, 0},
    {0xE0, 0xC0, 6, 0x7FF, 0x80},
    {0xF0, 0xE0, 12, 0xFFFF, 0x800},
    {0xF8, 0xF0, 18, 0x1FFFFF, 0x10000},
    {0xFC, 0xF8, 24, 0x3FFFFFF, 0x200000},
    {0xFE, 0xFC, 30, 0x7FFFFFFF, 0x4000000},
};

/// The length of the sequence at `at`, -1 when there is none.
inline int decodeOne(const Bytes& text, size_t at, uint16_t& unit)
{
    const int64_t first = text[at];
    int64_t value = first;
    size_t tried = 0;
    for (const Row& row : rows) {
        ++tried;
        if ((first & row.cmask) == row.cval) {
            value &= row.lmask;
            unit = static_cast<uint16_t>(value);
            return value < row.lval ? -1 : static_cast<int>(tried);
        }
        if (text.size() - at <= tried || (text[at + tried] & 0xC0) != 0x80) {
            return -1;
        }
        value = value << 6 | (text[at + tried] & 0x3F);
    }
    return -1;
}

inline Units decode(const Bytes& text)
{
    Units units;
    for (size_t at = 0; at < text.size() && text[at] != 0;) {
        uint16_t unit = 0;
        const int length = decodeOne(text, at, unit);
        if (length > 0) {
            units.push_back(unit);
        }
        at += length > 0 ? static_cast<size_t>(length) : 1;
    }
    return units;
}

/// A value below 0x80000000.
inline Bytes encodeOne(uint32_t value)
{
    const Row* row = rows;
    while (value > row->lmask) {
        ++row;
    }
    Bytes bytes = {static_cast<uint8_t>(row->cval | value >> row->shift)};
    for (int64_t shift = row->shift; shift > 0;) {
        shift -= 6;
        bytes.push_back(static_cast<uint8_t>(0x80 | (value >> shift & 0x3F)));
    }
    return bytes;
}

/// `units` up to its end or a 0.
inline Bytes encode(const Units& units, size_t room)
{
    Bytes text;
    for (size_t at = 0; at < units.size() && units[at] != 0 && room > 0; ++at) {
        const Bytes bytes = encodeOne(units[at]);
        if (bytes.size() <= room) {
            text.insert(text.end(), bytes.begin(), bytes.end());
            room -= bytes.size();
        } else {
            --room;
        }
    }
    return text;
}

/// What utf8_mbstowcs() does of `size` bytes at `from` of some memory, its units at `to` of the same.
inline int decodeWithin(Bytes& memory, size_t from, size_t size, size_t to)
{
    const size_t end = from + size;
    int count = 0;
    while (from < end && memory[from] != 0) {
        uint16_t unit = 0;
        const uint8_t* const first = memory.data() + from;
        const int length =
            decodeOne(Bytes(first, first + std::min<size_t>(end - from, 6)), 0, unit);
        if (length > 0) {
            memory[to++] = static_cast<uint8_t>(unit);
            memory[to++] = static_cast<uint8_t>(unit >> 8);
            ++count;
        }
        from += length > 0 ? static_cast<size_t>(length) : 1;
    }
    return count;
}

/// What utf8_wcstombs() does of the units at `from` of some memory, its bytes at `to` of the same.
inline int encodeWithin(Bytes& memory, size_t from, size_t room, size_t to)
{
    const size_t first = to;
    for (; room > 0 && (memory[from] != 0 || memory[from + 1] != 0); from += 2) {
        const Bytes bytes = encodeOne(memory[from] | memory[from + 1] << 8);
        if (bytes.size() > room) {
            --room;
            continue;
        }
        std::copy(bytes.begin(), bytes.end(), memory.begin() + static_cast<ptrdiff_t>(to));
        to += bytes.size();
        room -= bytes.size();
    }
    return static_cast<int>(to - first);
}

struct CodePage
{
    const char* name;
    int (*uni2char)(uint16_t uni, uint8_t* out, int boundlen);
    Utils::char2uni_t* char2uni;
    int (*to_utf8)(uint8_t* dst, int& dstLen, const uint8_t* src, int& srcLen);
};

#define INFRA_TEST_CODE_PAGE(P) {#P, Utils::P##_uni2char, Utils::P##_char2uni, Utils::P##_to_utf8},
inline constexpr CodePage codePages[] = {INFRA_NLS_CODE_PAGES(INFRA_TEST_CODE_PAGE)};
#undef INFRA_TEST_CODE_PAGE

struct Recoded
{
    Bytes text;
    size_t used;
};

/// What char_to_utf8() does of `size` bytes at `from` of some memory, its text at `to` of the same.
inline Recoded toUtf8Within(const CodePage& page, Bytes& memory, size_t from, size_t size,
                            size_t room, size_t to)
{
    Recoded result = {{}, 0};
    for (; result.used < size; ++result.used) {
        uint16_t unit = 0;
        if (page.char2uni(&memory[from + result.used], 1, &unit) != 1) {
            continue;
        }
        const Bytes bytes = encodeOne(unit);
        if (bytes.size() > room - result.text.size()) {
            break;
        }
        std::copy(bytes.begin(), bytes.end(),
                  memory.begin() + static_cast<ptrdiff_t>(to + result.text.size()));
        result.text.insert(result.text.end(), bytes.begin(), bytes.end());
    }
    return result;
}

inline Recoded toUtf8(const CodePage& page, Bytes source, size_t room)
{
    const size_t size = source.size();
    source.resize(size + room);
    return toUtf8Within(page, source, 0, size, room, size);
}

/// What utf8_to_cp1252() does of `size` bytes at `from` of some memory, its bytes at `to` of the same.
inline int toCp1252Within(Bytes& memory, size_t from, size_t size, size_t room, size_t to)
{
    const size_t end = from + size;
    const size_t first = to;
    while (from < end && to - first < room) {
        const int announced = Utils::get_utf8_size(memory[from]);
        const size_t length = announced == 0 ? 1 : static_cast<size_t>(announced);
        const auto isTrail = [](uint8_t byte) { return (byte & 0xC0) == 0x80; };
        if (announced < 0 || length > end - from ||
            !std::all_of(&memory[from] + 1, &memory[from] + length, isTrail)) {
            break;
        }
        uint8_t byte = 0;
        if (Utils::utf8_to_cp1252(&memory[from], static_cast<int>(length), &byte, 1) == 1) {
            memory[to++] = byte;
        }
        from += length;
    }
    return static_cast<int>(to - first);
}

/// What Gb2312ToUni() does of a text without NUL.
inline Units decodeGb(const Bytes& text, size_t limit)
{
    Units units;
    for (size_t at = 0; at < text.size() && units.size() < limit;) {
        uint16_t unit = 0;
        const int length =
            Utils::char2uni(text.data() + at, static_cast<int>(text.size() - at), &unit);
        if (length > 0) {
            units.push_back(unit);
            at += static_cast<size_t>(length);
        } else {
            at += text[at + 1] < 0x80 ? 1 : 2;
        }
    }
    return units;
}

struct GbText
{
    Bytes bytes; ///< all of the target
    int result;
};

/// What UniTGb2312() does.
inline GbText encodeGb(const Units& units, size_t room)
{
    GbText text = {Bytes(room, 0), 0};
    size_t at = 0;
    for (const uint16_t unit : units) {
        uint8_t bytes[2];
        if (unit == 0) {
            break;
        }
        const int length = Utils::uni2char(unit, bytes, 2);
        if (length < 0) {
            text.result = -1;
            break;
        }
        const size_t size = static_cast<size_t>(length);
        if (at + size + 1 > room) {
            break;
        }
        for (size_t i = 0; i < size; ++i) {
            text.bytes[at++] = bytes[i];
        }
        ++text.result;
    }
    return text;
}

} // namespace Reference
} // namespace TestSupport
} // namespace Tarsel

#endif
