// Cp936.cpp: the double-byte Chinese code page 936, under names that say GB2312.
//
// A byte from 81 to FE leads a pair, whose second byte may be ASCII. The table of pairs is one flat
// array; the way back has two levels, and is made of it by the compiler.
//
// Two peculiarities stay as callers know them. U+0080 to U+00FF become one byte of their value, also
// the twenty that have pairs (such as U+00B7), and such a byte may lead a pair when it is read again.
// The euro sign is read from the single byte 80 but cannot be written: there is no pair for it, and
// its page of the table holds pairs only.
//
// Texts between UTF-8 and the code page go through units in blocks on the stack.

#include <array>
#include <cstring>

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
constexpr uint8_t lastTrail = 0xFE;

constexpr bool isLead(uint8_t byte)
{
    return byte >= firstLead && byte <= lastLead;
}

/// The unit of a pair that begins with a lead byte; 0 where it has no character.
constexpr uint16_t unitOfPair(uint8_t lead, uint8_t trail)
{
    return trail >= firstTrail && trail <= lastTrail
               ? cp936_charset2uni[lead - firstLead][trail - firstTrail]
               : uint16_t{0};
}

/// The unit of a byte by itself.
constexpr uint16_t unitOfByte(uint8_t byte)
{
    return byte == 0x80 ? uint16_t{0x20AC} : byte;
}

/// The bytes of a unit, the first one lowest; 0 where it has none, above 0xFF where they are two.
using Page = std::array<uint16_t, 256>;

enum : uint8_t
{
    noPage,    ///< of zeros
    bytesPage, ///< of the units 0 to 0xFF, which are bytes
    firstPairsPage
};

/// Units of these high bytes have pairs or nothing.
constexpr bool hasPairsPage(unsigned high)
{
    return (high >= 0x01 && high <= 0x04) || (high >= 0x20 && high <= 0x26) ||
           (high >= 0x30 && high <= 0x33) || (high >= 0x4E && high <= 0x9F) || high == 0xDC ||
           high == 0xF9 || high == 0xFA || high == 0xFE || high == 0xFF;
}

constexpr std::array<uint8_t, 256> pageOf = [] {
    std::array<uint8_t, 256> numbers = {bytesPage};
    uint8_t next = firstPairsPage;
    for (unsigned high = 1; high < 256; ++high) {
        numbers[high] = hasPairsPage(high) ? next++ : uint8_t{noPage};
    }
    return numbers;
}();

constexpr size_t pageCount = firstPairsPage + 102;
static_assert(pageOf[0xFF] + size_t{1} == pageCount);

constexpr std::array<Page, pageCount> page_uni2charset = [] {
    std::array<Page, pageCount> pages = {};
    for (uint16_t byte = 0; byte < 256; ++byte) {
        pages[bytesPage][byte] = byte;
    }
    for (unsigned lead = firstLead; lead <= lastLead; ++lead) {
        for (unsigned trail = firstTrail; trail <= lastTrail; ++trail) {
            const uint16_t unit = cp936_charset2uni[lead - firstLead][trail - firstTrail];
            if (unit > 0xFF) {
                pages[pageOf[unit >> 8]][unit & 0xFF] = static_cast<uint16_t>(lead | trail << 8);
            }
        }
    }
    return pages;
}();

uint16_t bytesOf(uint16_t unit)
{
    return page_uni2charset[pageOf[unit >> 8]][unit & 0xFF];
}

/// Decodes until `end` or until there are `outEnd` - at.out units.
void decodePairs(Decoding& at, const uint8_t* end, const uint16_t* outEnd)
{
    while (at.in < end && at.out < outEnd) {
        const uint8_t byte = *at.in++;
        if (byte < 0x80) {
            *at.out++ = byte;
        } else if (!isLead(byte) || at.in == end) {
            *at.out++ = unitOfByte(byte);
        } else {
            const uint8_t trail = *at.in;
            const uint16_t unit = unitOfPair(byte, trail);
            *at.out = unit;
            at.out += unit != 0 ? 1 : 0;
            // A second byte that makes no pair is dropped with the lead, unless it is ASCII, lest a
            // damaged character takes a quote or a slash with it.
            at.in += unit != 0 || trail >= 0x80 ? 1 : 0;
        }
    }
}

enum class Outcome
{
    converted,
    ended, ///< by a unit 0
    full,
    unmappable
};

/// Encodes the units up to `end`. The target holds zeros: two bytes are stored for each unit.
Outcome encodePairs(Encoding& at, const uint16_t* end)
{
    for (; at.in < end; ++at.in) {
        const uint16_t bytes = bytesOf(*at.in);
        if (bytes == 0) {
            return *at.in == 0 ? Outcome::ended : Outcome::unmappable;
        }
        const size_t length = bytes > 0xFF ? 2 : 1;
        if (at.room < length + 1) {
            return Outcome::full;
        }
        memcpy(at.out, &bytes, sizeof(bytes));
        at.out += length;
        at.room -= length;
    }
    return Outcome::converted;
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
    Encoding to = {units, reinterpret_cast<uint8_t*>(out), room};
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
    const uint16_t bytes = Nls::bytesOf(uni);
    if (Nls::pageOf[uni >> 8] < Nls::firstPairsPage) {
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
        *uni = Nls::unitOfByte(first);
        return 1;
    }
    *uni = Nls::unitOfPair(first, rawstring[1]);
    return *uni != 0 ? 2 : -1;
}

int UniTGb2312(unsigned short* pUnicode, int nUnicLen, char* pStr, int nStrLen)
{
    if (pUnicode == nullptr || pStr == nullptr || nUnicLen < 0 || nStrLen < 0) {
        return -1;
    }
    const size_t room = static_cast<size_t>(nStrLen);
    memset(pStr, 0, room);
    Nls::Encoding at = {pUnicode, reinterpret_cast<uint8_t*>(pStr), room};
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
    Nls::Encoding to = {units, pUtf8, room};
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
