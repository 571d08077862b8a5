// The log line: filter, layout, cutting, colours, and one piece under concurrency.

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Infra/Infra3/CPrintLog.h"
#include "Infra/Infra3/PrintLog.h"
#include "Infra/Infra3/Thread.h"
#include "Infra3/LogFront.h"
#include "Infra3/LogSink.h"
#include "Support/ChildProcess.h"
#include "Support/FailingThreads.h"
#include "Support/LogCapture.h"

namespace Tarsel
{
namespace Infra
{
namespace
{

using TestSupport::runInChild;

void setOptions(std::initializer_list<uint8_t PrintOptions::*> fields)
{
    PrintOptions options = {};
    for (uint8_t PrintOptions::*field : fields) {
        options.*field = 1;
    }
    setPrintOptions(options);
}

/// The whole line as a printer sees it, for a call at level 3 with time and thread id hidden.
class LogLayoutTest : public testing::Test
{
protected:
    LogLayoutTest() { setLogPrinter(LogPrinterProc(&LogLayoutTest::take, this)); }
    ~LogLayoutTest() override
    {
        setLogPrinter(LogPrinterProc());
        setOptions({});
    }

    std::string line(std::initializer_list<uint8_t PrintOptions::*> fields,
                     const char* revision = "812148M")
    {
        setOptions(fields);
        m_line.clear();
        logFilter(logLevelWarn, "Net", "/src/a/worker.cpp", "work", 120, revision, "text %d\n", 7);
        return m_line;
    }

    std::string m_line;

private:
    void take(const char* text) { m_line += text; }
};

TEST_F(LogLayoutTest, EachOptionChangesItsFieldOnly)
{
    typedef PrintOptions P;
    const std::string tid = std::to_string(CThread::getCurrentThreadID());
    EXPECT_EQ(line({&P::time}), "[ warn Net:812148M " + tid + " worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread}), "[ warn Net:812148M worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::version}), "[ warn Net worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread}, ""), "[ warn Net worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread}, "Unknown"), "[ warn Net worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread}, nullptr), "[ warn Net worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::libName}), "[ warn :812148M worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::libName, &P::version}),
              "[ warn worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::level}), "[ Net:812148M worker.cpp:120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::file}), "[ warn Net:812148M 120]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::line}), "[ warn Net:812148M worker.cpp:]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::function}),
              "[ warn Net:812148M worker.cpp:120 work]text 7\n");
    EXPECT_EQ(line({&P::time, &P::thread, &P::style, &P::function}),
              "[|T:  L:warn |[Net] [ver:812148M] F:worker.cpp|l:120|f:work|m:]text 7\n");
    EXPECT_EQ(line({&P::time, &P::style}, ""),
              "[|T:  L:warn |[Net] [ver:] tid:" + tid + " F:worker.cpp|l:120|m:]text 7\n");
}

TEST_F(LogLayoutTest, TimeHasItsDigitsWhateverIsSwitchedOn)
{
    typedef PrintOptions P;
    int fields[7];
    char rest[64];
    EXPECT_EQ(sscanf(line({&P::thread}).c_str(), "[%2d:%2d:%2d %63[^\n]", &fields[0], &fields[1],
                     &fields[2], rest),
              4);
    EXPECT_STREQ(rest, "warn Net:812148M worker.cpp:120]text 7");
    EXPECT_EQ(sscanf(line({&P::date, &P::millisecond}).c_str(), "[%4d-%2d-%2dT%2d:%2d:%2d.%3d ",
                     &fields[0], &fields[1], &fields[2], &fields[3], &fields[4], &fields[5],
                     &fields[6]),
              7);
    EXPECT_GE(fields[0], 2020);
}

TEST_F(LogLayoutTest, NullTextsPrintInsteadOfCrashing)
{
    setOptions({&PrintOptions::time, &PrintOptions::thread, &PrintOptions::function});
    const char* volatile nothing = nullptr;
    EXPECT_EQ(logFilter(logLevelWarn, nothing, nothing, nothing, 1, nothing, "x\n"), 32);
    EXPECT_EQ(m_line, "[ warn (null) (null):1 (null)]x\n");
    EXPECT_EQ(logFilter(logLevelWarn, "m", "f", "g", 1, "", nothing, 0), 15);
    logWarn("\n");
}

