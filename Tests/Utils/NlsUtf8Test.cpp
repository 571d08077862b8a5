// UTF-8: single sequences by written cases; texts beside a reference that walks the table, on every
// kind of processor, in memory that ends where text or result do.

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>

#include "Infra/Unicode.h"
#include "Support/Bytes.h"
#include "Support/CpuLevels.h"
#include "Support/LogCapture.h"
#include "Support/NlsReference.h"

namespace
{

using namespace Tarsel::TestSupport;
namespace Utils = Tarsel::Utils;
using Reference::Units;

constexpr uint8_t untouched = 0xEE;

int sizeOf(const Bytes& bytes)
{
    return static_cast<int>(bytes.size());
}

TEST(NlsUtf8Test, DecodesOneSequence)
{
    const struct
    {
        const char* name;
        Bytes text;
        int length;
        uint16_t value;
    } cases[] = {
        {"NUL", {0x00}, 1, 0},
        {"ASCII", {0x7F, 0x80}, 1, 0x7F},
        {"least of two", {0xC2, 0x80}, 2, 0x80},
        {"largest of two", {0xDF, 0xBF}, 2, 0x7FF},
        {"least of three", {0xE0, 0xA0, 0x80}, 3, 0x800},
        {"euro", {0xE2, 0x82, 0xAC, 0x41}, 3, 0x20AC},
        {"surrogate", {0xED, 0xA0, 0x80}, 3, 0xD800},
        {"largest of three", {0xEF, 0xBF, 0xBF}, 3, 0xFFFF},
        {"four, cut", {0xF0, 0x9F, 0x98, 0x80}, 4, 0xF600},
        {"four, cut to 0", {0xF0, 0xA0, 0x80, 0x80}, 4, 0},
        {"largest of four", {0xF7, 0xBF, 0xBF, 0xBF}, 4, 0xFFFF},
        {"five", {0xF8, 0x88, 0x80, 0x80, 0x81}, 5, 1},
        {"six", {0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}, 6, 0xFFFF},
        {"over-long NUL", {0xC0, 0x80}, -1, 0},
        {"over-long two", {0xC1, 0xBF}, -1, 0},
        {"over-long three", {0xE0, 0x9F, 0xBF}, -1, 0},
        {"over-long four", {0xF0, 0x8F, 0xBF, 0xBF}, -1, 0},
        {"over-long five", {0xF8, 0x87, 0xBF, 0xBF, 0xBF}, -1, 0},
        {"over-long six", {0xFC, 0x83, 0xBF, 0xBF, 0xBF, 0xBF}, -1, 0},
        {"continuation", {0x80, 0x80}, -1, 0},
        {"FE", {0xFE, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}, -1, 0},
        {"FF", {0xFF, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}, -1, 0},
        {"cut two", {0xC3}, -1, 0},
        {"cut three", {0xE2, 0x82}, -1, 0},
        {"broken three", {0xE2, 0x82, 0x41}, -1, 0},
        {"broken two", {0xC3, 0xC3}, -1, 0},
    };
    for (const auto& c : cases) {
        const Bytes exact = c.text;
        uint16_t value = 0;
        EXPECT_EQ(Utils::utf8_mbtowc(&value, exact.data(), sizeOf(exact)), c.length) << c.name;
        EXPECT_EQ(value, c.value) << c.name;
        EXPECT_EQ(Utils::utf8_mbtowc(&value, exact.data(), c.length - 1), -1) << c.name;
    }
}

TEST(NlsUtf8Test, EncodesOneValue)
{
    const struct
    {
        uint16_t value;
        Bytes text;
    } cases[] = {{0, {0}},
                 {0x7F, {0x7F}},
                 {0x80, {0xC2, 0x80}},
                 {0x7FF, {0xDF, 0xBF}},
                 {0x800, {0xE0, 0xA0, 0x80}},
                 {0xD800, {0xED, 0xA0, 0x80}},
                 {0xFFFF, {0xEF, 0xBF, 0xBF}}};
    for (const auto& c : cases) {
        Bytes text(c.text.size());
        EXPECT_EQ(Utils::utf8_wctomb(text.data(), c.value, sizeOf(text)), sizeOf(text));
        EXPECT_EQ(text, c.text);
        text[0] = untouched;
        for (const int room : {sizeOf(text) - 1, 0, -1}) {
            EXPECT_EQ(Utils::utf8_wctomb(text.data(), c.value, room), -1);
        }
        EXPECT_EQ(text[0], untouched);
        EXPECT_EQ(Utils::utf8_wctomb(nullptr, c.value, 6), 0);
    }
}

TEST(NlsUtf8Test, SaysTheLengthThatALeadByteAnnounces)
{
    const struct
    {
        unsigned first, last;
        int size;
    } ranges[] = {{0x00, 0x7F, 0}, {0x80, 0xBF, -1}, {0xC0, 0xDF, 2}, {0xE0, 0xEF, 3},
                  {0xF0, 0xF7, 4}, {0xF8, 0xFB, 5},  {0xFC, 0xFF, 6}};
    for (const auto& range : ranges) {
        for (unsigned lead = range.first; lead <= range.last; ++lead) {
            EXPECT_EQ(Utils::get_utf8_size(static_cast<unsigned char>(lead)), range.size) << lead;
        }
    }
}

TEST(NlsUtf8Test, TakesTheFirstCharacterOfAText)
{
    const struct
    {
        const char* text;
        uint16_t value;
        int length;
    } cases[] = {
        {"", 0, 0},
        {"AB", 'A', 1},
        {"\xC3\xBF"
         "A",
         0xFF, 2},
        {"\xE2\x82\xAC", 0x20AC, 3},
        {"\xC1\x81", 'A', 2},
        {"\xE0\x81\x81", 'A', 3},
        {"\xC3", 0, 2},
        {"\xE2\x82", 0, 3},
        {"\xC3"
         "A",
         0xC0, 2},
        {"\xE2\x82"
         "A",
         0x2080, 3},
        {"\xE2\xE2\x82", 0x2000, 3},
        {"\xE2\xF0", 0x2000, 3},
        {"\x82\xAC", 0, 0},
        {"\xF0\x9F\x98\x80", 0, 0},
        {"\xFF", 0, 0},
    };
    for (const auto& c : cases) {
        int length = -7;
        EXPECT_EQ(Utils::GetUnicodeFromUtf8(c.text, &length), c.value) << c.text;
        EXPECT_EQ(length, c.length) << c.text;
    }
}

TEST(NlsUtf8Test, EncodesValuesOf32Bits)
{
    const struct
    {
        std::vector<uint32_t> values;
        int room;
        Bytes text;
        const char* message;
    } cases[] = {
        {{}, 0, {}, ""},
        {{0, 0x7F, 0x80}, 4, {0x00, 0x7F, 0xC2, 0x80}, ""},
        {{0x7FF, 0x800}, 5, {0xDF, 0xBF, 0xE0, 0xA0, 0x80}, ""},
        {{0xFFFF, 0x10000}, 7, {0xEF, 0xBF, 0xBF, 0xF0, 0x90, 0x80, 0x80}, ""},
        {{0x1FFFFF, 0x200000}, 9, {0xF7, 0xBF, 0xBF, 0xBF, 0xF8, 0x88, 0x80, 0x80, 0x80}, ""},
        {{0x3FFFFFF, 0x4000000},
         11,
         {0xFB, 0xBF, 0xBF, 0xBF, 0xBF, 0xFC, 0x84, 0x80, 0x80, 0x80, 0x80},
         ""},
        {{0x80000000, 0x7FFFFFFF, 0xFFFFFFFF}, 6, {0xFD, 0xBF, 0xBF, 0xBF, 0xBF, 0xBF}, ""},
        {{0x41, 0x20AC, 0x42}, 3, {0x41}, "warn|UCS4ToUtf8 utf8Size error\n"},
        {{0x41}, 0, {}, "warn|UCS4ToUtf8 utf8Size error\n"},
        {{0x41}, -5, {}, "warn|UCS4ToUtf8 utf8Size error\n"},
    };
    CLogCapture log;
    for (const auto& c : cases) {
        std::vector<char> unaligned(c.values.size() * 4 + 1);
        if (!c.values.empty()) {
            memcpy(unaligned.data() + 1, c.values.data(), c.values.size() * 4);
        }
        Bytes text(12, untouched);
        Bytes expected = c.text;
        expected.resize(text.size(), untouched);
        EXPECT_EQ(Utils::UCS4ToUtf8(unaligned.data() + 1, static_cast<int>(c.values.size()) * 4,
                                    text.data(), c.room),
                  sizeOf(c.text));
        EXPECT_EQ(text, expected);
        EXPECT_EQ(log.takeLeveled(), c.message);
    }
    uint32_t place[] = {0x41, 0x20AC, 0x1F600};
    uint8_t* const inPlace = reinterpret_cast<uint8_t*>(place);
    EXPECT_EQ(Utils::UCS4ToUtf8(reinterpret_cast<char*>(place), 12, inPlace, 12), 8);
    EXPECT_EQ(memcmp(inPlace, "A€😀", 8), 0);
    char values[8] = {'A'};
    uint8_t text[8] = {untouched};
    EXPECT_EQ(Utils::UCS4ToUtf8(nullptr, 6, nullptr, 8), 0);
    EXPECT_EQ(log.takeLeveled(), "warn|ucs4 is invalid\n");
    EXPECT_EQ(Utils::UCS4ToUtf8(values, 6, nullptr, 8), 0);
    EXPECT_EQ(log.takeLeveled(), "warn|utf8 is invalid\n");
    EXPECT_EQ(Utils::UCS4ToUtf8(values, 6, text, 8), 0);
    EXPECT_EQ(log.takeLeveled(), "warn|UCS4ToUtf8 ucs4Len error\n");
    EXPECT_EQ(Utils::UCS4ToUtf8(values, -4, text, 8), 0);
    EXPECT_EQ(log.takeLeveled(), "");
    EXPECT_EQ(text[0], untouched);
}

/// Text of one style after the other, now and then damaged.
Bytes randomText(CRandom& random, size_t size, bool hasNul)
{
    const uint32_t bounds[] = {0x7F, 0x7F, 0x7FF, 0xFFFF, 0xFFFF, 0x1FFFFF, 0x7FFFFFFF};
    Bytes text;
    while (text.size() < size) {
        const size_t style = random.below(9);
        for (size_t left = 1 + random.below(40); left > 0; --left) {
            if (style == 7) {
                text.push_back(static_cast<uint8_t>(0x80 + random.below(0x80)));
                continue;
            }
            const size_t kind = style == 8 ? random.below(5) : style;
            uint8_t bytes[6];
            uint32_t value = 1 + static_cast<uint32_t>(random.below(bounds[kind]));
            Utils::UCS4ToUtf8(reinterpret_cast<char*>(&value), 4, bytes, 6);
            const int length = std::max(Utils::get_utf8_size(bytes[0]), 1);
            text.insert(text.end(), bytes, bytes + length);
            if (random.below(100) == 0) {
                text.back() = static_cast<uint8_t>(1 + random.below(255));
            }
        }
    }
    text.resize(size);
    if (hasNul) {
        text.back() = 0;
    }
    return text;
}

TEST(NlsUtf8Test, DecodesTextsLikeTheReferenceAndTouchesNothingAround)
{
    CRandom random;
    const CGuardedBytes in(20000);
    const CGuardedBytes out(40000);
    for (size_t round = 0; round < 1500; ++round) {
        const size_t size = 1 + (round % 50 == 0 ? random.below(12000) : random.below(400));
        const bool hasNul = random.below(2) == 0;
        const Bytes text = randomText(random, size, hasNul);
        const Units expected = Reference::decode(text);
        const int n = hasNul && random.below(2) == 0 ? INT_MAX : sizeOf(text);
        for (const size_t level : textLevels) {
            const Tarsel::Infra::CHiddenCpuFeatures hidden(cpuLevels[level].lacks);
            uint16_t* const units = reinterpret_cast<uint16_t*>(out.end()) - expected.size();
            ASSERT_EQ(Utils::utf8_mbstowcs(units, in.putLast(text), n),
                      static_cast<int>(expected.size()));
            ASSERT_EQ(Units(units, units + expected.size()), expected)
                << toHex(text) << " " << cpuLevels[level].name;
        }
    }
}

Units randomUnits(CRandom& random, size_t count)
{
    const size_t bounds[] = {0x7F, 0x7FF, 0xFFFF};
    Units units;
    while (units.size() < count) {
        const size_t style = random.below(4);
        for (size_t left = 1 + random.below(60); left > 0; --left) {
            const size_t kind = style == 3 ? random.below(3) : style;
            units.push_back(static_cast<uint16_t>(1 + random.below(bounds[kind])));
        }
    }
    units.resize(count);
    return units;
}

TEST(NlsUtf8Test, EncodesTextsLikeTheReferenceAndTouchesNothingAround)
{
    CRandom random;
    const CGuardedBytes in(40000);
    const CGuardedBytes out(40000);
    for (size_t round = 0; round < 1500; ++round) {
        const size_t count = 1 + (round % 50 == 0 ? random.below(6000) : random.below(300));
        Units units = randomUnits(random, count);
        const bool hasEnd = random.below(2) == 0;
        units.back() = hasEnd ? 0 : units.back();
        // Without an end the room has to stop it: a unit takes one byte of it at least.
        const size_t size = Reference::encode(units, SIZE_MAX).size();
        const size_t room = hasEnd                 ? 1 + random.below(3 * count)
                            : random.below(2) == 0 ? size
                                                   : 1 + random.below(count);
        const Bytes expected = Reference::encode(units, room);
        uint16_t* const from = reinterpret_cast<uint16_t*>(in.end()) - count;
        std::copy(units.begin(), units.end(), from);
        for (const size_t level : textLevels) {
            const Tarsel::Infra::CHiddenCpuFeatures hidden(cpuLevels[level].lacks);
            uint8_t* const to = out.end() - room;
            std::fill(to, out.end(), untouched);
            ASSERT_EQ(Utils::utf8_wcstombs(to, from, static_cast<int>(room)), sizeOf(expected));
            ASSERT_EQ(Bytes(to, to + expected.size()), expected) << cpuLevels[level].name;
            ASSERT_EQ(Bytes(to + expected.size(), out.end()),
                      Bytes(room - expected.size(), untouched));
        }
    }
}

TEST(NlsUtf8Test, EveryUnitGoesThereAndBack)
{
    Units all;
    for (unsigned unit = 1; unit < 0x10000; ++unit) {
        all.push_back(static_cast<uint16_t>(unit));
    }
    all.push_back(0);
    const Bytes expected = Reference::encode(all, SIZE_MAX);
    onEachCpuLevel([&] {
        Bytes text(expected.size());
        EXPECT_EQ(Utils::utf8_wcstombs(text.data(), all.data(), sizeOf(text)), sizeOf(expected));
        EXPECT_EQ(text, expected);
        Units units(all.size());
        EXPECT_EQ(Utils::utf8_mbstowcs(units.data(), text.data(), sizeOf(text)), 0xFFFF);
        EXPECT_EQ(units, all);
    });
}

TEST(NlsUtf8Test, KeepsToTheRoom)
{
    const uint16_t units[] = {'a', 0x20AC, 'b', 0};
    const struct
    {
        int room;
        const char* text;
    } cases[] = {{0, ""}, {1, "a"}, {2, "a"}, {3, "ab"}, {4, "a€"}, {5, "a€b"}, {INT_MAX, "a€b"}};
    for (const auto& c : cases) {
        char text[8] = {};
        EXPECT_EQ(Utils::utf8_wcstombs(reinterpret_cast<uint8_t*>(text), units, c.room),
                  static_cast<int>(strlen(c.text)));
        EXPECT_STREQ(text, c.text);
    }
}

TEST(NlsUtf8Test, BuffersThatOverlapAndOddAddressesGiveTheSameAsOneAfterTheOther)
{
    CRandom random;
    for (size_t round = 0; round < 1500; ++round) {
        const size_t size = 1 + random.below(round % 20 == 0 ? 6000 : 600);
        const Bytes text = randomText(random, size, false);
        const Units units = Reference::decode(text);
        const size_t from = 700 + random.below(200);
        const size_t spread = round % 3 == 0 ? 600 : round % 3 == 1 ? 20 : 1;
        const size_t to = from + random.below(2 * spread) - spread + round % 2;
        const size_t room = random.below(3 * size);

        Bytes memory(40000, 0);
        std::copy(text.begin(), text.end(), memory.begin() + static_cast<ptrdiff_t>(from));
        Bytes decoded = memory;
        const int count = Reference::decodeWithin(decoded, from, size, to);
        Bytes other(40000, 0);
        std::copy_n(reinterpret_cast<const uint8_t*>(units.data()), units.size() * sizeof(uint16_t),
                    other.data() + from);
        Bytes encoded = other;
        const int written = Reference::encodeWithin(encoded, from, room, to);
        onEachCpuLevel([&] {
            Bytes place = memory;
            uint16_t* const target = reinterpret_cast<uint16_t*>(place.data() + to);
            ASSERT_EQ(Utils::utf8_mbstowcs(target, place.data() + from, static_cast<int>(size)),
                      count);
            ASSERT_EQ(place, decoded) << toHex(text) << " " << from << " " << to;
            place = other;
            const uint16_t* const source = reinterpret_cast<uint16_t*>(place.data() + from);
            ASSERT_EQ(Utils::utf8_wcstombs(place.data() + to, source, static_cast<int>(room)),
                      written);
            ASSERT_EQ(place, encoded) << toHex(text) << " " << from << " " << to;
        });
    }
}

TEST(NlsUtf8Test, RefusesWhatIsNoBuffer)
{
    uint16_t unit = 7;
    const uint8_t text[] = "A";
    uint8_t byte = untouched;
    const uint16_t units[] = {'A', 0};
    EXPECT_EQ(Utils::utf8_mbtowc(nullptr, text, 1), -1);
    EXPECT_EQ(Utils::utf8_mbtowc(&unit, nullptr, 1), -1);
    EXPECT_EQ(Utils::utf8_mbstowcs(nullptr, text, 1), 0);
    EXPECT_EQ(Utils::utf8_mbstowcs(&unit, nullptr, 1), 0);
    EXPECT_EQ(Utils::utf8_wcstombs(nullptr, units, 1), 0);
    EXPECT_EQ(Utils::utf8_wcstombs(&byte, nullptr, 1), 0);
    for (const int length : {0, -1, INT_MIN}) {
        EXPECT_EQ(Utils::utf8_mbtowc(&unit, text, length), -1);
        EXPECT_EQ(Utils::utf8_mbstowcs(&unit, text, length), 0);
        EXPECT_EQ(Utils::utf8_wcstombs(&byte, units, length), 0);
    }
    int size = 7;
    EXPECT_EQ(Utils::GetUnicodeFromUtf8(nullptr, &size), 0);
    EXPECT_EQ(size, 0);
    EXPECT_EQ(Utils::GetUnicodeFromUtf8("A", nullptr), 'A');
    EXPECT_EQ(unit, 7);
    EXPECT_EQ(byte, untouched);
}

TEST(NlsUtf8Test, TheOlderInterfaceForwardsEachFunction)
{
    uint16_t unit = 0;
    uint16_t units[3] = {};
    uint8_t bytes[8] = {};
    char text[8] = {};
    char euro[] = "\xE2\x82\xAC";
    char chinese[] = "\xB0\xA1";
    int size = 0;
    EXPECT_EQ(::utf8_mbtowc(&unit, reinterpret_cast<uint8_t*>(euro), 3), 3);
    EXPECT_EQ(unit, 0x20AC);
    EXPECT_EQ(::utf8_mbstowcs(units, reinterpret_cast<uint8_t*>(euro), 3), 1);
    EXPECT_EQ(::GetUnicodeFromUtf8(euro, &size), 0x20AC);
    EXPECT_EQ(::utf8_wctomb(bytes, 0xFF, 8), 2);
    EXPECT_EQ(::utf8_wcstombs(bytes, units, 8), 3);
    EXPECT_EQ(memcmp(bytes, euro, 3), 0);
    EXPECT_EQ(::utf8_to_cp1252(bytes, 3, bytes, 8), 1);
    EXPECT_EQ(bytes[0], 0x80);
    EXPECT_EQ(::cp1252_to_utf8(nullptr, 0, bytes, 1), 3);
    EXPECT_EQ(::uni2char(0x554A, bytes, 2), 2);
    EXPECT_EQ(memcmp(bytes, chinese, 2), 0);
    EXPECT_EQ(::char2uni(bytes, 2, &unit), 2);
    EXPECT_EQ(unit, 0x554A);
    EXPECT_EQ(::Gb2312ToUni(chinese, units, 3), 1);
    EXPECT_EQ(::UniTGb2312(units, 3, text, 8), 1);
    EXPECT_STREQ(text, chinese);
    EXPECT_EQ(::Gb2312TUtf8(chinese, bytes, 8), 3);
    EXPECT_STREQ(reinterpret_cast<char*>(bytes), "\xE5\x95\x8A");
    EXPECT_EQ(::utf8TGb2312(bytes, text, 8, 8), 1);
    EXPECT_STREQ(text, chinese);
}

} // namespace
