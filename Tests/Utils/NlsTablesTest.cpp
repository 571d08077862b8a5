// The tables of the code pages beside the C library's converter: every byte, pair and unit, both ways.

#include <iconv.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "Support/Bytes.h"
#include "Support/NlsReference.h"

namespace
{

using namespace Tarsel::TestSupport;
using namespace Tarsel::Utils;
using Reference::codePages;

/// iconv between a code page and units.
class CIconv
{
public:
    explicit CIconv(const char* page)
        : m_toUnits(iconv_open("UTF-16LE", page)), m_toPage(iconv_open(page, "UTF-16LE"))
    {}
    ~CIconv()
    {
        iconv_close(m_toUnits);
        iconv_close(m_toPage);
    }
    CIconv(const CIconv&) = delete;
    CIconv& operator=(const CIconv&) = delete;

    /// The one unit that the bytes are; 0 when they are none.
    uint16_t unitOf(const Bytes& bytes) const
    {
        const Bytes unit = convert(m_toUnits, bytes);
        return unit.size() == 2 ? static_cast<uint16_t>(unit[0] | unit[1] << 8) : 0;
    }
    /// Empty when there are none.
    Bytes bytesOf(uint16_t unit) const
    {
        return convert(m_toPage, {static_cast<uint8_t>(unit), static_cast<uint8_t>(unit >> 8)});
    }

private:
    static Bytes convert(iconv_t way, Bytes from)
    {
        Bytes to(8);
        char* source = reinterpret_cast<char*>(from.data());
        char* target = reinterpret_cast<char*>(to.data());
        size_t sourceLeft = from.size();
        size_t targetLeft = to.size();
        const bool isConverted = iconv(way, &source, &sourceLeft, &target, &targetLeft) == 0;
        iconv(way, nullptr, nullptr, nullptr, nullptr);
        to.resize(isConverted ? to.size() - targetLeft : 0);
        return to;
    }

