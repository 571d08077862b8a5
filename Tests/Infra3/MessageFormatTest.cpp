// The formatter of messages against the system's: the same bytes and the same result, in every room.

#include "Infra3/MessageFormat.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace Tarsel
{
namespace Infra
{
namespace
{

struct Made
{
    int result;
    std::string bytes; ///< what has been written, the terminator too

    bool operator==(const Made&) const = default;
};

typedef int (*Formatter)(char*, size_t, const char*, va_list);

Made format(Formatter formatter, size_t room, const char* text, ...)
{
    std::string buffer(room, '?');
    va_list arguments;
    va_start(arguments, text);
    errno = ENOENT;
    const int result = formatter(buffer.data(), room, text, arguments);
    va_end(arguments);
    buffer.resize(result < 0 ? 0 : std::min(room, static_cast<size_t>(result) + 1));
    return {result, buffer};
}

/// Both formatters agree in a buffer that is ample, and in those around the text's end.
template <typename... A>
void expectSame(const std::string& text, A... arguments)
{
    const Made whole = format(vsnprintf, 400, text.c_str(), arguments...);
    EXPECT_EQ(format(formatMessage, 400, text.c_str(), arguments...), whole) << text;
    const size_t end = whole.result < 0 ? 1 : static_cast<size_t>(whole.result);
    for (size_t room = end > 30 ? end - 30 : 1; room <= end + 2; ++room) {
        EXPECT_EQ(format(formatMessage, room, text.c_str(), arguments...),
                  format(vsnprintf, room, text.c_str(), arguments...))
            << text << " in " << room;
    }
}

std::string conversion(const char* flags, const char* width, const char* letters)
{
    return std::string("<%") + flags + width + letters + "|";
}

TEST(MessageFormatTest, EveryPlainConversionIsTheSystems)
{
    const std::vector<int64_t> numbers = {0,         1,         9,         10,        99,  100,
                                          9999,      10000,     -1,        -10,       255, 1234567,
                                          INT_MAX,   INT_MIN,   UINT_MAX,  INT64_MAX, -42, 4096,
                                          INT64_MIN, 999999999, 1000000000};
    for (const char* flags : {"", "0", "-", "-0", "0-", "00", "+", " ", "#", "'", "I"}) {
        for (const char* width : {"", "1", "5", "12", "24", "99", "123", ".3", "8.3", "."}) {
            for (const int64_t number : numbers) {
                for (const char* letter : {"d", "i", "u", "x", "X", "o", "c", "hd", "hhu"}) {
                    expectSame(conversion(flags, width, letter), static_cast<int>(number));
                }
                for (const char* letters : {"ld", "lld", "zd", "lu", "llu", "zu", "lx", "llX", "zx",
                                            "li", "jd", "tu", "qd", "lli"}) {
                    expectSame(conversion(flags, width, letters), number);
                }
                expectSame(conversion(flags, width, "p"), reinterpret_cast<void*>(number));
            }
            for (const char* text : {"", "a", "twelve chars", "a text that is longer than widths",
                                     static_cast<const char*>(nullptr)}) {
                expectSame(conversion(flags, width, "s"), text);
            }
        }
    }
}

TEST(MessageFormatTest, WholeMessagesAndOddOnesAreTheSystems)
{
    expectSame("");
    expectSame("100%% of %s, %d%%\n", "it", 7);
    expectSame("this:%p %s started, %d pending, %zu bytes, 0x%08x %c%c\n", &errno, "worker", -3,
               size_t{70000}, 0xBEEF, '<', 0);
    expectSame("%d %s %f %lu\n", 1, "text", 2.5, 3UL); // from the start by the system
    expectSame("%d %m\n", 1);
    expectSame("%-*d|%.*s\n", 6, 1, 2, "text");
    expectSame("%2$s %1$d\n", 1, "text");
    expectSame("%ls|%lc", L"wide", L'w');
    expectSame("%s %s %s %s %s %s %d %d %s\n", "in", "registers", "and", "on", "the", "stack", 1, 2,
               "x");
}

TEST(MessageFormatTest, BrokenFormatsAreTheSystems)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers read formats too, and end the process at such ones";
#endif
    for (const char* broken : {"%", "text %", "%l", "%5", "%-", "%k", "%5%", "%-%", "%lp", "%zs"}) {
        expectSame(broken, "text", 1);
    }
}

TEST(MessageFormatTest, TextsAreWrittenOut)
{
    EXPECT_EQ(format(formatMessage, 64, "%d|%5u|%-5x|%05ld|%s|%p", -7, 7U, 255, -7L,
                     static_cast<const char*>(nullptr), static_cast<void*>(nullptr)),
              (Made{33, std::string("-7|    7|ff   |-0007|(null)|(nil)") + '\0'}));
    EXPECT_EQ(format(formatMessage, 6, "%s %d", "text", 1234),
              (Made{9, std::string("text ") + '\0'}));
}

} // namespace
} // namespace Infra
} // namespace Tarsel