TEST_F(LogLayoutTest, TextWithoutLineEndIsContinuedWithoutPrefix)
{
    setOptions({&PrintOptions::time, &PrintOptions::thread});
    m_line.clear();
    logWarn("one");
    EXPECT_EQ(Infra_returned, 0);
    logWarn(", two");
    logWarn(".\n");
    EXPECT_EQ(Infra_returned, 1);
    logWarn("next\n");
    EXPECT_EQ(m_line, "[ warn Unknown Unknown:0]one, two.\n[ warn Unknown Unknown:0]next\n");
}

TEST_F(LogLayoutTest, LinesAreCutAtTheBuffersEnd)
{
    // A continued line has no prefix, so that the length is the message's.
    struct Case
    {
        int message;
        int result;
        int printed;
        bool ended;
    };
    const Case cases[] = {
        {1000, 1000, 1000, true}, {1023, 1023, 1023, true}, {1024, 1024, 1024, true},
        {1025, 1025, 1025, true}, {8190, 8190, 8190, true}, {8191, 8191, 8190, false},
        {8192, 8192, 8190, true}, {9000, 8192, 8190, true}, {100000, 8192, 8190, true},
    };
    for (const Case& each : cases) {
        const std::string message = std::string(each.message - 1, 'y') + "\n";
        Infra_returned = 0;
        m_line.clear();
        EXPECT_EQ(logWarn("%s", message.c_str()), each.result) << each.message;
        EXPECT_EQ(m_line, message.substr(0, each.printed)) << each.message;
        EXPECT_EQ(Infra_returned, each.ended ? 1 : 0) << each.message;
        Infra_returned = 1;
    }
    // With its prefix a long line keeps 8190 characters too, and a prefix may fill the buffer
    // alone.
    m_line.clear();
    EXPECT_EQ(logWarn("%s", std::string(9000, 'y').c_str()), 8192);
    EXPECT_EQ(m_line.size(), 8190U);
    m_line.clear();
    const std::string module(20000, 'm');
    EXPECT_EQ(logFilter(logLevelWarn, module.c_str(), "f", "g", 1, "", "text\n"), 8192);
    EXPECT_EQ(m_line.size(), 8190U);
}

/// One text behind a line that has not ended, so without a prefix. Formats that compilers warn of
/// are welcome.
int printText(const char* format, ...)
{
    Infra_returned = 0;
    va_list arguments;
    va_start(arguments, format);
    const int length = logFilterEx(logLevelWarn, "m", "f", "g", 1, "", format, arguments);
    va_end(arguments);
    return length;
}

TEST_F(LogLayoutTest, EveryConversionOfTheStandardIsTaken)
{
    const char* volatile nothing = nullptr;
    const struct
    {
        const char* expected;
        std::function<int()> print;
    } cases[] = {
        {"%|a%b|\n", [] { return printText("%%|a%%b|\n"); }},
        {"b-7-b\n", [] { return printText("%2$s-%1$d-%2$s\n", 7, "b"); }},
        {"    3.14|\n", [] { return printText("%*.*f|\n", 8, 2, 3.14159); }},
        {"    3.14|\n", [] { return printText("%3$*1$.*2$f|\n", 8, 2, 3.14159); }},
        {"7   |7   |\n", [] { return printText("%-*d|%*d|\n", 4, 7, -4, 7); }},
        {"ab|abc||\n", [] { return printText("%.*s|%.*s|%.0s|\n", 2, "abc", -1, "abc", "abc"); }},
        {"wide|c\n", [] { return printText("%ls|%lc\n", L"wide", static_cast<wint_t>(L'c')); }},
        {"-1 -2 -3 -4 5 -6 -7\n",
         [] {
             return printText("%hhd %hd %ld %lld %zu %jd %td\n", 255, 65534, -3L, -4LL, size_t{5},
                              intmax_t{-6}, ptrdiff_t{-7});
         }},
        {"0xff 010 +7  7 00007 -0\n",
         [] { return printText("%#x %#o %+d % d %05d %g\n", 255, 8, 7, 7, 7, -0.0); }},
        {"0x1p+0 1.234568e+04 1e-05 1E+10 1.500000\n",
         [] { return printText("%a %e %g %G %Lf\n", 1.0, 12345.678, 1e-5, 1e10, 1.5L); }},
        {"inf -INF nan\n",
         [] {
             const double infinity = std::numeric_limits<double>::infinity();
             return printText("%f %F %f\n", infinity, -infinity, NAN);
         }},
        {"(nil) (null) 0x10\n",
         [nothing] {
             return printText("%p %s %p\n", nothing, nothing, reinterpret_cast<void*>(16));
         }},
        {"    a|b    |\n", [] { return printText("%5c|%-5c|\n", 'a', 'b'); }},
    };
    for (const auto& each : cases) {
        m_line.clear();
        EXPECT_EQ(each.print(), static_cast<int>(strlen(each.expected))) << each.expected;
        EXPECT_EQ(m_line, each.expected);
    }
    m_line.clear();
    EXPECT_EQ(printText("%9000d\n", 7), 8192);
    EXPECT_EQ(m_line, std::string(8190, ' '));
    Infra_returned = 1;
}