    iconv_t m_toUnits;
    iconv_t m_toPage;
};

TEST(NlsTablesTest, SingleBytePagesAreIconvsButForNul)
{
    for (const auto& page : codePages) {
        SCOPED_TRACE(page.name);
        std::string name = page.name;
        std::replace(name.begin(), name.end(), '_', '-');
        const CIconv iconv(name.c_str());
        for (unsigned value = 0; value < 256; ++value) {
            const uint8_t byte = static_cast<uint8_t>(value);
            const uint16_t expected = iconv.unitOf({byte});
            uint16_t unit = 1;
            ASSERT_EQ(page.char2uni(&byte, 1, &unit), expected != 0 ? 1 : -1) << value;
            ASSERT_EQ(unit, expected) << value;
        }
        for (unsigned unit = 0; unit < 0x10000; ++unit) {
            const Bytes expected = unit == 0 ? Bytes() : iconv.bytesOf(static_cast<uint16_t>(unit));
            uint8_t byte = 0xEE;
            const int result = page.uni2char(static_cast<uint16_t>(unit), &byte, 1);
            ASSERT_EQ(result, expected.empty() ? -1 : 1) << std::hex << unit;
            ASSERT_EQ(byte, expected.empty() ? 0xEE : expected[0]) << std::hex << unit;
        }
    }
}

TEST(NlsTablesTest, Windows1252IsIconvsAndItsUndefinedBytesCanBeWritten)
{
    const CIconv iconv("CP1252");
    const std::set<unsigned> undefined = {0x81, 0x8D, 0x8F, 0x90, 0x9D};
    for (unsigned value = 0; value < 256; ++value) {
        const uint8_t byte = static_cast<uint8_t>(value);
        const Bytes expected =
            undefined.count(value) != 0 ? Bytes{0} : Reference::encodeOne(iconv.unitOf({byte}));
        Bytes text(expected.size());
        ASSERT_EQ(cp1252_to_utf8(text.data(), static_cast<int>(text.size()), &byte, 1), 0);
        ASSERT_EQ(text, expected) << value;
    }
    for (unsigned unit = 0; unit < 0x10000; ++unit) {
        const Bytes text = Reference::encodeOne(static_cast<uint16_t>(unit));
        const Bytes expected = undefined.count(unit) != 0
                                   ? Bytes{static_cast<uint8_t>(unit)}
                                   : iconv.bytesOf(static_cast<uint16_t>(unit));
        Bytes bytes(1);
        bytes.resize(static_cast<size_t>(
            utf8_to_cp1252(text.data(), static_cast<int>(text.size()), bytes.data(), 1)));
        ASSERT_EQ(bytes, expected) << std::hex << unit;
    }
}

TEST(NlsTablesTest, PairsOfCodePage936AreIconvs)
{
    const CIconv iconv("CP936");
    int pairs = 0;
    for (unsigned lead = 0; lead < 256; ++lead) {
        for (unsigned trail = 0; trail < 256; ++trail) {
            const Bytes bytes = {static_cast<uint8_t>(lead), static_cast<uint8_t>(trail)};
            const bool isPair = lead >= 0x81 && lead <= 0xFE && trail != 0;
            const uint16_t byItself = lead == 0x80 ? 0x20AC : static_cast<uint16_t>(lead);
            // iconv takes two characters for a byte and an ASCII character.
            const uint16_t expected = isPair ? iconv.unitOf(bytes) : byItself;
            uint16_t unit = 1;
            ASSERT_EQ(char2uni(bytes.data(), 2, &unit), !isPair         ? 1
                                                        : expected != 0 ? 2
                                                                        : -1)
                << std::hex << lead << trail;
            ASSERT_EQ(unit, expected) << std::hex << lead << trail;
            ASSERT_EQ(char2uni(bytes.data(), 1, &unit), 1);
            ASSERT_EQ(unit, byItself);
            pairs += isPair && expected != 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(pairs, 21791);
}

TEST(NlsTablesTest, UnitsOfCodePage936AreIconvsButForLatinAndTheEuro)
{
    const CIconv iconv("CP936");
    // Latin letters and signs that have a pair, which is read but never written.
    const std::map<unsigned, Bytes> readOnly = {
        {0xA4, {0xA1, 0xE8}}, {0xA7, {0xA1, 0xEC}}, {0xA8, {0xA1, 0xA7}}, {0xB0, {0xA1, 0xE3}},
        {0xB1, {0xA1, 0xC0}}, {0xB7, {0xA1, 0xA4}}, {0xD7, {0xA1, 0xC1}}, {0xE0, {0xA8, 0xA4}},
        {0xE1, {0xA8, 0xA2}}, {0xE8, {0xA8, 0xA8}}, {0xE9, {0xA8, 0xA6}}, {0xEA, {0xA8, 0xBA}},
        {0xEC, {0xA8, 0xAC}}, {0xED, {0xA8, 0xAA}}, {0xF2, {0xA8, 0xB0}}, {0xF3, {0xA8, 0xAE}},
        {0xF7, {0xA1, 0xC2}}, {0xF9, {0xA8, 0xB4}}, {0xFA, {0xA8, 0xB2}}, {0xFC, {0xA8, 0xB9}}};
    const auto isOnPageOfPairs = [](unsigned unit) {
        const struct
        {
            unsigned first, last;
        } pages[] = {{0x01, 0x04}, {0x20, 0x26}, {0x30, 0x33}, {0x4E, 0x9F},
                     {0xDC, 0xDC}, {0xF9, 0xFA}, {0xFE, 0xFF}};
        return std::any_of(std::begin(pages), std::end(pages), [=](const auto& range) {
            return unit >> 8 >= range.first && unit >> 8 <= range.last;
        });
    };
    for (unsigned value = 0; value < 0x10000; ++value) {
        const uint16_t unit = static_cast<uint16_t>(value);
        const Bytes known = iconv.bytesOf(unit);
        Bytes expected = value == 0x20AC ? Bytes() : known;
        if (value < 0x100) {
            const auto pair = readOnly.find(value);
            ASSERT_EQ(value < 0x80 || known.empty(), pair == readOnly.end()) << value;
            ASSERT_TRUE(pair == readOnly.end() || pair->second == known) << value;
            expected = value == 0 ? Bytes() : Bytes{static_cast<uint8_t>(value)};
        }
        uint8_t bytes[2] = {0xEE, 0xEE};
        const int length = uni2char(unit, bytes, 2);
        ASSERT_EQ(length, expected.empty() ? -1 : static_cast<int>(expected.size())) << value;
        Bytes contents = expected;
        contents.resize(2, expected.empty() && isOnPageOfPairs(value) ? 0 : 0xEE);
        ASSERT_EQ(Bytes(bytes, bytes + 2), contents) << value;
        bytes[0] = 0xEE;
        ASSERT_EQ(uni2char(unit, bytes, 1), expected.size() == 1 ? 1 : -1) << value;
        ASSERT_EQ(bytes[0], expected.size() == 1 ? expected[0] : 0xEE) << value;
    }
}

} // namespace
