// Cp936.cpp: the double-byte Chinese code page 936, under names that say GB2312.
//
// A byte from 81 to FE leads a pair, whose second byte may be ASCII. Both ways are one look-up in a
// flat table, which the compiler makes of the generated one.
//
// Two peculiarities stay as callers know them. U+0080 to U+00FF become one byte of their value, also
// the twenty that have pairs (such as U+00B7), and such a byte may lead a pair when it is read again.
// The euro sign is read from the single byte 80 but cannot be written: there is no pair for it, and
// what is above U+00FF is written in pairs only.
//
// Texts between UTF-8 and the code page go through units in blocks on the stack.

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "Utils/Nls.h"
#include "Utils/Nls/CodePage.h"
#include "Utils/Nls/Scratch.h"
#include "Utils/Nls/Tables/Cp936.h"

namespace Tarsel
{
namespace Utils
{
namespace Nls
{
namespace
{

constexpr uint8_t firstLead = 0x81;
constexpr uint8_t lastLead = 0xFE;
constexpr uint8_t firstTrail = 0x40;

constexpr bool isLead(uint8_t byte)
{
    return byte >= firstLead && byte <= lastLead;
}

/// The units of pairs by both bytes, a row for each lead byte; 0 where there is no character.
constexpr unsigned rowLength = 256;
constexpr unsigned pairCount = (lastLead - firstLead + 1) * rowLength;

constexpr std::array<uint16_t, pairCount> page_charset2uni = [] {
    std::array<uint16_t, pairCount> units = {};
    for (unsigned row = 0; row < std::size(cp936_charset2uni); ++row) {
        const auto& trails = cp936_charset2uni[row];
        std::copy(std::begin(trails), std::end(trails),
                  units.begin() + row * rowLength + firstTrail);
    }
    return units;
}();

/// The place of a pair in there; beyond its end when the first byte leads none.
unsigned placeOfPair(const uint8_t* pair)
{
    const unsigned both = static_cast<unsigned>(pair[0]) << 8 | pair[1];
    return both - firstLead * rowLength;
}

/// The bytes of a unit, the first one lowest; 0 where it has none, above 0xFF where they are two. It
/// has a place for every unit, because a second level costs more than the memory that nobody touches.
constexpr std::array<uint16_t, 0x10000> bytesOf = [] {
    std::array<uint16_t, 0x10000> bytes = {};
    for (uint16_t byte = 0; byte < 0x100; ++byte) {
        bytes[byte] = byte;
    }
    for (unsigned lead = firstLead; lead <= lastLead; ++lead) {
        for (unsigned trail = firstTrail; trail < rowLength; ++trail) {
            const uint16_t unit = page_charset2uni[(lead - firstLead) * rowLength + trail];
            if (unit > 0xFF) {
                bytes[unit] = static_cast<uint16_t>(lead | trail << 8);
            }
        }
    }
    return bytes;
}();

/// Decodes a byte that makes no pair with what follows.
inline void decodeOther(Decoding& at, const uint8_t* end)
{
    const uint8_t byte = *at.in++;
    if (!isLead(byte) || at.in == end) {
        storeUnit(at.out++, cp936_ansi2uni[byte]);
    } else if (*at.in >= 0x80) {
        // Two bytes that are no character are dropped; one that is ASCII stays, lest a damaged
        // character takes a quote or a slash with it.
        ++at.in;
    }
}

/// Decodes up to `end`, or until the units reach `outEnd`.
void decodePairs(Decoding& place, const uint8_t* end, const uint16_t* outEnd)
{
    Decoding at = place;
    while (at.in < end && at.out < outEnd) {
        // For so many steps there are two bytes to look at, and room for a unit.
        ptrdiff_t safe = std::min((end - at.in) / 2, outEnd - at.out);
        if (safe == 0) {
            decodeOther(at, end);
        }
        for (; safe > 0; --safe) {
            const unsigned pair = placeOfPair(at.in);
            const uint16_t unit = pair < pairCount ? page_charset2uni[pair] : uint16_t{0};
            if (unit != 0) {
                storeUnit(at.out++, unit);
                at.in += 2;
            } else {
                decodeOther(at, end);
            }
        }
    }
    place = at;
}

enum class Outcome
{
    converted,
    ended, ///< by a unit 0
    full,
    unmappable
};

/// Encodes one unit, if it has bytes and room.
Outcome encodeLast(Encoding& at)
{
    const uint16_t unit = loadUnit(at.in);
    const uint16_t bytes = bytesOf[unit];
    const size_t length = bytes > 0xFF ? 2 : 1;
    if (bytes == 0) {
        return unit == 0 ? Outcome::ended : Outcome::unmappable;
    }
    if (at.room < length + 1) {
        return Outcome::full;
    }
    memcpy(at.out, &bytes, length);
    ++at.in;
    at.pass(length);
    return Outcome::converted;
}

/// Encodes the units up to `end`. The target holds zeros: two bytes are stored for each unit.
Outcome encodePairs(Encoding& place, const uint16_t* end)
{
    Encoding at = place;
    Outcome outcome = Outcome::converted;
    while (at.in < end && outcome == Outcome::converted) {
        // For so many steps there is room for two bytes and the NUL.
        const size_t fitting = at.room == 0 ? 0 : (at.room - 1) / 2;
        const uint16_t* const safe = at.in + std::min(static_cast<size_t>(end - at.in), fitting);
        uint8_t* out = at.out;
        uint16_t bytes = 1;
        for (; at.in < safe && (bytes = bytesOf[loadUnit(at.in)]) != 0; ++at.in) {
            memcpy(out, &bytes, sizeof(bytes));
            out += bytes > 0xFF ? 2 : 1;
        }
        at.pass(static_cast<size_t>(out - at.out));
        if (fitting == 0 || bytes == 0) {
            outcome = encodeLast(at);
        }
    }
    place = at;
    return outcome;
}

constexpr size_t blockUnits = 2048;

/// UTF-8 of `size` bytes without NUL to a target that is all zeros; returns what UniTGb2312() returns
/// for its units.
int encodeUtf8(char* out, size_t room, const uint8_t* utf8, size_t size)
{
    const Utf8Engine& engine = utf8Engine();
    const uint8_t* const end = utf8 + size;
    uint16_t units[blockUnits];
    Decoding from = {utf8, units};
    Encoding to = {{reinterpret_cast<uint8_t*>(out), room}, units};
    int converted = 0;
    Outcome outcome = Outcome::converted;
    while (from.in < end && outcome == Outcome::converted) {
        const size_t taken = std::min(static_cast<size_t>(end - from.in), blockUnits);
        from.out = units;
        engine.decode(from, from.in + taken, end);
        to.in = units;
        outcome = encodePairs(to, from.out);
        converted += static_cast<int>(to.in - units);
    }
    return outcome == Outcome::unmappable ? -1 : converted;
}

} // namespace
} // namespace Nls

int uni2char(uint16_t uni, uint8_t* out, int boundlen)
{
    if (out == nullptr || boundlen < 1) {
        return -1;
    }
    const uint16_t bytes = Nls::bytesOf[uni];
    if (!Nls::cp936_hasPairs[uni >> 8]) {
        if (bytes == 0) {
            return -1;
        }
        *out = static_cast<uint8_t>(bytes);
        return 1;
    }
    if (boundlen < 2) {
        return -1;
    }
    memcpy(out, &bytes, sizeof(bytes));
    return bytes != 0 ? 2 : -1;
}

int char2uni(const uint8_t* rawstring, int boundlen, uint16_t* uni)
{
    if (rawstring == nullptr || uni == nullptr || boundlen < 1) {
        return -1;
    }
    const uint8_t first = rawstring[0];
    if (boundlen == 1 || !Nls::isLead(first) || rawstring[1] == 0) {
        *uni = Nls::cp936_ansi2uni[first];
        return 1;
    }
    *uni = Nls::page_charset2uni[Nls::placeOfPair(rawstring)];
    return *uni != 0 ? 2 : -1;
}

int UniTGb2312(unsigned short* pUnicode, int nUnicLen, char* pStr, int nStrLen)
{
    if (pUnicode == nullptr || pStr == nullptr || nUnicLen < 0 || nStrLen < 0) {
        return -1;
    }
    const size_t room = static_cast<size_t>(nStrLen);
    memset(pStr, 0, room);
    Nls::Encoding at = {{reinterpret_cast<uint8_t*>(pStr), room}, pUnicode};
    const Nls::Outcome outcome = Nls::encodePairs(at, pUnicode + nUnicLen);
    return outcome == Nls::Outcome::unmappable ? -1 : static_cast<int>(at.in - pUnicode);
}

int Gb2312ToUni(char* pSource, unsigned short* pTag, int nLenTag)
{
    if (pSource == nullptr || pTag == nullptr || nLenTag < 0) {
        return 0;
    }
    const size_t limit = static_cast<size_t>(nLenTag);
    memset(pTag, 0, limit * sizeof(uint16_t));
    const uint8_t* const source = reinterpret_cast<const uint8_t*>(pSource);
    Nls::Decoding at = {source, pTag};
    Nls::decodePairs(at, source + strlen(pSource), pTag + limit);
    return static_cast<int>(at.out - pTag);
}

int utf8TGb2312(uint8_t* putf8, char* pStr, int nUtf8Len, int nStrLen)
{
    if (putf8 == nullptr || pStr == nullptr || nUtf8Len <= 0 || nStrLen < 0 || *putf8 == 0) {
        return 0;
    }
    const size_t room = static_cast<size_t>(nStrLen);
    const size_t size =
        strnlen(reinterpret_cast<const char*>(putf8), static_cast<size_t>(nUtf8Len));
    if (!Nls::areOverlapping(pStr, room, putf8, size)) {
        memset(pStr, 0, room);
        return Nls::encodeUtf8(pStr, room, putf8, size);
    }
    const Nls::CScratchCopy source(putf8, size);
    if (source.data() == nullptr) {
        return 0;
    }
    memset(pStr, 0, room);
    return Nls::encodeUtf8(pStr, room, source.data(), size);
}

int Gb2312TUtf8(char* pSource, uint8_t* pUtf8, int nUtf8Len)
{
    if (pSource == nullptr || pUtf8 == nullptr || *pSource == '\0' || nUtf8Len < 0) {
        return 0;
    }
    const size_t room = static_cast<size_t>(nUtf8Len);
    memset(pUtf8, 0, room);
    const Nls::Utf8Engine& engine = Nls::utf8Engine();
    uint16_t units[Nls::blockUnits];
    Nls::Decoding from = {reinterpret_cast<const uint8_t*>(pSource), units};
    Nls::Encoding to = {{pUtf8, room}, units};
    const uint8_t* const end = from.in + strlen(pSource);
    while (from.in < end && to.room > 0) {
        from.out = units;
        Nls::decodePairs(from, end, units + Nls::blockUnits);
        to.in = units;
        engine.encode(to, from.out);
    }
    return static_cast<int>(to.out - pUtf8);
}

} // namespace Utils
} // namespace Tarsel
