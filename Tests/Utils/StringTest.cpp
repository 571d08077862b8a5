// Bounded text and IPv4 text: what is kept, what is returned, and that nothing else is touched.

#include "Utils/String.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Support/LogCapture.h"

namespace
{

namespace Utils = Tarsel::Utils;
using Tarsel::IpAddress;

/// An array of 16 characters, filled with '#', that shows what was written into it.
struct Target
{
    explicit Target(const char* text = "#")
    {
        memset(bytes, '#', sizeof(bytes));
        memcpy(bytes, text, strlen(text) + (strcmp(text, "#") == 0 ? 0 : 1));
    }
    /// The bytes with each NUL shown as '0'.
    std::string shown() const
    {
        std::string text(bytes, sizeof(bytes));
        for (char& c : text) {
            c = c == '\0' ? '0' : c;
        }
        return text;
    }
    char bytes[16];
};

TEST(UtilsStrncpy, CutsFillsAndTerminates)
{
    const struct
    {
        size_t size;
        const char* source;
        size_t count;
        size_t result;
        const char* bytes;
    } cases[] = {
        {4, "abcdef", 10, 3, "abc0############"}, {10, "abcdef", 2, 2, "ab0#############"},
        {10, "ab", 5, 2, "ab0000##########"},     {3, "ab", 2, 2, "ab0#############"},
        {1, "abc", 3, 0, "0###############"},     {16, "", 16, 0, "0000000000000000"},
        {0, "abc", 3, 0, "################"},     {5, nullptr, 2, 0, "000#############"},
    };
    for (const auto& c : cases) {
        Target target;
        EXPECT_EQ(Utils::strncpy(target.bytes, c.size, c.source, c.count), c.result);
        EXPECT_EQ(target.shown(), c.bytes);
    }
    EXPECT_EQ(Utils::strncpy(nullptr, 5, "abc", 3), 0u);
}

TEST(UtilsStrncat, ReturnsTheBoundAndStaysWithinIt)
{
    const struct
    {
        const char* before;
        size_t size;
        const char* source;
        size_t count;
        size_t result;
        const char* bytes;
    } cases[] = {
        {"abc", 10, "0123456789", 100, 6, "abc0123450######"},
        {"abc", 10, "xy", 100, 6, "abcxy0##########"},
        {"abc", 10, "xyz", 2, 2, "abcxy0##########"},
        {"abc", 4, "xyz", 3, 0, "abc0############"},
        {"abcdef", 3, "xyz", 3, 0, "abcdef0#########"},
        {"abc", 10, nullptr, 3, 3, "abc0############"},
    };
    for (const auto& c : cases) {
        Target target(c.before);
        EXPECT_EQ(Utils::strncat(target.bytes, c.size, c.source, c.count), c.result);
        EXPECT_EQ(target.shown(), c.bytes);
    }
    EXPECT_EQ(Utils::strncat(nullptr, 5, "abc", 3), 0u);
}

TEST(UtilsSnprintf, ReportsWhatIsKept)
{
    Target cut, fits, full, none;
    EXPECT_EQ(Utils::snprintf_x(cut.bytes, 5, "%s", "abcdefgh"), 4);
    EXPECT_EQ(cut.shown(), "abcd0###########");
    EXPECT_EQ(Utils::snprintf_x(full.bytes, 5, "%d", 1234), 4);
    EXPECT_EQ(full.shown(), "12340###########");
    EXPECT_EQ(Utils::snprintf_x(fits.bytes, 16, "%c%c%c", 'a', '\0', 'b'), 1);
    EXPECT_EQ(fits.shown(), "a0b0############");
    EXPECT_EQ(Utils::snprintf_x(none.bytes, 0, "abc"), 0);
    EXPECT_EQ(Utils::snprintf_x(none.bytes, -1, "abc"), 0);
    EXPECT_EQ(none.shown(), "################");
    EXPECT_EQ(Utils::snprintf_x(nullptr, 8, "abc"), 0);
    const wchar_t unwritable[] = {static_cast<wchar_t>(0xD800), 0};
    EXPECT_EQ(Utils::snprintf_x(cut.bytes, 16, "%ls", unwritable), 0) << "cannot be formatted";
}

TEST(UtilsStricmp, FoldsTheLettersOfAsciiOnly)
{
    EXPECT_EQ(Utils::stricmp("Infra2", "iNFRA2"), 0);
    EXPECT_EQ(Utils::stricmp(nullptr, ""), 0);
    EXPECT_LT(Utils::stricmp("abc", "ABD"), 0);
    EXPECT_GT(Utils::stricmp("ABCD", "abc"), 0);
    EXPECT_LT(Utils::stricmp("_", "A"), 0) << "compared in lower case";
    EXPECT_NE(Utils::stricmp("@", "`"), 0);
    EXPECT_GT(Utils::stricmp("\xC4", "z"), 0);
    EXPECT_NE(Utils::stricmp("\xC4", "\xE4"), 0);
}

TEST(UtilsIp, ReadsFourNumbersAndWarnsOfLess)
{
    const struct
    {
        const char* text;
        uint32_t value;
        const char* warning;
    } cases[] = {
        {"192.168.1.2", 3232235778u, ""},
        {"300.1.1.1", 0x2C010101u, ""},
        {" 1.\t2.+3.-1 and more", 0x010203FFu, ""},
        {"4294967297.0.0.256", 0x01000000u, ""},
        {"0.0.0.0", 0u, ""},
        {"1.2.3", 0x01020300u, "warn|param str 1.2.3 is invalid\n"},
        {"1.2..4", 0x01020000u, "warn|param str 1.2..4 is invalid\n"},
        {"1 .2.3.4", 0x01000000u, "warn|param str 1 .2.3.4 is invalid\n"},
        {"- 1.2.3.4", 0u, "warn|param str - 1.2.3.4 is invalid\n"},
        {"", 0u, "warn|param str  is invalid\n"},
        {nullptr, 0u, "warn|param str (null) is invalid\n"},
    };
    Tarsel::TestSupport::CLogCapture log;
    for (const auto& c : cases) {
        const IpAddress ip = Utils::stringToIp(c.text);
        EXPECT_EQ(ip.value, c.value) << (c.text == nullptr ? "null" : c.text);
        EXPECT_EQ(log.takeLeveled(), c.warning);
    }
}

TEST(UtilsIp, WritesWhatItReads)
{
    for (const char* text : {"0.0.0.0", "255.255.255.255", "10.0.200.7", "1.2.3.4"}) {
        char buffer[16];
        EXPECT_STREQ(Utils::ipToString(Utils::stringToIp(text), buffer, sizeof(buffer)), text);
    }
    IpAddress ip;
    const uint8_t inMemory[4] = {4, 3, 2, 1};
    memcpy(&ip, inMemory, sizeof(ip));
    Target cut, none;
    EXPECT_EQ(Utils::ipToString(ip, cut.bytes, 5), cut.bytes);
    EXPECT_EQ(cut.shown(), "1.2.0###########");
    EXPECT_EQ(Utils::ipToString(ip, none.bytes, 0), none.bytes);
    EXPECT_EQ(none.shown(), "################");
    EXPECT_STREQ(Utils::ipToString(ip, cut.bytes, SIZE_MAX), "1.2.3.4");
}

} // namespace
