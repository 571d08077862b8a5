// Printers and print procedures.

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/PrintLog.h"
#include "Support/ChildProcess.h"
#include "Support/LogCapture.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

class CReceiver
{
public:
    bool take(const char* text)
    {
        ++lines;
        last = text;
        return false;
    }
    void print(const char* text) { take(text); }
    bool takeAndLeave(const char*)
    {
        ++lines;
        EXPECT_TRUE(detachPrint(PrintProc(&CReceiver::takeAndLeave, this)));
        logWarn("nested\n");
        return true;
    }
    bool logForEver(const char*)
    {
        ++lines;
        logWarn("again\n");
        return true;
    }
    int lines = 0;
    std::string last;
};

TEST(PrintProcTest, AttachingAndDetachingGoByEquality)
{
    TestSupport::CLogCapture log;
    CReceiver one;
    CReceiver two;
    const PrintProc first(&CReceiver::take, &one);
    EXPECT_TRUE(attachPrint(first));
    EXPECT_FALSE(attachPrint(PrintProc(&CReceiver::take, &one)));
    EXPECT_TRUE(attachPrint(PrintProc(&CReceiver::take, &two)));
    EXPECT_FALSE(attachPrint(PrintProc()));
    logWarn("text\n");
    EXPECT_TRUE(detachPrint(first));
    EXPECT_FALSE(detachPrint(first));
    logWarn("more\n");
    EXPECT_TRUE(detachPrint(PrintProc(&CReceiver::take, &two)));
    logWarn("unseen\n");
    EXPECT_EQ(one.lines, 1);
    EXPECT_EQ(two.lines, 2);
    EXPECT_NE(two.last.find("]more\n"), std::string::npos);
}

TEST(PrintProcTest, AProcedureMayDetachItselfAndLog)
{
    TestSupport::CLogCapture log;
    CReceiver once;
    CReceiver always;
    attachPrint(PrintProc(&CReceiver::takeAndLeave, &once));
    attachPrint(PrintProc(&CReceiver::take, &always));
    logWarn("first\n");
    logWarn("second\n");
    detachPrint(PrintProc(&CReceiver::take, &always));
    EXPECT_EQ(once.lines, 1);
    EXPECT_EQ(always.lines, 3);
    EXPECT_EQ(log.text(), "first\nnested\nsecond\n");
}

TEST(PrintProcTest, EndlessNestingStops)
{
    TestSupport::CLogCapture log;
    CReceiver endless;
    attachPrint(PrintProc(&CReceiver::logForEver, &endless));
    logWarn("once\n");
    detachPrint(PrintProc(&CReceiver::logForEver, &endless));
    EXPECT_EQ(endless.lines, 4);
}

TEST(PrinterTest, ReplacesStandardOutputUntilAnEmptyOneIsInstalled)
{
    const TestSupport::ChildResult result = TestSupport::runInChild([] {
        CReceiver printer;
        EXPECT_EQ(setLogPrinter(LogPrinterProc(&CReceiver::print, &printer)), 0);
        logWarn("for the printer\n");
        EXPECT_EQ(printer.lines, 1);
        setLogPrinter(LogPrinterProc());
        logWarn("for the terminal\n");
        EXPECT_EQ(printer.lines, 1);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    EXPECT_EQ(result.output.find("for the printer"), std::string::npos);
    EXPECT_EQ(TestSupport::countOf(result.output, "for the terminal\n"), 1);
}

std::atomic<int> s_printed{0};

TEST(PrinterTest, MaySwapWhileOthersLog)
{
    CReceiver unused;
    std::atomic<bool> stop{false};
    s_printed = 0;
    const LogPrinterProc counting([](const char*) { ++s_printed; });
    const LogPrinterProc alsoCounting([](const char* text) { s_printed += text[0] != '\0'; });
    setLogPrinter(counting);
    const PrintProc idle([](const char*) { return true; });
    std::vector<std::thread> writers;
    constexpr int lines = 2000;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([] {
            for (int i = 0; i < lines; ++i) {
                logWarn("line\n");
            }
        });
    }
    std::thread swapper([&] {
        while (!stop) {
            setLogPrinter(alsoCounting);
            attachPrint(idle);
            setLogPrinter(counting);
            detachPrint(idle);
        }
    });
    for (std::thread& writer : writers) {
        writer.join();
    }
    stop = true;
    swapper.join();
    setLogPrinter(LogPrinterProc());
    EXPECT_EQ(s_printed, 4 * lines);
}

} // namespace
} // namespace Infra
} // namespace Tarsel