TEST_F(LogLayoutTest, MessagesThatCannotBeFormattedPrintTheirPrefix)
{
    setOptions({&PrintOptions::time, &PrintOptions::thread});
    const wchar_t wrong[] = {static_cast<wchar_t>(0x7FFFFFFF), 0};
    EXPECT_EQ(logWarn("%ls\n", wrong), 25);
    EXPECT_EQ(m_line, "[ warn Unknown Unknown:0]");
    logWarn("\n");
}

TEST_F(LogLayoutTest, ErrnoSurvivesAndReachesTheMessage)
{
    errno = ENOENT;
    const char* volatile shortFormat = "%m%.0d\n"; // not a literal: compilers take %m for a mistake
    logWarn(shortFormat, 0);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_NE(m_line.find("No such file or directory"), std::string::npos);
    errno = ENOENT;
    m_line.clear();
    const char* volatile longFormat = "%s %m\n";
    logWarn(longFormat, std::string(2000, 'y').c_str());
    EXPECT_NE(m_line.find("No such file or directory"), std::string::npos);
}

TEST(LogFilterTest, LevelsAndSwitchesDecide)
{
    TestSupport::CLogCapture log;
    EXPECT_EQ(getPrintLogLevel(), 4);
    setPrintLogLevel(3);
    EXPECT_EQ(logInfo("off\n"), 0);
    EXPECT_GT(logWarn("warn\n"), 0);
    setPrintLogLevel(4);
    EXPECT_EQ(logDebug("off\n"), 0);
    EXPECT_EQ(logFilter(6, "m", "f", "g", 1, "", "off\n"), 0);
    setPrintLogLevel(5);
    EXPECT_GT(logDebug("debug\n"), 0);
    EXPECT_GT(logFilter(6, "m", "f", "g", 1, "", "debug six\n"), 0);
    EXPECT_EQ(logLibName(7, "X", "off\n"), 0);
    EXPECT_EQ(logLibName(0, "X", "off\n"), 0);
    EXPECT_EQ(logLibName(-1, "X", "off\n"), 0);
    setPrintLogLevel(4);
    Infra_openLog = CLOSE_LOG;
    EXPECT_EQ(logFatal("off\n"), 0);
    Infra_openLog = OPEN_PARITAL;
    EXPECT_GT(logInfo("partial\n"), 0);
    Infra_openLog = OPEN_ALL;
    EXPECT_EQ(log.text(), "warn\ndebug\ndebug six\npartial\n");
}

TEST(LogFilterTest, LevelsOutsideTheTablesPrintWithoutReadingBeyondThem)
{
    const TestSupport::ChildResult result = runInChild([] {
        setPrintLogLevel(std::numeric_limits<int>::max());
        setOptions({&PrintOptions::time, &PrintOptions::thread});
        for (const int level : {std::numeric_limits<int>::min(), -1, 0, 7, 1000}) {
            logFilter(level, "m", "f", "g", level, "", "x\n");
        }
        setPrintLogLevel(4);
    });
    EXPECT_TRUE(result.succeeded());
    EXPECT_NE(result.output.find("\033[0;40m[ m f:-2147483648]x\n\033[0m\033[0;40m[ m f:-1]x\n"
                                 "\033[0m\033[0;40m[ m f:0]x\n"
                                 "\033[0m\033[37;40m[ trace m f:7]x\n"
                                 "\033[0m\033[37;40m[ trace m f:1000]x\n"),
              std::string::npos)
        << result.report();
}

