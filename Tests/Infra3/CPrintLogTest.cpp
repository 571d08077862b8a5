// The log interface for callers in C.

#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra3/CPrintLogC.h"
#include "Support/ChildProcess.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::ChildResult;
using TestSupport::runInChild;

/// Plain lines without time, thread id and colours.
void plainOptions()
{
    Infra_PrintOptions* const options = Infra_getPrintOption();
    options->time = options->thread = options->color = 1;
}

TEST(CPrintLogTest, TheNameBehindTheLastSlash)
{
    EXPECT_EQ(Infra_reverseEqualOrder("a/b"), 2);
    EXPECT_EQ(Infra_reverseEqualOrder("/x"), 1);
    EXPECT_EQ(Infra_reverseEqualOrder("abc"), -1);
    EXPECT_EQ(Infra_reverseEqualOrder("dir/"), -1);
    EXPECT_EQ(Infra_reverseEqualOrder(""), -1);
    EXPECT_EQ(Infra_reverseEqualOrder(nullptr), -1);
}

TEST(CPrintLogTest, LinesGoToStandardOutputAloneWithTheirUncutLength)
{
    const ChildResult result = runInChild([] {
        setLogPrinter(LogPrinterProc([](const char*) { FAIL() << "printers take no part"; }));
        plainOptions();
        Infra_openLog = OPEN_PARITAL;
        printf("BEGIN");
        EXPECT_EQ(Infra_logFilter(4, "Net", "a/f.c", "g", 7, "12", "one\n"), 24);
        Infra_logFilter(3, "Net", "dir/", "g", 7, nullptr, "two");
        EXPECT_EQ(Infra_returned, 0);
        Infra_logFilter(3, "Net", "f.c", "g", 7, "12", " more\n");
        EXPECT_EQ(Infra_logFilter(6, "Net", "f.c", "g", 7, "12", "off\n"), 0);
        EXPECT_EQ(Infra_logFilter(5, "Net", "f.c", "g", 7, "12", "off\n"), 0);
        Infra_printLogLevel = 5;
        Infra_logFilter(6, nullptr, nullptr, nullptr, 7, "Unknown", "three\n");
        printf("END");
        Infra_returned = 0;
        EXPECT_EQ(Infra_logFilter(3, "m", "f", "g", 1, "", "%s", std::string(10000, 'y').c_str()),
                  10000);
        EXPECT_EQ(Infra_returned, 1);
        Infra_openLog = CLOSE_LOG;
        EXPECT_EQ(Infra_logFilter(1, "Net", "f.c", "g", 7, "12", "off\n"), 0);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    const size_t begin = result.output.find("BEGIN");
    EXPECT_EQ(result.output.substr(begin, result.output.find("END") - begin),
              "BEGIN[ info Net:12 f.c:7]one\n[ warn Net dir/:7]two more\n"
              "[ trace (null) (null):7]three\n");
    EXPECT_EQ(result.output.substr(result.output.find("END") + 3), std::string(8190, 'y'));
}

TEST(CPrintLogTest, ErrorsAreFlushed)
{
    const ChildResult result = runInChild([] {
        Infra_logFilter(2, "m", "f", "g", 1, "", "the C error\n");
        raise(SIGKILL);
    });
    EXPECT_NE(result.output.find("the C error\n"), std::string::npos);
}

/// What C code sets shows in C++ lines and the other way round, but for the record that
/// getPrintOptions() returns: that one is setPrintOptions()'s own.
TEST(CPrintLogTest, COptionsAndSwitchesAreThoseOfTheOtherInterface)
{
    const ChildResult result = runInChild([] {
        PrintOptions options = {};
        options.style = options.color = options.time = options.thread = options.function = 1;
        setPrintOptions(options);
        setPrintLogLevel(5);
        Infra_openLog = OPEN_PARITAL;
        EXPECT_EQ(functionFlagInC(), 1);
        EXPECT_EQ(switchesInC(), 51);
        printf("BEGIN");
        EXPECT_EQ(logInC(6, "C", "tagged\n"), 58);
        setOptionsInC(/*tagged*/ 0, /*coloured*/ 0, /*timed*/ 0);
        getPrintOptions(&options);
        EXPECT_EQ(options.style, 1);
        logWarn("by the C record\n");
        setOptionsInC(/*tagged*/ 0, /*coloured*/ 1, /*timed*/ 0);
        EXPECT_EQ(logInC(3, "C", "coloured\n"), 27);
        setSwitchesInC(2, OPEN_ALL);
        EXPECT_EQ(getPrintLogLevel(), 2);
        EXPECT_EQ(logWarn("off\n"), 0);
        setSwitchesInC(4, CLOSE_LOG);
        EXPECT_EQ(logFatal("off\n"), 0);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    EXPECT_NE(result.output.find("BEGIN[|T:  L:trace |[C] [ver:] F:part.c|l:9|f:logInC|m:]tagged\n"
                                 "[ warn Unknown Unknown:0]by the C record\n"
                                 "\033[33;40m[ warn C part.c:9]coloured\n\033[0m"),
              std::string::npos)
        << result.report();
}

TEST(CPrintLogTest, ThePrefixKeepsToItsBuffer)
{
    plainOptions();
    const std::string whole = "[ warn Net:12 f.c:7]";
    for (const int room : {-1, 0, 1, 2, 10, 20, 21, 100}) {
        char buffer[128];
        memset(buffer, 'x', sizeof(buffer));
        Infra_SystemTimeEx now = {};
        const int length =
            Infra_logOptionControl(buffer, room, 3, "Net", "f.c", "g", 7, "12", &now);
        const std::string expected = room <= 0 ? "" : whole.substr(0, room - 1);
        EXPECT_EQ(length, static_cast<int>(expected.size())) << room;
        if (room > 0) {
            EXPECT_STREQ(buffer, expected.c_str());
            EXPECT_EQ(buffer[expected.size() + 1], 'x');
        } else {
            EXPECT_EQ(buffer[0], 'x');
        }
        EXPECT_GE(now.year, 2020);
    }
    char buffer[16] = "old";
    Infra_SystemTimeEx now = {};
    Infra_returned = 0;
    EXPECT_EQ(Infra_logOptionControl(buffer, 16, 3, "Net", "f.c", "g", 7, "12", &now), 0);
    EXPECT_STREQ(buffer, "");
    EXPECT_GE(now.year, 2020); // also when the line is continued
    Infra_returned = 1;
    EXPECT_EQ(Infra_logOptionControl(nullptr, 16, 3, "Net", "f.c", "g", 7, "12", nullptr), 0);
    *Infra_getPrintOption() = {};
}

TEST(CPrintLogTest, ColorsAreWrittenAndResetByTheRule)
{
    const ChildResult result = runInChild([] {
        char buffer[256];
        printf("BEGIN");
        Infra_logOptionControl(buffer, 256, 3, "m", "f", "g", 1, "", nullptr);
        Infra_returned = 0;
        Infra_resetcolor(); // the line has not ended
        Infra_returned = 1;
        Infra_resetcolor();
        Infra_getPrintOption()->color = 1;
        Infra_resetcolor(); // written already
        Infra_set_console_color(31);
        Infra_reset_console_color();
        Infra_print(1, "text");
        printf("END");
    });
    EXPECT_NE(result.output.find("BEGIN\033[33;40m\033[0m\033[31;40m\033[0mtextEND"),
              std::string::npos)
        << result.report();
}

TEST(CPrintLogTest, TimeAndThread)
{
    const time_t before = time(nullptr);
    const Infra_SystemTimeEx now = Infra_getCurrentTimeEx();
    tm local;
    localtime_r(&before, &local);
    EXPECT_EQ(now.year, local.tm_year + 1900);
    EXPECT_GE(now.month, 1);
    EXPECT_LT(now.millisecond, 1000);
    EXPECT_EQ(now.isdst, 0);
    EXPECT_EQ(Infra_getCurrentThreadID(), gettid());
}

} // namespace
} // namespace Infra
} // namespace Tarsel
