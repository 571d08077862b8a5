// Texts between code pages and UTF-8: written cases, then random texts beside one character after the
// other, on every kind of processor, in memory that ends where text or room do.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "Support/Bytes.h"
#include "Support/CpuLevels.h"
#include "Support/FailingHeap.h"
#include "Support/NlsReference.h"

namespace
{

using namespace Tarsel::TestSupport;
using namespace Tarsel::Utils;
using Reference::codePages;
using Reference::Units;

constexpr uint8_t untouched = 0xEE;

int sizeOf(const Bytes& bytes)
{
    return static_cast<int>(bytes.size());
}

/// Bytes of which some stretches are ASCII, others not, and some hold anything.
Bytes randomBytes(CRandom& random, size_t size)
{
    Bytes bytes;
    while (bytes.size() < size) {
        const size_t style = random.below(3);
        for (size_t left = 1 + random.below(70); left > 0; --left) {
            const uint8_t byte = static_cast<uint8_t>(random.below(256));
            bytes.push_back(style == 0 ? byte & 0x7F : style == 1 ? byte | 0x80 : byte);
        }
    }
    bytes.resize(size);
    return bytes;
}

TEST(NlsWindows1252Test, ConvertsToUtf8AllOrNothing)
{
    const struct
    {
        Bytes source;
        int room;
        int result;
        Bytes text;
    } cases[] = {
        {{0x41, 0x80, 0x42}, 5, 0, {0x41, 0xE2, 0x82, 0xAC, 0x42}},
        {{0x41, 0x80, 0x42}, 4, 5, {}},
        {{0x41, 0x80, 0x42}, 0, 5, {}},
        {{0x41, 0x80, 0x42}, -1, 5, {}},
        {{0x41, 0x81, 0x42}, 3, 0, {0x41, 0x00, 0x00}},
        {{0x9D}, 1, 0, {0x00}},
        {{0x00, 0xFF, 0x90, 0x80}, 5, 0, {0x00, 0xC3, 0xBF, 0x00, 0x00}},
    };
    for (const auto& c : cases) {
        Bytes text(8, untouched);
        Bytes expected = c.text;
        expected.resize(text.size(), untouched);
        EXPECT_EQ(cp1252_to_utf8(text.data(), c.room, c.source.data(), sizeOf(c.source)), c.result);
        EXPECT_EQ(text, expected);
    }
    uint8_t byte = 'A';
    EXPECT_EQ(cp1252_to_utf8(&byte, 1, nullptr, 1), -1);
    EXPECT_EQ(cp1252_to_utf8(&byte, 1, &byte, 0), -1);
    EXPECT_EQ(cp1252_to_utf8(&byte, 1, &byte, -1), -1);
    EXPECT_EQ(cp1252_to_utf8(nullptr, 1, &byte, 1), 1);
}

TEST(NlsWindows1252Test, ConvertsFromUtf8UntilItCannot)
{
    const struct
    {
        Bytes text;
        int room;
        Bytes bytes;
    } cases[] = {
        {{0xE2, 0x82, 0xAC}, 4, {0x80}},
        {{0xC3, 0xBF}, 4, {0xFF}},
        {{0xC2, 0x81, 0x00, 0x41}, 4, {0x81, 0x00, 0x41}},
        {{0xC2, 0x80, 0x41}, 4, {0x41}}, // U+0080 has no byte
        {{0xE4, 0xB8, 0x82, 0xF0, 0x9F, 0x98, 0x80, 0x41}, 4, {0x41}},
        {{0xC1, 0x81, 0xE0, 0x83, 0xBF, 0xC0, 0x80}, 4, {0x41, 0xFF, 0x00}}, // over-long
        {{0xFE, 0x80, 0x80, 0x80, 0x81, 0x81}, 4, {0x41}}, // FE announces six as well
        {{0xFF, 0x80, 0x80, 0x80, 0x81, 0x81, 0x42}, 4, {0x42}},
        {{0x41, 0x80, 0x42}, 4, {0x41}},
        {{0x41, 0xC3, 0x42}, 4, {0x41}},
        {{0x41, 0xE2, 0x82}, 4, {0x41}},
        {{0x41, 0x42, 0x43}, 2, {0x41, 0x42}},
        {{0x41}, 0, {}},
        {{0x41}, -1, {}},
    };
    for (const auto& c : cases) {
        Bytes bytes(4, untouched);
        Bytes expected = c.bytes;
        expected.resize(bytes.size(), untouched);
        EXPECT_EQ(utf8_to_cp1252(c.text.data(), sizeOf(c.text), bytes.data(), c.room),
                  sizeOf(c.bytes))
            << toHex(c.text);
        EXPECT_EQ(bytes, expected) << toHex(c.text);
    }
    uint8_t byte = 'A';
    EXPECT_EQ(utf8_to_cp1252(nullptr, 1, &byte, 1), 0);
    EXPECT_EQ(utf8_to_cp1252(&byte, 1, nullptr, 1), 0);
    EXPECT_EQ(utf8_to_cp1252(&byte, -1, &byte, 1), 0);
}

/// The bytes of a text of Windows-1252, one after the other.
Bytes encodeSlowly(const Bytes& source)
{
    Bytes text;
    for (size_t at = 0; at < source.size(); ++at) {
        uint8_t bytes[3];
        const int size = cp1252_to_utf8(nullptr, 0, &source[at], 1);
        cp1252_to_utf8(bytes, 3, &source[at], 1);
        if (size == 1 && bytes[0] != source[at]) { // undefined
            text.resize(text.size() + source.size() - at, 0);
            break;
        }
        text.insert(text.end(), bytes, bytes + size);
    }
    return text;
}

TEST(NlsWindows1252Test, ConvertsTextsAsItConvertsCharacters)
{
    CRandom random;
    const CGuardedBytes in(8192);
    const CGuardedBytes out(16384);
    for (int round = 0; round < 1000; ++round) {
        Bytes source = randomBytes(random, 1 + random.below(round % 20 == 0 ? 2000 : 200));
        if (random.below(4) != 0) {
            for (uint8_t& byte : source) {
                const bool isUndefined = cp1252_to_utf8(nullptr, 0, &byte, 1) == 1 && byte >= 0x80;
                byte = isUndefined ? 0x80 : byte;
            }
        }
        const Bytes expected = encodeSlowly(source);
        const int cut = static_cast<int>(random.below(expected.size()));
        const Bytes back(source.begin(), source.begin() + std::min(cut, sizeOf(source)));
        Bytes memory = expected;
        memory.resize(2 * memory.size() + 40);
        const size_t ahead = random.below(40);
        Bytes overlapped = memory;
        const int ended = Reference::toCp1252Within(overlapped, 0, expected.size(), 2000, ahead);
        for (const size_t level : textLevels) {
            const Tarsel::Infra::CHiddenCpuFeatures hidden(cpuLevels[level].lacks);
            uint8_t* const text = out.end() - expected.size();
            ASSERT_EQ(
                cp1252_to_utf8(text, sizeOf(expected) - 1, in.putLast(source), sizeOf(source)),
                sizeOf(expected));
            ASSERT_EQ(cp1252_to_utf8(text, sizeOf(expected), in.putLast(source), sizeOf(source)),
                      0);
            ASSERT_EQ(Bytes(text, out.end()), expected) << toHex(source);

            uint8_t* const bytes = in.end() - cut;
            const int written = utf8_to_cp1252(text, sizeOf(expected), bytes, cut);
            ASSERT_LE(written, cut);
            if (std::find(expected.begin(), expected.end(), 0) == expected.end()) {
                ASSERT_EQ(Bytes(bytes, bytes + written), back) << toHex(source);
            }
            // In place, both ways.
            Bytes place = source;
            place.resize(expected.size());
            ASSERT_EQ(cp1252_to_utf8(place.data(), sizeOf(place), place.data(), sizeOf(source)), 0);
            ASSERT_EQ(place, expected);
            const int shorter =
                utf8_to_cp1252(place.data(), sizeOf(place), place.data(), sizeOf(place));
            Bytes apart(expected.size());
            ASSERT_EQ(utf8_to_cp1252(text, sizeOf(expected), apart.data(), sizeOf(apart)), shorter);
            ASSERT_TRUE(std::equal(apart.begin(), apart.begin() + shorter, place.begin()));
            place = memory;
            ASSERT_EQ(utf8_to_cp1252(place.data(), sizeOf(expected), place.data() + ahead, 2000),
                      ended);
            ASSERT_EQ(place, overlapped) << toHex(expected) << " " << ahead;
        }
    }
}

/// A function that the library does not know, and that converts as ISO 8859-5 does.
int ownChar2uni(const uint8_t* rawstring, int boundlen, uint16_t* uni)
{
    return iso8859_5_char2uni(rawstring, boundlen, uni);
}

TEST(NlsSingleByteTest, ConvertsToUtf8UntilACharacterDoesNotFit)
{
    const struct
    {
        Bytes source;
        int room;
        Bytes text;
        int used;
    } cases[] = {
        // ISO 8859-5: D0 is U+0430, NUL is none
        {{'a', 0x00, 'b'}, 3, {'a', 'b'}, 3},
        {{0xD0, 0xD0, 'a'}, 5, {0xD0, 0xB0, 0xD0, 0xB0, 'a'}, 3},
        {{0xD0, 0xD0, 'a'}, 4, {0xD0, 0xB0, 0xD0, 0xB0}, 2},
        {{0xD0, 0xD0, 'a'}, 3, {0xD0, 0xB0}, 1},
        {{0xD0, 0x00, 0x00}, 3, {0xD0, 0xB0}, 3},
        {{'a', 0xD0, 0x00, 0x00}, 4, {'a', 0xD0, 0xB0}, 4},
        {{0xD0, 0x00}, 2, {0xD0, 0xB0}, 2}, // what has no character needs no room
        {{0xD0, 0x00, 'a', 0x00}, 4, {0xD0, 0xB0, 'a'}, 4},
    };
    for (const auto& c : cases) {
        for (char2uni_t* const func : {ownChar2uni, iso8859_5_char2uni}) {
            Bytes text(8, untouched);
            Bytes expected = c.text;
            expected.resize(text.size(), untouched);
            int dstLen = c.room;
            int srcLen = sizeOf(c.source);
            EXPECT_EQ(char_to_utf8(text.data(), dstLen, c.source.data(), srcLen, func), 0);
            EXPECT_EQ(text, expected) << toHex(c.source);
            EXPECT_EQ(dstLen, sizeOf(c.text)) << toHex(c.source);
            EXPECT_EQ(srcLen, c.used) << toHex(c.source);
        }
    }
    // Of what a function returns only that it is above 0 counts, and a unit 0 is a character.
    char2uni_t* const odd = [](const uint8_t* byte, int, uint16_t* unit) {
        *unit = *byte == 'n' ? 0 : *byte;
        return *byte - '1';
    };
    uint8_t text[4] = {};
    int dstLen = 4;
    int srcLen = 4;
    EXPECT_EQ(char_to_utf8(text, dstLen, reinterpret_cast<const uint8_t*>("1n03"), srcLen, odd), 0);
    EXPECT_EQ(Bytes(text, text + dstLen), Bytes({0, '3'}));
    EXPECT_EQ(srcLen, 4);
}

TEST(NlsSingleByteTest, RefusesWhatItCannotBeginWith)
{
    uint8_t text[4] = {untouched};
    const uint8_t source[] = "abc";
    uint16_t unit = 7;
    const struct
    {
        uint8_t* dst;
        int dstLen;
        const uint8_t* src;
        int srcLen;
        char2uni_t* func;
    } cases[] = {{nullptr, 4, source, 3, cp1250_char2uni},
                 {text, 4, nullptr, 3, cp1250_char2uni},
                 {text, 2, source, 3, cp1250_char2uni},
                 {text, 4, source, 0, cp1250_char2uni},
                 {text, 4, source, -1, cp1250_char2uni},
                 {text, -1, source, -1, cp1250_char2uni},
                 {text, 4, source, 3, nullptr}};
    for (const auto& c : cases) {
        int dstLen = c.dstLen;
        int srcLen = c.srcLen;
        EXPECT_EQ(char_to_utf8(c.dst, dstLen, c.src, srcLen, c.func), -1);
        EXPECT_EQ(dstLen, c.dstLen);
        EXPECT_EQ(srcLen, c.srcLen);
    }
    EXPECT_EQ(cp1250_char2uni(nullptr, 1, &unit), -1);
    EXPECT_EQ(cp1250_char2uni(source, 0, &unit), -1);
    EXPECT_EQ(cp1250_char2uni(source, 1, nullptr), -1);
    EXPECT_EQ(cp1250_uni2char('a', nullptr, 1), -1);
    EXPECT_EQ(cp1250_uni2char('a', text, 0), -1);
    EXPECT_EQ(unit, 7);
    EXPECT_EQ(text[0], untouched);
}

TEST(NlsSingleByteTest, ConvertsTextsOfEveryPageAsItConvertsCharacters)
{
    CRandom random;
    const CGuardedBytes in(4096);
    const CGuardedBytes out(16384);
    for (size_t round = 0; round < 60 * std::size(codePages); ++round) {
        const auto& page = codePages[round % std::size(codePages)];
        const Bytes source = randomBytes(random, 1 + random.below(700));
        const size_t room = source.size() + random.below(2 * source.size());
        const Reference::Recoded expected = Reference::toUtf8(page, source, room);
        const size_t at = 40;
        const size_t to = round % 2 == 0 ? at : random.below(2 * at);
        Bytes memory(2 * at + source.size() + room, 0);
        std::copy(source.begin(), source.end(), memory.begin() + at);
        Bytes overlapped = memory;
        const int used = static_cast<int>(
            Reference::toUtf8Within(page, overlapped, at, source.size(), room, to).used);
        for (const size_t level : {0, 4}) {
            const Tarsel::Infra::CHiddenCpuFeatures hidden(cpuLevels[level].lacks);
            uint8_t* const text = out.end() - room;
            std::fill(text, out.end(), untouched);
            int dstLen = static_cast<int>(room);
            int srcLen = sizeOf(source);
            ASSERT_EQ(page.to_utf8(text, dstLen, in.putLast(source), srcLen), 0);
            ASSERT_EQ(srcLen, static_cast<int>(expected.used)) << page.name;
            ASSERT_EQ(dstLen, sizeOf(expected.text)) << page.name;
            ASSERT_EQ(Bytes(text, text + dstLen), expected.text) << page.name;
            ASSERT_EQ(Bytes(text + dstLen, out.end()),
                      Bytes(room - expected.text.size(), untouched));
            Bytes place = memory;
            dstLen = static_cast<int>(room);
            srcLen = sizeOf(source);
            ASSERT_EQ(page.to_utf8(place.data() + to, dstLen, place.data() + at, srcLen), 0);
            ASSERT_EQ(srcLen, used) << page.name;
            ASSERT_EQ(place, overlapped) << page.name;
        }
    }
}

TEST(NlsCodePage936Test, TakesOneCharacterAtATime)
{
    const struct
    {
        Bytes bytes;
        int bound;
        int used;
        uint16_t unit;
    } cases[] = {
        {{0x81, 0x40}, 2, 2, 0x4E02}, {{0xB0, 0xA1}, 2, 2, 0x554A}, {{0x80, 0x40}, 2, 1, 0x20AC},
        {{0x80, 0x40}, 1, 1, 0x20AC}, {{0xB0, 0xA1}, 1, 1, 0xB0},   {{0xB0, 0x00}, 2, 1, 0xB0},
        {{0x41, 0x42}, 2, 1, 0x41},   {{0xFF, 0xA1}, 2, 1, 0xFF},   {{0x00, 0xA1}, 2, 1, 0},
        {{0x81, 0x7F}, 2, -1, 0},     {{0x81, 0xFF}, 2, -1, 0},     {{0x81, 0x3F}, 2, -1, 0},
        {{0xB0, 0xA1}, 0, -1, 7},     {{0xB0, 0xA1}, -1, -1, 7},
    };
    for (const auto& c : cases) {
        uint16_t unit = 7;
        EXPECT_EQ(char2uni(c.bytes.data(), c.bound, &unit), c.used) << toHex(c.bytes);
        EXPECT_EQ(unit, c.unit) << toHex(c.bytes);
    }
    uint8_t bytes[2] = {untouched, untouched};
    uint16_t unit = 7;
    EXPECT_EQ(char2uni(nullptr, 2, &unit), -1);
    EXPECT_EQ(char2uni(bytes, 2, nullptr), -1);
    EXPECT_EQ(uni2char('a', nullptr, 2), -1);
    EXPECT_EQ(uni2char('a', bytes, 0), -1);
    EXPECT_EQ(uni2char(0x3500, bytes, 2), -1);
    EXPECT_EQ(bytes[0], untouched);
    EXPECT_EQ(uni2char(0xDC00, bytes, 2), -1); // of a page that has no character at all
    EXPECT_EQ(bytes[0], 0);
}

TEST(NlsCodePage936Test, ConvertsUnitsAndKeepsANulBehindThem)
{
    const struct
    {
        Units units;
        int room;
        int result;
        Bytes bytes;
    } cases[] = {
        {{'a', 0x554A, 'b'}, 5, 3, {'a', 0xB0, 0xA1, 'b', 0}},
        {{'a', 0x554A, 'b'}, 4, 2, {'a', 0xB0, 0xA1, 0}},
        {{'a', 0x554A, 'b'}, 3, 1, {'a', 0, 0}},
        {{'a', 0x554A, 'b'}, 1, 0, {0}},
        {{'a', 0x554A, 'b'}, 0, 0, {}},
        {{'a', 0, 'b'}, 5, 1, {'a', 0, 0, 0, 0}},
        {{'a', 0x20AC, 'b'}, 5, -1, {'a', 0, 0, 0, 0}},
        {{0x3500}, 0, -1, {}},
        {{0xB7, 'b'}, 5, 2, {0xB7, 'b', 0, 0, 0}},
        {{}, 3, 0, {0, 0, 0}},
    };
    for (const auto& c : cases) {
        Units units = c.units;
        char bytes[8];
        memset(bytes, untouched, sizeof(bytes));
        Bytes expected = c.bytes;
        expected.resize(sizeof(bytes), untouched);
        units.push_back(7); // behind the count
        EXPECT_EQ(UniTGb2312(units.data(), static_cast<int>(c.units.size()), bytes, c.room),
                  c.result);
        EXPECT_EQ(Bytes(bytes, bytes + sizeof(bytes)), expected);
    }
}

TEST(NlsCodePage936Test, ReadsTextsThatAreDamaged)
{
    const struct
    {
        const char* text;
        Units units;
    } cases[] = {
        {"", {}},
        {"a\xB0\xA1z", {'a', 0x554A, 'z'}},
        {"a\xB0", {'a', 0xB0}},
        {"\x80\xFF", {0x20AC, 0xFF}},
        {"a\xFE\xFFz", {'a', 'z'}},    // no pair, dropped whole
        {"a\xA9\"z", {'a', '"', 'z'}}, // an ASCII byte that makes no pair stays
        {"\x81\x7F\x81\x40", {0x7F, 0x4E02}},
    };
    for (const auto& c : cases) {
        std::string text = c.text;
        const size_t count = c.units.size();
        for (size_t limit = 0; limit <= count + 2; ++limit) {
            Units units(count + 3, 7);
            Units expected(c.units.data(), c.units.data() + std::min(limit, count));
            const int result = static_cast<int>(expected.size());
            expected.resize(limit, 0);
            expected.resize(units.size(), 7);
            EXPECT_EQ(Gb2312ToUni(text.data(), units.data(), static_cast<int>(limit)), result);
            EXPECT_EQ(units, expected) << toHex(ofText(text)) << " " << limit;
        }
    }
}

/// A text in UTF-8 of characters that code page 936 has; sometimes one that it has not.
Bytes randomChinese(CRandom& random, size_t count)
{
    Units units;
    while (units.size() < count) {
        const uint8_t pair[] = {static_cast<uint8_t>(0xB0 + random.below(0x40)),
                                static_cast<uint8_t>(0xA1 + random.below(0x5E))};
        uint16_t unit = static_cast<uint16_t>(1 + random.below(0x7F));
        if (random.below(3) != 0) {
            char2uni(pair, 2, &unit);
        }
        units.push_back(unit);
    }
    if (random.below(4) == 0) {
        units[random.below(count)] = static_cast<uint16_t>(random.below(0x10000));
    }
    return Reference::encode(units, SIZE_MAX);
}

TEST(NlsCodePage936Test, ConvertsTextsAsItConvertsCharacters)
{
    CRandom random;
    const CGuardedBytes in(20000);
    const CGuardedBytes out(20000);
    for (int round = 0; round < 600; ++round) {
        const size_t count = 1 + random.below(round % 20 == 0 ? 5000 : 150);
        Bytes utf8 = randomChinese(random, count);
        Bytes gb = randomBytes(random, count);
        std::replace(gb.begin(), gb.end(), uint8_t{0}, uint8_t{' '});
        const Units units = Reference::decodeGb(gb, SIZE_MAX);
        gb.push_back(0);
        const size_t room = random.below(3 * count);
        const Reference::GbText toGb = Reference::encodeGb(Reference::decode(utf8), room);
        const Bytes toUtf8 = Reference::encode(units, room);
        for (const size_t level : textLevels) {
            const Tarsel::Infra::CHiddenCpuFeatures hidden(cpuLevels[level].lacks);
            uint8_t* const to = out.end() - room;
            std::fill(to, out.end(), untouched);
            ASSERT_EQ(utf8TGb2312(in.putLast(utf8), reinterpret_cast<char*>(to), sizeOf(utf8),
                                  static_cast<int>(room)),
                      utf8.empty() ? 0 : toGb.result);
            ASSERT_TRUE(utf8.empty() || Bytes(to, out.end()) == toGb.bytes);

            std::fill(to, out.end(), untouched);
            char* const source = reinterpret_cast<char*>(in.putLast(gb));
            ASSERT_EQ(Gb2312TUtf8(source, to, static_cast<int>(room)), sizeOf(toUtf8));
            Bytes filled = toUtf8;
            filled.resize(room, 0);
            ASSERT_EQ(Bytes(to, out.end()), filled);
        }
    }
}

TEST(NlsCodePage936Test, AnAstralCharacterWhoseLowBitsAreZeroEndsTheText)
{
    uint8_t text[] = "ab\xF0\xA0\x80\x80z";
    char bytes[8] = {};
    EXPECT_EQ(utf8TGb2312(text, bytes, sizeof(text), sizeof(bytes)), 2);
    EXPECT_STREQ(bytes, "ab");
}

TEST(NlsCodePage936Test, ConvertsInPlaceWhatTheDescribedWayCan)
{
    std::string longText;
    for (int i = 0; i < 500; ++i) {
        longText += "\xE5\x95\x8A";
    }
    std::string place = longText;
    const int size = static_cast<int>(place.size());
    EXPECT_EQ(utf8TGb2312(reinterpret_cast<uint8_t*>(place.data()), place.data(), size, size), 500);
    for (size_t i = 0; i < 500; ++i) {
        ASSERT_EQ(place.substr(2 * i, 2), "\xB0\xA1");
    }
    place = longText;
    {
        const CMemoryShortage shortage(1, Shortage::once);
        EXPECT_EQ(utf8TGb2312(reinterpret_cast<uint8_t*>(place.data()), place.data(), size, size),
                  0);
    }
    EXPECT_EQ(place, longText);
    // The target is cleared first.
    EXPECT_EQ(Gb2312TUtf8(place.data(), reinterpret_cast<uint8_t*>(place.data()), size), 0);
    EXPECT_EQ(place, std::string(place.size(), '\0'));
}

TEST(NlsCodePage936Test, RefusesWhatIsNoBuffer)
{
    uint8_t utf8[] = "a";
    char text[] = "a";
    uint16_t unit = 'a';
    char out = '#';
    for (const int room : {-1, INT_MIN}) {
        EXPECT_EQ(UniTGb2312(&unit, 1, &out, room), -1);
        EXPECT_EQ(UniTGb2312(&unit, room, &out, 1), -1);
        EXPECT_EQ(Gb2312ToUni(text, &unit, room), 0);
        EXPECT_EQ(utf8TGb2312(utf8, &out, 1, room), 0);
        EXPECT_EQ(utf8TGb2312(utf8, &out, room, 1), 0);
        EXPECT_EQ(Gb2312TUtf8(text, utf8, room), 0);
    }
    EXPECT_EQ(UniTGb2312(nullptr, 1, &out, 1), -1);
    EXPECT_EQ(UniTGb2312(&unit, 1, nullptr, 1), -1);
    EXPECT_EQ(Gb2312ToUni(nullptr, &unit, 1), 0);
    EXPECT_EQ(Gb2312ToUni(text, nullptr, 1), 0);
    EXPECT_EQ(utf8TGb2312(nullptr, &out, 1, 1), 0);
    EXPECT_EQ(utf8TGb2312(utf8, nullptr, 1, 1), 0);
    EXPECT_EQ(Gb2312TUtf8(nullptr, utf8, 1), 0);
    EXPECT_EQ(Gb2312TUtf8(text, nullptr, 1), 0);
    text[0] = '\0';
    utf8[0] = 0;
    EXPECT_EQ(Gb2312TUtf8(text, utf8, 1), 0);
    EXPECT_EQ(utf8TGb2312(utf8, &out, 1, 1), 0);
    EXPECT_EQ(unit, 'a');
    EXPECT_EQ(out, '#');
}

} // namespace