TEST(LogColorTest, EveryLineThatBeginsGetsItsColorAndEveryEndedLineAReset)
{
    const TestSupport::ChildResult result = runInChild([] {
        typedef PrintOptions P;
        setPrintLogLevel(6);
        setOptions({&P::time, &P::thread, &P::file, &P::line, &P::libName, &P::version});
        printf("BEGIN");
        logFatal("1\n");
        logError("2\n");
        logWarn("3\n");
        logInfo("4");
        logInfo("+\n");
        logTrace("5\n");
        setOptions({&P::time, &P::thread, &P::file, &P::line, &P::libName, &P::version, &P::color});
        logInfo("plain\n");
        setOptions({&P::time, &P::thread, &P::file, &P::line, &P::libName, &P::version});
        logInfo("open");
        setOptions({&P::time, &P::thread, &P::file, &P::line, &P::libName, &P::version, &P::color});
        logInfo(" end\n");
        printf("END");
    });
    EXPECT_NE(result.output.find("BEGIN\033[35;40m[ fatal ]1\n\033[0m\033[31;40m[ error ]2\n\033[0m"
                                 "\033[33;40m[ warn ]3\n\033[0m\033[32;40m[ info ]4+\n\033[0m"
                                 "\033[37;40m[ trace ]5\n\033[0m[ info ]plain\n"
                                 "\033[32;40m[ info ]open end\n\033[0mEND"),
              std::string::npos)
        << result.report();
}

TEST(LogColorTest, ColorsGoToStandardOutputEvenWhenAPrinterTakesTheText)
{
    const TestSupport::ChildResult result = runInChild([] {
        TestSupport::CLogCapture log;
        printf("BEGIN");
        logWarn("text\n");
        printf("END");
        EXPECT_EQ(log.text(), "text\n");
    });
    EXPECT_TRUE(result.succeeded());
    EXPECT_NE(result.output.find("BEGIN\033[33;40m\033[0mEND"), std::string::npos)
        << result.report();
}

TEST(LogOutputTest, AZeroCharacterEndsTheTextOnStandardOutputButNotTheCount)
{
    const TestSupport::ChildResult result = runInChild([] {
        setOptions({&PrintOptions::time, &PrintOptions::thread, &PrintOptions::color});
        EXPECT_EQ(logWarn("ab%cde\n", 0), 31);
        EXPECT_EQ(Infra_returned, 1);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    EXPECT_NE(result.output.find("Unknown:0]ab"), std::string::npos);
    EXPECT_EQ(result.output.find("de"), std::string::npos);
}

TEST(LogOutputTest, ErrorsAndWhatCameBeforeThemSurviveAbort)
{
    const TestSupport::ChildResult result = runInChild([] {
        logInfo("before\n");
        logError("the error\n");
        logInfo("lost with the buffer\n");
        raise(SIGKILL);
    });
    EXPECT_NE(result.output.find("before\n"), std::string::npos);
    EXPECT_NE(result.output.find("the error\n"), std::string::npos);
    EXPECT_EQ(result.output.find("lost"), std::string::npos);
}

/// Runs `body` in a child whose standard output is a pipe, and returns what came out of it.
std::string pipedFrom(const std::function<void()>& body)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        close(ends[0]);
        close(ends[1]);
        body();
        fflush(stdout);
        _exit(0);
    }
    close(ends[1]);
    std::string all;
    char piece[65536];
    for (ssize_t n = read(ends[0], piece, sizeof(piece)); n > 0;
         n = read(ends[0], piece, sizeof(piece))) {
        all.append(piece, static_cast<size_t>(n));
    }
    close(ends[0]);
    waitpid(child, nullptr, 0);
    return all;
}

constexpr int pipeWriters = 8;
constexpr int linesOfEach = 250;
constexpr int longestMessage = 7800; // a prefix goes before it

void writeLinesOfEveryLength(int thread)
{
    if (thread < 2) {
        CThread::load(70); // signals in the middle of everything
    }
    for (int i = 0; i < linesOfEach; ++i) {
        const int length = (i * pipeWriters + thread) * 4 % longestMessage;
        const std::string text(length, static_cast<char>('a' + thread));
        logFilter(i % 2 == 0 ? logLevelWarn : logLevelError, "m", "f", "g", i, "", "<%d %d %s>\n",
                  thread, i, text.c_str());
        logInfo("<switched off now and then>\n");
    }
}

void switchOptionsAndLevels(const std::atomic<bool>& over)
{
    uint8_t PrintOptions::*const fields[] = {&PrintOptions::time,  &PrintOptions::color,
                                             &PrintOptions::style, &PrintOptions::date,
                                             &PrintOptions::level, &PrintOptions::function};
    for (unsigned round = 0; !over; ++round) {
        PrintOptions options = {};
        for (unsigned bit = 0; bit < std::size(fields); ++bit) {
            options.*fields[bit] = round >> bit & 1;
        }
        setPrintOptions(options);
        setPrintLogLevel(3 + static_cast<int>(round % 3));
    }
}

TEST(LogOutputTest, LinesOfEveryLengthReachAPipeWholeWhileOptionsChange)
{
    const TestSupport::COrdinaryThreads ordinary;
    CThread::load(100); // the thread manager has introduced itself
    const std::string all = TestSupport::withoutColors(pipedFrom([] {
        std::atomic<bool> over{false};
        std::thread switcher(switchOptionsAndLevels, std::cref(over));
        std::vector<std::thread> writers;
        for (int t = 0; t < pipeWriters; ++t) {
            writers.emplace_back(writeLinesOfEveryLength, t);
        }
        for (std::thread& writer : writers) {
            writer.join();
        }
        over = true;
        switcher.join();
    }));
    int next[pipeWriters] = {};
    size_t end = 0;
    for (size_t at = 0; at < all.size(); at = end + 1) {
        end = all.find('\n', at);
        ASSERT_NE(end, std::string::npos);
        const std::string line = all.substr(at, end - at);
        const size_t message = line.find("]<");
        ASSERT_EQ(line[0], '[') << line;
        if (line.find("]ThreadBody ") != std::string::npos) {
            continue; // the load controller's
        }
        ASSERT_NE(message, std::string::npos) << line;
        if (line.substr(message) == "]<switched off now and then>") {
            continue;
        }
        int thread = -1;
        int number = -1;
        ASSERT_EQ(sscanf(line.c_str() + message, "]<%d %d ", &thread, &number), 2) << line;
        ASSERT_EQ(number, next[thread]++) << "each thread's own lines stay in order";
        const int length = (number * pipeWriters + thread) * 4 % longestMessage;
        const std::string expected = "]<" + std::to_string(thread) + " " + std::to_string(number) +
                                     " " + std::string(length, static_cast<char>('a' + thread)) +
                                     ">";
        ASSERT_EQ(line.substr(message), expected);
    }
    for (const int count : next) {
        EXPECT_EQ(count, linesOfEach);
    }
}

void* logOnSmallStack(void*)
{
    setPrintLogLevel(6);
    logFilter(logLevelTrace, "module", "/a/b/file.cpp", "function", 1, "revision", "%f %s\n", 1e300,
              "text");
    return nullptr;
}

TEST(LogOutputTest, AThreadWithSixteenKilobytesOfStackCanLog)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizers need more stack than such a thread has";
#endif
    const TestSupport::ChildResult result = runInChild([] {
        PrintOptions options = {};
        options.style = options.date = options.millisecond = options.function = 1;
        setPrintOptions(options);
        pthread_attr_t attribute;
        pthread_attr_init(&attribute);
        ASSERT_EQ(pthread_attr_setstacksize(&attribute, 16384), 0);
        pthread_t thread;
        ASSERT_EQ(pthread_create(&thread, &attribute, logOnSmallStack, nullptr), 0);
        pthread_join(thread, nullptr);
        pthread_attr_destroy(&attribute);
    });
    EXPECT_TRUE(result.succeeded()) << result.report();
    EXPECT_NE(result.output.find(" text\n"), std::string::npos);
}

void printToASink()
{
    static std::string written;
    static constexpr LogSink sink = {
        [](const char* module) { return strcmp(module, "Quiet") == 0; },
        [](const char* text, size_t length, const Infra_SystemTimeEx& now) {
            EXPECT_GE(now.year, 2020);
            written.append(text, length);
        },
        [] { written += "<closed>"; }};
    TestSupport::CLogCapture log;
    setLogSink(&sink);
    setLogStatistics(true);
    setOptions({&PrintOptions::time, &PrintOptions::thread});
    Infra_openLog = OPEN_PARITAL;
    EXPECT_EQ(logLibName(logLevelWarn, "Quiet", "off\n"), 0);
    const int length = logLibName(logLevelWarn, "Loud", "on\n");
    EXPECT_EQ(logLibName(logLevelWarn, "Loud", "%s", std::string(9000, 'y').c_str()), 8192);
    Infra_openLog = OPEN_ALL;
    setOptions({&PrintOptions::tologfile});
    logLibName(logLevelWarn, "Other", "\n");
    logLibName(logLevelWarn, "", "not counted\n");
    setLogStatistics(false);
    logCleanup();
    setLogSink(nullptr);
    setOptions({});

    EXPECT_EQ(written.substr(0, static_cast<size_t>(length)), "[ warn Loud Unknown:0]on\n");
    EXPECT_EQ(written.size(), static_cast<size_t>(length) + 8190 + strlen("<closed>"));
    const std::map<std::string, LogModuleInfo> statistics = getLogStatistics();
    EXPECT_EQ(statistics.size(), 2U);
    EXPECT_EQ(statistics.at("Loud").printedBytes, static_cast<uint64_t>(length) + 8192);
    EXPECT_EQ(statistics.count("Other"), 1U);
}

TEST(LogSinkTest, FileStatisticsAndModuleSwitchSeeEveryPrintedLine)
{
    TestSupport::inChild(printToASink);
}

TEST(DumpHexTest, RowsBlocksAndTheRest)
{
    TestSupport::CLogCapture log;
    uint8_t bytes[530];
    for (int i = 0; i < 530; ++i) {
        bytes[i] = static_cast<uint8_t>(i);
    }
    dumpHex(bytes, 20);
    EXPECT_EQ(log.text(), "");
    setPrintLogLevel(5);
    DumpHex(bytes + 0x70, 20);
    char expected[256];
    snprintf(expected, sizeof(expected),
             "%p: 70 71 72 73 74 75 76 77 78 79 7a 7b 7c 7d 7e 7f   pqrstuvwxyz.....\n"
             "%p: 80 81 82 83                                       ....\n",
             static_cast<void*>(bytes + 0x70), static_cast<void*>(bytes + 0x80));
    EXPECT_EQ(log.text(), expected);

    log.clear();
    dumpHex(bytes, 528);
    EXPECT_EQ(TestSupport::countOf(log.text(), "\n"),
              34); // 33 rows and a blank one behind 512 bytes
    EXPECT_NE(log.text().find(".\n\n0x"), std::string::npos);
    log.clear();
    dumpHex(nullptr, 100);
    dumpHex(bytes, 0);
    dumpHex(bytes, 0x80000000U); // negative as a 32-bit count
    EXPECT_EQ(log.text(), "");
    setPrintLogLevel(4);
}

int s_evaluated = 0;

int evaluate()
{
    return ++s_evaluated;
}

TEST(LogFrontTest, ArgumentsOfASwitchedOffLevelAreNotEvaluated)
{
    s_evaluated = 0;
    TestSupport::CLogCapture log;
    INFRA_LOG_DEBUG("%d\n", evaluate());
    EXPECT_EQ(s_evaluated, 0);
    INFRA_LOG_INFO("%d\n", evaluate());
    EXPECT_EQ(s_evaluated, 1);
    EXPECT_EQ(log.text(), "1\n");
}

TEST(LogFrontTest, AHoldKeepsMessagesInOrderUntilTheOutermostEnds)
{
    TestSupport::CLogCapture log;
    {
        const CLogHold outer;
        INFRA_LOG_INFO("one ");
        {
            const CLogHold inner;
            INFRA_LOG_WARN("two %s ", "100%s");
        }
        INFRA_LOG_ERROR("three\n");
        EXPECT_EQ(log.text(), "");
    }
    EXPECT_EQ(log.text(), "one two 100%s three\n");
}

} // namespace
} // namespace Infra
} // namespace Tarsel
